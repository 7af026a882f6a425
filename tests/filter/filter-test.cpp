// Path, size and attribute tests of a filter, rule by rule, with the rule each hit names;
// and writing a filter out so that reading it again gives the same rules.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "filter/filter.h"
#include "support/temp-dir.h"

namespace {

const char kRules[] =
    "[Version]\nmajor = 1\nminor = 0\n"
    "[Common]\n"
    "black_char = \":\"\n"
    "black_prefix = \"~$\", \"Draft_\"\n"
    "black_dir_prefix = \"/a/b\"\n"
    "black_name = \"Thumbs.db\"\n"
    "black_path_prefix_selective_sync = \"/Photos/2020\"\n"
    "max_length = 40\n"
    "max_path = 4096\n"
    "[File]\n"
    "black_char = \"|\"\n"
    "black_ext = \"tmp\"\n"
    "black_name = \"desktop.ini\"\n"
    "black_prefix = \"._\"\n"
    "black_ext_selective_sync = \"iso\"\n"
    "black_name_selective_sync = \"big.bin\"\n"
    "max_size = 1000\n"
    "max_size_selective_sync = 500\n"
    "[Directory]\n"
    "black_char = \"%\"\n"
    "black_name = \".git\", \"caf\\xc3\\xa9\"\n"
    "black_prefix = \"@\"\n"
    "[EA]\n"
    "black_ea_name = \"com.example.quarantine\"\n";

class LoadedFilter : public ::testing::Test {
  protected:
    void SetUp() override {
        dir.write("filter", kRules);
        ASSERT_EQ(filter_init(&filter), 0);
        parse_report report;
        ASSERT_EQ(filter_read(&filter, (dir / "filter").c_str(), &report), 0) << report.message;
    }
    void TearDown() override { filter_destroy(&filter); }

