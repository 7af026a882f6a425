// The filter file grammar: what is accepted, and how each malformed form is rejected
// with its line, leaving an empty filter that passes everything.
#include <gtest/gtest.h>

#include <string>

#include "filter/filter.h"
#include "support/temp-dir.h"

namespace {

// Reads `text` as a filter file from a real file, into a fresh filter each time.
class FilterFile : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(filter_init(&filter), 0); }
    void TearDown() override { filter_destroy(&filter); }

    int read(const std::string& text) {
        filter_destroy(&filter);
        EXPECT_EQ(filter_init(&filter), 0);
        dir.write("filter", text);
        report = parse_report();
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

TEST_F(FilterFile, LooseFormsAreAccepted) {
    ASSERT_EQ(read("  \t\r\n"
                   "   # indented comment\n"
                   "[File] # comment after a header\r\n"
                   "black_ext=\"a\"\r\n"
                   "black_ext \t=\t \"b\" ,\t\"c\",   # the list goes on\n"
                   "\n"
                   "# a comment inside a continued list\n"
                   "  \"d\"\n"
                   "black_ext = \"e\"  # a repeated key appends\n"
                   "black_char = \"x\"\n"
                   "black_char = \"y\"\n"  // a repeated string replaces
                   "max_size = +12.75\n"   // the fraction is dropped
                   "max_size_selective_sync = 1099511627776\n"
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
    EXPECT_EQ(filter.File.max_size_selective_sync, 1099511627776u);
    EXPECT_EQ(filter.Common.max_path, ~0ull);
    EXPECT_EQ(filter.Version.major, 1);

    ASSERT_EQ(read("# nothing\n\n   # at all\n"), 0);
    EXPECT_EQ(filter_test_path(&filter, 0, "/any/file.tmp"), 0);
    // The last string may end with the file.
    ASSERT_EQ(read("[File]\nblack_ext = \"tmp"), 0) << report.message;
    EXPECT_EQ(items(filter.File.black_ext), "tmp");
}

TEST_F(FilterFile, LimitsOfStringsAndLines) {
    EXPECT_EQ(read("[File]\nblack_ext = \"" + std::string(512, 'a') + "\"\n"), 0);
    // A line of exactly the limit is still one line.
    std::string full = "black_ext = \"" + std::string(500, 'a') + "\", \"";
    full += std::string(1024 - full.size() - 1, 'b') + "\"";
    ASSERT_EQ(full.size(), 1024u);
    EXPECT_EQ(read("[File]\n" + full + "\nmax_size = 1\n"), 0) << report.message;
    EXPECT_EQ(filter.File.black_ext.used, 2u);
}

TEST_F(FilterFile, EscapesDecodeToTheirBytes) {
    ASSERT_EQ(read("[File]\n"
                   "black_name = \"\\a\\b\\f\\n\\r\\t\\v\\'\\\"\\\\\\?\", \"\\x41\\x7a9\", "
                   "\"\\101\\060\", \"caf\\xc3\\xa9\", \"日本\"\n"),
              0)
        << report.message;
    EXPECT_EQ(items(filter.File.black_name), "\a\b\f\n\r\t\v'\"\\?|Az9|A0|caf\xc3\xa9|日本");
}

TEST_F(FilterFile, UnknownKeysNeedANewerMinorVersionAndKeysNeedASection) {
    const std::string body = "[File]\nblack_ext = \"tmp\"\nfuture_key = \"x\" whatever\n";
    EXPECT_EQ(read("[Version]\nmajor = 1\nminor = 0\n" + body), -1);
    EXPECT_EQ(report.result, PARSE_PARTIAL);
    EXPECT_EQ(report.unknown_key_count, 1);
    EXPECT_EQ(filter.File.black_ext.used, 0u);
    EXPECT_EQ(read("[Version]\nmajor = 1\nminor = 1\n" + body), 0);
    EXPECT_EQ(items(filter.File.black_ext), "tmp");
    EXPECT_EQ(read("[Version]\nmajor = 2\nminor = 1\n" + body), -1);
    // The tail of an overlong comment is read as a line of its own, here an unknown key.
    EXPECT_EQ(read("[File]\n#" + std::string(1030, 'c') + "\n"), -1);
    EXPECT_EQ(report.line, 3);
    EXPECT_EQ(read("black_ext = \"tmp\"\n[File]\n"), -1);
    EXPECT_EQ(report.error_code, LINE_NOT_EXPECTED);
    EXPECT_EQ(report.line, 1);
}

TEST_F(FilterFile, UnreadableFilesFail) {
    EXPECT_EQ(filter_read(&filter, (dir / "absent").c_str(), &report), -1);
    EXPECT_NE(report.message.find("can't open"), std::string::npos);
    EXPECT_EQ(filter_read(&filter, dir.path().c_str(), &report), -1);
    EXPECT_EQ(report.result, PARSE_ERROR);

    // Too large: refused without reading it all.
    std::string text = "[File]\n";
    std::string rule = "black_name = \"" + std::string(100, 'n') + "\"\n";
    while (text.size() <= static_cast<size_t>(PARSER_FILE_MAX)) text += rule;
    EXPECT_EQ(read(text), -1);
    EXPECT_EQ(report.result, PARSE_ERROR);
    EXPECT_NE(report.message.find("larger than"), std::string::npos);
    EXPECT_EQ(filter.File.black_name.used, 0u);
}

struct Malformed {
    std::string text;
    int error;
    int line;
};

class FilterFileMalformed : public FilterFile, public ::testing::WithParamInterface<Malformed> {};

// Each case opens with rules that a failed read must not leave behind.
const char kGoodStart[] =
    "[Common]\nblack_prefix = \"~\"\nmax_length = 3\n[File]\nmax_size = 10\nblack_char = \"x\"\n";

TEST_P(FilterFileMalformed, IsRejectedWithItsLineAndLeavesAPassAllFilter) {
    const Malformed& m = GetParam();
    EXPECT_EQ(read(kGoodStart + m.text), -1);
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
        // An unknown section fails whatever the version.
        Malformed{"[Version]\nmajor = 1\nminor = 5\n[Extra]\n", SECTION_UNDEFINED_SECTION, 4},
        Malformed{"= \"x\"\n", KEY_MISSING_KEY, 1},
        Malformed{"black_ext \"x\"\n", KEY_ILLEGAL_CHARACTER, 1},
        Malformed{"abcdefghijabcdefghijabcdefghijabc = 1\n", KEY_TOO_LONG, 1},
        Malformed{"max_size = \n", VALUE_NUMERIC_MISSING_VALUE, 1},
        Malformed{"max_size = -x\n", VALUE_NUMERIC_MISSING_INTEGER_PART, 1},
        Malformed{"max_size = 5.\n", VALUE_NUMERIC_MISSING_FRACTIONAL_PART, 1},
        Malformed{"max_size = 007\n", VALUE_NUMERIC_ILLEGAL_SYNTAX, 1},
        Malformed{"max_size = 12kb\n", VALUE_NUMERIC_ILLEGAL_SYNTAX, 1},
        Malformed{"max_size = 12 13\n", LINE_NOT_ENDED, 1},
        Malformed{"max_size = 1\n\n\nmax_size = 1x\n", VALUE_NUMERIC_ILLEGAL_SYNTAX, 4},
        Malformed{std::string("max_size = 1\0\n", 14), VALUE_NUMERIC_ILLEGAL_SYNTAX, 1},
        Malformed{"max_size = " + std::string(512, '1') + "\n", VALUE_TOO_LONG, 1},
        Malformed{"black_ext = \"" + std::string(513, 'a') + "\"\n", VALUE_TOO_LONG, 1},
        Malformed{"black_ext = tmp\n", VALUE_STRING_MISSING_LEFT_QUOTE, 1},
        Malformed{"black_ext = \"tmp\n", VALUE_STRING_MISSING_RIGHT_QUOTE, 1},
        // A string cut by the line limit doesn't end there: the rest is a line of its own.
        Malformed{
            "black_ext = \"" + std::string(500, 'a') + "\", \"" + std::string(510, 'b') + "\"\n",
            VALUE_STRING_MISSING_RIGHT_QUOTE, 1},
        Malformed{"black_ext = \"\"\n", VALUE_STRING_EMPTY, 1},
        Malformed{"black_ext = \"a\tb\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1},
        Malformed{"black_ext = \"a\\qb\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1},
        Malformed{"black_ext = \"a\\x4\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1},
        Malformed{"black_ext = \"a\\477\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1},
        Malformed{"black_ext = \"a\\x00\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1},
        Malformed{std::string("black_ext = \"a\0b\"\n", 18), VALUE_STRING_ILLEGAL_CHARACTER, 1},
        Malformed{"black_char = \"a\" \"b\"\n", LINE_NOT_ENDED, 1},
        Malformed{"black_ext = \"a\" \"b\"\n", VALUE_SET_MISSING_SEPARATER, 1},
        Malformed{"black_ext = \"a\",\nblack_name = \"b\"\n", LINE_NOT_EXPECTED, 2},
        // Bytes that aren't UTF-8, raw or escaped: a truncated sequence, a lone
        // continuation byte, an overlong '/', a surrogate.
        Malformed{"black_ext = \"caf\xc3\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1},
        Malformed{"black_ext = \"\x80\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1},
        Malformed{"black_ext = \"\\xc0\\xaf\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1},
        Malformed{"black_ext = \"\\xed\\xa0\\x80\"\n", VALUE_STRING_ILLEGAL_CHARACTER, 1}));

}  // namespace
