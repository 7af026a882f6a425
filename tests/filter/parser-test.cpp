// The filter file grammar: what is accepted, and how each malformed form is rejected
// with its line, leaving an empty filter that passes everything.
#include <gtest/gtest.h>

#include <string>

#include "filter/filter.h"
#include "filter/white-list.h"
#include "support/temp-dir.h"

namespace {

// Reads `text` as a filter file from a real file.
class FilterFile : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(filter_init(&filter), 0); }
    void TearDown() override { filter_destroy(&filter); }

    int read(const std::string& text) {
        dir.write("filter", text);
        return filter_read(&filter, (dir / "filter").c_str(), &report);
    }

    TempDir dir;
    Filter filter;
    parse_report report;
};

std::string items(const value_type_string_set& set) {
    std::string out;
    for (size_t i = 0; i < set.used; ++i) out += (i ? "|" : "") + std::string(set.set[i]);
    return out;
}

TEST_F(FilterFile, FullFileFillsEverySection) {
    ASSERT_EQ(read("# system rules\n"
                   "[Version]\n"
                   "major = 1\n"
                   "minor = 0\n"
                   "\n"
                   "[Common]\n"
                   "black_char = \"\\\\:*?\"\n"
                   "black_prefix = \"~$\", \".~\"\n"
                   "black_dir_prefix = \"/a/b\"\n"
                   "black_name = \"Thumbs.db\"  # trailing comment\n"
                   "black_path_prefix_selective_sync = \"/Photos\"\n"
                   "max_length = 255\n"
                   "max_path = 4096\n"
                   "[File]\n"
                   "black_char = \"|\"\n"
                   "black_ext = \"tmp\", \"part\",\n"
                   "   \"swp\"\n"
                   "black_name = \"desktop.ini\"\n"
                   "black_prefix = \"._\"\n"
                   "black_ext_selective_sync = \"iso\"\n"
                   "black_name_selective_sync = \"big.bin\"\n"
                   "max_size = 1099511627776\n"
                   "max_size_selective_sync = 1000\n"
                   "[Directory]\n"
                   "black_char = \"%\"\n"
                   "black_name = \".git\"\n"
                   "black_prefix = \"@\"\n"
                   "[EA]\n"
                   "black_ea_name = \"com.example.x\"\n"),
              0)
        << report.message;
    EXPECT_EQ(filter.Version.major, 1);
    EXPECT_STREQ(filter.Common.black_char.str, "\\:*?");
    EXPECT_EQ(items(filter.Common.black_prefix), "~$|.~");
    EXPECT_EQ(items(filter.Common.black_dir_prefix), "/a/b");
    EXPECT_EQ(items(filter.Common.black_name), "Thumbs.db");
    EXPECT_EQ(items(filter.Common.black_path_prefix_selective_sync), "/Photos");
    EXPECT_EQ(filter.Common.max_length, 255u);
    EXPECT_EQ(filter.Common.max_path, 4096u);
    EXPECT_STREQ(filter.File.black_char.str, "|");
    EXPECT_EQ(items(filter.File.black_ext), "tmp|part|swp");
    EXPECT_EQ(items(filter.File.black_name), "desktop.ini");
    EXPECT_EQ(items(filter.File.black_prefix), "._");
    EXPECT_EQ(items(filter.File.black_ext_selective_sync), "iso");
    EXPECT_EQ(items(filter.File.black_name_selective_sync), "big.bin");
    EXPECT_EQ(filter.File.max_size, 1099511627776u);
    EXPECT_EQ(filter.File.max_size_selective_sync, 1000u);
    EXPECT_STREQ(filter.Directory.black_char.str, "%");
    EXPECT_EQ(items(filter.Directory.black_name), ".git");
    EXPECT_EQ(items(filter.Directory.black_prefix), "@");
    EXPECT_EQ(items(filter.EA.black_ea_name), "com.example.x");
}