    TempDir dir;
    Filter filter;
};

struct PathCase {
    int is_dir;
    std::string path;
    int expected;
};

std::string repeat(const std::string& s, int n) {
    std::string out;
    while (n-- > 0) out += s;
    return out;
}

TEST_F(LoadedFilter, EveryRuleKindHitsWithItsOwnCode) {
    const std::string nfc_e = "\xc3\xa9";    // é as one code point
    const std::string nfd_e = "e\xcc\x81";   // e and a combining acute
    const std::string upper_e = "\xc3\x89";  // É
    const PathCase cases[] = {
        // Plain passes and malformed input.
        {0, "/docs/report.txt", 0},
        {0, "docs/report.txt", FILTER_ERROR},
        {0, "", FILTER_ERROR},
        {1, "/", 0},
        // Characters: Common for everything, File only for file names, Directory only
        // for directories.
        {0, "/x/a:b.txt", FILTER_CHAR},
        {0, "/x:y/a.txt", FILTER_CHAR},
        {0, "/x/a|b.txt", FILTER_CHAR},
        {1, "/x/a|b", 0},
        {1, "/x/50%", FILTER_CHAR},
        {0, "/x/50%.txt", 0},
        // Prefixes of names and components, ignoring ASCII case, never of whole paths.
        {0, "/~$report.docx", FILTER_PREFIX},
        {0, "/x/draft_one.txt", FILTER_PREFIX},
        {1, "/DRAFT_dir/sub", FILTER_PREFIX},
        {0, "/x/my~$file", 0},
        {0, "/._resource", FILTER_PREFIX},
        {1, "/._resource", 0},
        {1, "/@eaDir", FILTER_PREFIX},
        {0, "/@eaDir.txt", 0},
        // Directory prefixes over the whole path, on '/' boundaries.
        {1, "/a/b", FILTER_DIR_PREFIX},
        {0, "/a/b/c/d.txt", FILTER_DIR_PREFIX},
        {0, "/A/B/c.txt", FILTER_DIR_PREFIX},
        {0, "/a/bc.txt", 0},
        {1, "/a/bc", 0},
        // Exact names.
        {0, "/x/thumbs.DB", FILTER_NAME},
        {0, "/x/Thumbs.db.bak", 0},
        {1, "/x/Thumbs.db", FILTER_NAME},
        {0, "/DESKTOP.INI", FILTER_NAME},
        {1, "/desktop.ini", 0},
        {0, "/desktop.ini.old", 0},
        {1, "/x/.git", FILTER_NAME},
        {0, "/x/.Git/config", FILTER_NAME},
        {0, "/x/.git", 0},
        {1, "/x/.github", 0},
        {1, "/x/Thumbs.db2", 0},
        {1, "x/.git", FILTER_NAME},
        // Extensions: after the last dot that doesn't start the name.
        {0, "/x/a.TMP", FILTER_EXT},
        {0, "/x/a.tmp.txt", 0},
        {0, "/x/a.tmpx", 0},
        {0, "/x/.tmp", 0},
        {0, "/x.tmp/a", 0},
        // Selective sync kinds.
        {0, "/Photos/2020/a.jpg", FILTER_PATH_PREFIX_SELECTIVE_SYNC},
        {1, "/photos/2020", FILTER_PATH_PREFIX_SELECTIVE_SYNC},
        {0, "/Photos/2021/a.jpg", 0},
        {0, "/Photos/20200/a.jpg", 0},
        {0, "/x/Big.Bin", FILTER_NAME_SELECTIVE_SYNC},
        {0, "/x/big.bin2", 0},
        {0, "/x/disk.ISO", FILTER_EXT_SELECTIVE_SYNC},
        {1, "/x/disk.iso", 0},
        {0, "/x/disk.isox", 0},
        // Order: a name prefix is tested before the directory prefix, a folder rule
        // before the extension.
        {0, "/a/b/~$x", FILTER_PREFIX},
        {0, "/Photos/2020/x.tmp", FILTER_PATH_PREFIX_SELECTIVE_SYNC},
        // Lengths count bytes, of the name and of every component.
        {0, "/" + std::string(40, 'n'), 0},
        {0, "/" + std::string(41, 'n'), FILTER_LENGTH},
        {1, "/x/" + std::string(41, 'd') + "/y", FILTER_LENGTH},
        {0, "/" + repeat(nfc_e, 20), 0},
        {0, "/" + repeat(nfc_e, 21), FILTER_LENGTH},
        {0, "/" + std::string(512, 'n'), FILTER_ERROR},
        {0, "/" + repeat(std::string(40, 'd') + "/", 103) + "f", FILTER_ERROR},
        // Names that look alike are different unless they differ only in ASCII case.
        {1, "/caf" + nfc_e, FILTER_NAME},
        {1, "/caf" + nfd_e, 0},
        {1, "/caf" + upper_e, 0},
        {0, "/caf" + nfc_e + "/menu.txt", FILTER_NAME},
    };
    for (const PathCase& c : cases)
        EXPECT_EQ(filter_test_path(&filter, c.is_dir, c.path.c_str()), c.expected)
            << (c.is_dir ? "dir " : "file ") << c.path;
}

TEST_F(LoadedFilter, ExplainNamesTheRuleItemAndSubject) {
    filter_hit hit;
    EXPECT_EQ(filter_test_path_explain(&filter, 0, "/x/report.Tmp", &hit), FILTER_EXT);
    EXPECT_STREQ(hit.rule, "File.black_ext");
    EXPECT_STREQ(hit.item, "tmp");
    EXPECT_EQ(std::string(hit.subject, hit.subject_len), "Tmp");
    EXPECT_EQ(filter_test_path_explain(&filter, 0, "/src/.git/HEAD", &hit), FILTER_NAME);
    EXPECT_STREQ(hit.rule, "Directory.black_name");
    EXPECT_EQ(std::string(hit.subject, hit.subject_len), ".git");
    EXPECT_EQ(filter_test_path_explain(&filter, 0, "/fine.txt", &hit), 0);
    EXPECT_EQ(hit.rule, nullptr);
    EXPECT_STREQ(filter_result_name(-99), "FILTER_UNKNOWN");
}

TEST_F(LoadedFilter, SizesAndAttributeNames) {
    EXPECT_EQ(filter_test_file_size(&filter, 500), 0);
    EXPECT_EQ(filter_test_file_size(&filter, 501), FILTER_FILE_SIZE_SELECTIVE_SYNC);
    EXPECT_EQ(filter_test_file_size(&filter, 1000), FILTER_FILE_SIZE_SELECTIVE_SYNC);
    EXPECT_EQ(filter_test_file_size(&filter, 1001), FILTER_FILE_SIZE);
    EXPECT_EQ(filter_test_full_path_size(&filter, 4096), 0);
    EXPECT_EQ(filter_test_full_path_size(&filter, 4097), FILTER_PATH_SIZE);
    EXPECT_EQ(filter_test_ea(&filter, "COM.example.Quarantine"), FILTER_EA_NAME);
    EXPECT_EQ(filter_test_ea(&filter, "com.example"), 0);

    filter.File.max_size = 0;
    filter.File.max_size_selective_sync = 0;
    filter.Common.max_path = 0;
    EXPECT_EQ(filter_test_file_size(&filter, ~0ull), 0);
    EXPECT_EQ(filter_test_full_path_size(&filter, ~0ull), 0);
}

std::string print(const Filter& f) {
    char* buf = nullptr;
    size_t len = 0;
    FILE* out = open_memstream(&buf, &len);
    EXPECT_EQ(filter_print(&f, out), 0);
    std::fclose(out);
    std::string text(buf, len);
    std::free(buf);
    return text;
}

// Written over the file it came from, the filter keeps that file's mode and reads back as
// the same rules.
TEST_F(LoadedFilter, WrittenFilterReadsBackAsTheSameRules) {
    // Values that need every kind of escape, non-ASCII bytes, and a list long enough to
    // be continued over several lines.
    const char* awkward[] = {"a\"b",  "back\\slash", "tab\there",  "new\nline",
                             "$HOME", "@x`y`",       "ca\xc3\xa9", "\xe6\x97\xa5\xe6\x9c\xac",
                             "\x7f",  "cr\r"};
    for (const char* s : awkward) ASSERT_EQ(vt_string_set_insert(&filter.File.black_name, s), 0);
    for (int i = 0; i < 12; ++i)
        ASSERT_EQ(
            vt_string_set_insert(&filter.Common.black_prefix, ("p" + std::to_string(i)).c_str()),
            0);
    filter.Common.max_path = ~0ull;  // what "max_path = -1" reads as
    const std::string first = print(filter);
    EXPECT_NE(first.find("\\x24HOME"), std::string::npos);
    EXPECT_NE(first.find("\\x40x\\x60y\\x60"), std::string::npos);
    EXPECT_NE(first.find("ca\\xc3\\xa9"), std::string::npos);

    const std::string path = dir / "filter";
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    ASSERT_EQ(filter_write(&filter, path.c_str()), 0);
    struct stat st;
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    std::ifstream written(path, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(written), {}), first);
    Filter again;
    ASSERT_EQ(filter_init(&again), 0);
    parse_report report;
    ASSERT_EQ(filter_read(&again, path.c_str(), &report), 0) << report.message;
    EXPECT_EQ(print(again), first);
    ASSERT_EQ(again.File.black_name.used, filter.File.black_name.used);
    for (size_t i = 0; i < again.File.black_name.used; ++i)
        EXPECT_STREQ(again.File.black_name.set[i], filter.File.black_name.set[i]);
    EXPECT_EQ(again.Common.black_prefix.used, 14u);
    filter_destroy(&again);

    // A folder that can't be written to: the call fails.
    EXPECT_EQ(filter_write(&filter, (dir / "missing/filter").c_str()), -1);
}

}  // namespace