TEST_F(FilterFile, LooseFormsAreAccepted) {
    ASSERT_EQ(read("  \t\r\n"
                   "   # indented comment\n"
                   "[File] # comment after a header\r\n"
                   "black_ext=\"a\"\r\n"
                   "black_ext \t=\t \"b\" ,\t\"c\",   # the list goes on\n"
                   "\n"
                   "# a comment inside a continued list\n"
                   "  \"d\"\n"
                   "black_ext = \"e\"\n"  // a repeated key appends
                   "black_char = \"x\"\n"
                   "black_char = \"y\"\n"  // a repeated string replaces
                   "max_size = +12.75\n"   // the fraction is dropped
                   "[Common]\n"
                   "max_path = -1\n"  // a negative limit wraps round to the largest
                   "[Version]\n"
                   "minor = -0\n"
                   "major = 1"),  // the last line needs no newline
              0)
        << report.message;
    EXPECT_EQ(items(filter.File.black_ext), "a|b|c|d|e");
    EXPECT_STREQ(filter.File.black_char.str, "y");
    EXPECT_EQ(filter.File.max_size, 12u);
    EXPECT_EQ(filter.Common.max_path, ~0ull);
    EXPECT_EQ(filter.Version.major, 1);
}

TEST_F(FilterFile, EscapesDecodeToTheirBytes) {
    ASSERT_EQ(read("[File]\n"
                   "black_name = \"\\a\\b\\f\\n\\r\\t\\v\\'\\\"\\\\\\?\", \"\\x41\\x7a9\", "
                   "\"\\101\\060\", \"caf\\xc3\\xa9\", \"日本\"\n"),
              0)
        << report.message;
    ASSERT_EQ(filter.File.black_name.used, 5u);
    EXPECT_STREQ(filter.File.black_name.set[0], "\a\b\f\n\r\t\v'\"\\?");
    EXPECT_STREQ(filter.File.black_name.set[1], "Az9");
    EXPECT_STREQ(filter.File.black_name.set[2], "A0");
    EXPECT_STREQ(filter.File.black_name.set[3], "caf\xc3\xa9");
    EXPECT_STREQ(filter.File.black_name.set[4], "日本");
}

TEST_F(FilterFile, OnlyCommentsGivesAnEmptyFilter) {
    ASSERT_EQ(read("# nothing\n\n   # at all\n"), 0);
    EXPECT_EQ(filter.Version.major, 0);
    EXPECT_EQ(filter_test_path(&filter, 0, "/any/file.tmp"), 0);
}

TEST_F(FilterFile, LastStringMayEndWithTheFile) {
    ASSERT_EQ(read("[File]\nblack_ext = \"tmp"), 0) << report.message;
    EXPECT_EQ(items(filter.File.black_ext), "tmp");
}

TEST_F(FilterFile, UnknownKeysNeedANewerMinorVersion) {
    const std::string body = "[File]\nblack_ext = \"tmp\"\nfuture_key = \"x\" whatever\n";
    EXPECT_EQ(read("[Version]\nmajor = 1\nminor = 0\n" + body), -1);
    EXPECT_EQ(report.result, PARSE_PARTIAL);
    EXPECT_EQ(report.unknown_key_count, 1);
    EXPECT_EQ(filter.File.black_ext.used, 0u);

    ASSERT_EQ(filter_init(&filter), 0);
    EXPECT_EQ(read("[Version]\nmajor = 1\nminor = 1\n" + body), 0);
    EXPECT_EQ(items(filter.File.black_ext), "tmp");

    filter_destroy(&filter);
    ASSERT_EQ(filter_init(&filter), 0);
    EXPECT_EQ(read("[Version]\nmajor = 2\nminor = 1\n" + body), -1);
}

TEST_F(FilterFile, UnknownSectionFailsWhateverTheVersion) {
    EXPECT_EQ(read("[Version]\nmajor = 1\nminor = 5\n[Extra]\n"), -1);
    EXPECT_EQ(report.error_code, SECTION_UNDEFINED_SECTION);
    EXPECT_EQ(report.line, 4);
}

TEST_F(FilterFile, MissingFileFails) {
    EXPECT_EQ(filter_read(&filter, (dir / "absent").c_str(), &report), -1);
    EXPECT_NE(report.message.find("can't open"), std::string::npos);
}

TEST_F(FilterFile, ADirectoryIsNotAFilterFile) {
    EXPECT_EQ(filter_read(&filter, dir.path().c_str(), &report), -1);
    EXPECT_EQ(report.result, PARSE_ERROR);
    EXPECT_FALSE(report.message.empty());
}

struct Malformed {
    const char* text;
    int error;
    int line;
};

class FilterFileMalformed : public FilterFile, public ::testing::WithParamInterface<Malformed> {};

// Each case opens with rules that a failed read must not leave behind.
const char kGoodStart[] =
    "[Common]\nblack_prefix = \"~\"\nmax_length = 3\n[File]\nmax_size = 10\nblack_char = \"x\"\n";

TEST_P(FilterFileMalformed, IsRejectedWithItsLineAndLeavesAPassAllFilter) {
    const Malformed& m = GetParam();
    EXPECT_EQ(read(std::string(kGoodStart) + m.text), -1);
    EXPECT_EQ(report.result, PARSE_ERROR);
    EXPECT_EQ(report.error_code, m.error) << report.message;
    EXPECT_EQ(report.line, m.line + 6) << report.message;
    EXPECT_NE(report.message.find("at line " + std::to_string(m.line + 6)), std::string::npos);
    EXPECT_EQ(filter_test_path(&filter, 0, "/~x/long-name.bin"), 0);
    EXPECT_EQ(filter_test_file_size(&filter, ~0ull), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Grammar, FilterFileMalformed,
    ::testing::Values(
        Malformed{"[]\n", SECTION_MISSING_SECTION, 1},
        Malformed{"[File\n", SECTION_MISSING_RIGHT_BRACKET, 1},
        Malformed{"[File# x]\n", SECTION_MISSING_RIGHT_BRACKET, 1},
        Malformed{"[Fi le]\n", SECTION_ILLEGAL_CHARACTER, 1},
        Malformed{"[abcdefghijabcdefghijabcdefghijabc]\n", SECTION_TOO_LONG, 1},
        Malformed{"[File] x\n", LINE_NOT_ENDED, 1},
        Malformed{"[file]\n", SECTION_UNDEFINED_SECTION, 1},
        Malformed{"= \"x\"\n", KEY_MISSING_KEY, 1},
        Malformed{"black_ext \"x\"\n", KEY_ILLEGAL_CHARACTER, 1},
        Malformed{"abcdefghijabcdefghijabcdefghijabc = 1\n", KEY_TOO_LONG, 1},
        Malformed{"max_size = \n", VALUE_NUMERIC_MISSING_VALUE, 1},
        Malformed{"max_size = -x\n", VALUE_NUMERIC_MISSING_INTEGER_PART, 1},
        Malformed{"max_size = .5\n", VALUE_NUMERIC_MISSING_INTEGER_PART, 1},
        Malformed{"max_size = 5.\n", VALUE_NUMERIC_MISSING_FRACTIONAL_PART, 1},
        Malformed{"max_size = 007\n", VALUE_NUMERIC_ILLEGAL_SYNTAX, 1},
        Malformed{"max_size = 12kb\n", VALUE_NUMERIC_ILLEGAL_SYNTAX, 1},
        Malformed{"max_size = 12 13\n", LINE_NOT_ENDED, 1},
        Malformed{"max_size = 1\n\n\nmax_size = 1x\n", VALUE_NUMERIC_ILLEGAL_SYNTAX, 4},
        Malformed{"black_ext = tmp\n", VALUE_STRING_MISSING_LEFT_QUOTE, 1},
        Malformed{"black_ext = \"tmp\n", VALUE_STRING_MISSING_RIGHT_QUOTE, 1},
        Malformed{"black_ext = \"\"\n", VALUE_STRING_EMPTY, 1},
        Malformed{"black_ext = \"a\tb\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1},
        Malformed{"black_ext = \"a\\qb\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1},
        Malformed{"black_ext = \"a\\x4\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1},
        Malformed{"black_ext = \"a\\477\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1},
        Malformed{"black_ext = \"a\\08\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1},
        Malformed{"black_ext = \"a\\x00\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1},
        Malformed{"black_char = \"a\" \"b\"\n", LINE_NOT_ENDED, 1},
        Malformed{"black_ext = \"a\" \"b\"\n", VALUE_SET_MISSING_SEPARATER, 1},
        Malformed{"black_ext = \"a\",\nblack_name = \"b\"\n", LINE_NOT_EXPECTED, 2},
        Malformed{"black_ext = \"a\",\n[Common]\n", LINE_NOT_EXPECTED, 2},
        // Bytes that aren't UTF-8, raw or escaped: a truncated sequence, a lone
        // continuation byte, an overlong '/', a surrogate.
        Malformed{"black_ext = \"caf\xc3\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1},
        Malformed{"black_ext = \"\x80\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1},
        Malformed{"black_ext = \"\\xc0\\xaf\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1},
        Malformed{"black_ext = \"\\xed\\xa0\\x80\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1}));

TEST_F(FilterFile, TextBeforeTheFirstSectionIsNotExpected) {
    EXPECT_EQ(read("black_ext = \"tmp\"\n[File]\n"), -1);
    EXPECT_EQ(report.error_code, LINE_NOT_EXPECTED);
    EXPECT_EQ(report.line, 1);
}

TEST_F(FilterFile, LongStringsAndNumbersAreRejected) {
    EXPECT_EQ(read("[File]\nblack_ext = \"" + std::string(513, 'a') + "\"\n"), -1);
    EXPECT_EQ(report.error_code, VALUE_TOO_LONG);
    ASSERT_EQ(filter_init(&filter), 0);
    EXPECT_EQ(read("[File]\nblack_ext = \"" + std::string(512, 'a') + "\"\n"), 0);
    filter_destroy(&filter);
    ASSERT_EQ(filter_init(&filter), 0);
    EXPECT_EQ(read("[File]\nmax_size = " + std::string(512, '1') + "\n"), -1);
    EXPECT_EQ(report.error_code, VALUE_TOO_LONG);
}

TEST_F(FilterFile, OverlongLineIsCutAndTheRestFails) {
    // A string cut by the line limit doesn't end there: the rest is a line of its own.
    std::string line =
        "black_ext = \"" + std::string(500, 'a') + "\", \"" + std::string(510, 'b') + "\"\n";
    EXPECT_EQ(read("[File]\n" + line), -1);
    EXPECT_EQ(report.error_code, VALUE_STRING_MISSING_RIGHT_QUOTE);
    EXPECT_EQ(report.line, 2);

    // A long comment's tail is read as a line of its own.
    ASSERT_EQ(filter_init(&filter), 0);
    EXPECT_EQ(read("[File]\n#" + std::string(1030, 'c') + "\n"), -1);
    EXPECT_EQ(report.line, 3);

    // A line of exactly the limit is still one line.
    ASSERT_EQ(filter_init(&filter), 0);
    std::string full = "black_ext = \"" + std::string(500, 'a') + "\", \"";
    full += std::string(1024 - full.size() - 1, 'b') + "\"";
    ASSERT_EQ(full.size(), 1024u);
    EXPECT_EQ(read("[File]\n" + full + "\nmax_size = 1\n"), 0) << report.message;
    EXPECT_EQ(filter.File.black_ext.used, 2u);
}

TEST_F(FilterFile, EmbeddedNulBytesAreRejected) {
    EXPECT_EQ(read(std::string("[File]\nblack_ext = \"a\0b\"\n", 25)), -1);
    EXPECT_EQ(report.error_code, VALUE_STRING_ILLEGAL_CHARACTER);
    ASSERT_EQ(filter_init(&filter), 0);
    EXPECT_EQ(read(std::string("[File]\nmax_size = 1\0\n", 21)), -1);
    EXPECT_EQ(report.error_code, VALUE_NUMERIC_ILLEGAL_SYNTAX);
}

TEST_F(FilterFile, HugeFileIsRejectedWithoutReadingItAll) {
    std::string text = "[File]\n";
    std::string rule = "black_name = \"" + std::string(100, 'n') + "\"\n";
    while (text.size() <= static_cast<size_t>(PARSER_FILE_MAX)) text += rule;
    EXPECT_EQ(read(text), -1);
    EXPECT_EQ(report.result, PARSE_ERROR);
    EXPECT_NE(report.message.find("larger than"), std::string::npos);
    EXPECT_EQ(filter.File.black_name.used, 0u);
}

TEST(WhiteListFile, ReadsExtensionsAndRejectsMalformedFiles) {
    TempDir dir;
    WhiteList list;
    ASSERT_EQ(white_list_init(&list), 0);
    dir.write("white", "[Version]\nmajor = 1\nminor = 0\n[File]\nwhite_ext = \"doc\", \"TXT\"\n");
    ASSERT_EQ(white_list_read(&list, (dir / "white").c_str()), 0);
    EXPECT_EQ(items(list.File.white_ext), "doc|TXT");
    white_list_destroy(&list);

    ASSERT_EQ(white_list_init(&list), 0);
    dir.write("white", "[File]\nblack_ext = \"doc\"\n");
    parse_report report;
    EXPECT_EQ(white_list_read(&list, (dir / "white").c_str(), &report), -1);
    EXPECT_EQ(report.result, PARSE_PARTIAL);
    EXPECT_EQ(white_list_test(&list, "a.doc"), -1);

    ASSERT_EQ(white_list_init(&list), 0);
    dir.write("white", "[Common]\n");
    EXPECT_EQ(white_list_read(&list, (dir / "white").c_str(), &report), -1);
    EXPECT_EQ(report.error_code, SECTION_UNDEFINED_SECTION);
    white_list_destroy(&list);
}

}  // namespace
