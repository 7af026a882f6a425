// BlackList2, WhiteList and WhiteListCpp: loading, the editing table with its case rules,
// the white list's extension test, and tests running while another thread reloads.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "filter/black-list-v2.h"
#include "filter/white-list-cpp.h"
#include "support/temp-dir.h"

namespace {

TEST(BlackList, BadFileLeavesAnEmptyFilterNotTheOldOne) {
    TempDir dir;
    dir.write("good", "[Version]\nmajor = 1\nminor = 2\n[File]\nblack_ext = \"tmp\"\n");
    dir.write("bad", "[File]\nblack_ext = \"tmp\"\nmax_size = 12kb\n");
    BlackList2 list;
    EXPECT_EQ(list.TestFilePath("/a.tmp"), 0);
    ASSERT_EQ(list.Load(dir / "good"), 0);
    EXPECT_EQ(list.TestFilePath("/a.tmp"), FILTER_EXT);

    parse_report report;
    EXPECT_EQ(list.Load(dir / "bad", &report), -1);
    EXPECT_EQ(report.line, 3);
    EXPECT_EQ(list.TestFilePath("/a.tmp"), 0);
    ASSERT_EQ(list.Load(dir / "good"), 0);
    EXPECT_EQ(list.Load(dir / "missing"), -1);
    EXPECT_EQ(list.TestFilePath("/a.tmp"), 0);
}

// Edits through the table, written out and loaded into another list, which then clears.
TEST(BlackListEditing, InsertAddsOnlyWhatIsNewIgnoringAsciiCase) {
    TempDir dir;
    BlackList2 list;
    Filter* f = list.GetFilter();
    EXPECT_EQ(BlackList2::InsertFilter(&f->Common, FILTER_NAME, "Thumbs.db"), 0);
    EXPECT_EQ(BlackList2::InsertFilter(&f->Common, FILTER_NAME, "THUMBS.DB"), 0);
    EXPECT_EQ(BlackList2::InsertFilter(&f->Common, FILTER_CHAR, ":"), 0);
    EXPECT_EQ(BlackList2::InsertFilter(&f->Common, FILTER_CHAR, "|"), 0);
    EXPECT_EQ(BlackList2::InsertFilter(&f->Common, FILTER_LENGTH, uint64_t{9}), 0);
    EXPECT_EQ(BlackList2::InsertFilter(&f->Common, FILTER_PATH_SIZE, uint64_t{99}), 0);
    EXPECT_EQ(BlackList2::InsertFilter(&f->File, FILTER_FILE_SIZE, uint64_t{4096}), 0);
    EXPECT_EQ(BlackList2::InsertFilter(&f->File, FILTER_FILE_SIZE_SELECTIVE_SYNC, uint64_t{7}), 0);
    EXPECT_EQ(BlackList2::InsertFilter(&f->File, FILTER_EXT_SELECTIVE_SYNC, "mkv"), 0);
    // A new folder rule answers -1 all the same.
    EXPECT_EQ(BlackList2::InsertFilter(&f->Common, FILTER_PATH_PREFIX_SELECTIVE_SYNC, "/Photos"),
              -1);
    EXPECT_EQ(BlackList2::InsertFilter(&f->Common, FILTER_PATH_PREFIX_SELECTIVE_SYNC, "/photos"),
              0);
    EXPECT_EQ(f->Common.black_name.used, 1u);
    EXPECT_EQ(f->Common.black_path_prefix_selective_sync.used, 1u);
    list.ReturnFilter();
    ASSERT_EQ(list.Write(dir / "out"), 0);

    BlackList2 other;
    ASSERT_EQ(other.Load(dir / "out"), 0);
    EXPECT_EQ(other.TestFilePath("/thumbs.db"), FILTER_NAME);
    EXPECT_EQ(other.TestFilePath("/a|b"), FILTER_CHAR);
    EXPECT_EQ(other.TestFilePath("/a:b"), 0);
    EXPECT_EQ(other.TestFilePath("/" + ustring(std::string(10, 'n'))), FILTER_LENGTH);
    EXPECT_EQ(other.TestFullPathSize(100), FILTER_PATH_SIZE);
    EXPECT_EQ(other.TestFileSize(4097), FILTER_FILE_SIZE);
    EXPECT_EQ(other.TestFileSize(8), FILTER_FILE_SIZE_SELECTIVE_SYNC);
    EXPECT_EQ(other.TestFilePath("/film.MKV"), FILTER_EXT_SELECTIVE_SYNC);
    EXPECT_EQ(other.TestFilePath("/PHOTOS/a.jpg"), FILTER_PATH_PREFIX_SELECTIVE_SYNC);
    other.Clear();
    EXPECT_EQ(other.TestFilePath("/thumbs.db"), 0);
    EXPECT_EQ(other.TestFileSize(~0ull), 0);
}

TEST(BlackListEditing, RemoveComparesWithExactCaseAndTypesASectionDoesNotHoldAreRefused) {
    BlackList2 list;
    Filter* f = list.GetFilter();
    BlackList2::InsertFilter(&f->Common, FILTER_DIR_PREFIX, "/a/B");
    BlackList2::InsertFilter(&f->Common, FILTER_DIR_PREFIX, "/c");
    BlackList2::InsertFilter(&f->File, FILTER_EXT_SELECTIVE_SYNC, "iso");
    EXPECT_EQ(BlackList2::RemoveFilter(&f->Common, FILTER_DIR_PREFIX, "/a/b"), 0);
    EXPECT_EQ(f->Common.black_dir_prefix.used, 2u);
    EXPECT_EQ(BlackList2::RemoveFilter(&f->Common, FILTER_DIR_PREFIX, "/a/B"), 0);
    ASSERT_EQ(f->Common.black_dir_prefix.used, 1u);
    EXPECT_STREQ(f->Common.black_dir_prefix.set[0], "/c");
    EXPECT_EQ(BlackList2::RemoveFilter(&f->File, FILTER_EXT_SELECTIVE_SYNC, "ISO"), 0);
    EXPECT_EQ(f->File.black_ext_selective_sync.used, 1u);
    EXPECT_EQ(BlackList2::RemoveFilter(&f->File, FILTER_EXT_SELECTIVE_SYNC, "iso"), 0);
    EXPECT_EQ(f->File.black_ext_selective_sync.used, 0u);

    const ustring v("x");
    EXPECT_EQ(BlackList2::InsertFilter(&f->Common, FILTER_EXT, v), -1);
    EXPECT_EQ(BlackList2::InsertFilter(&f->File, FILTER_DIR_PREFIX, v), -1);
    EXPECT_EQ(BlackList2::InsertFilter(&f->Directory, FILTER_PREFIX, v), -1);
    EXPECT_EQ(BlackList2::InsertFilter(&f->Common, FILTER_FILE_SIZE, uint64_t{1}), -1);
    EXPECT_EQ(BlackList2::InsertFilter(&f->File, FILTER_LENGTH, uint64_t{1}), -1);
    EXPECT_EQ(BlackList2::RemoveFilter(&f->Common, FILTER_NAME, v), -1);
    EXPECT_EQ(BlackList2::RemoveFilter(&f->File, FILTER_EXT, v), -1);
    list.ReturnFilter();
}

TEST(WhiteList, ReadsExtensionsTestsThemAndRefusesMalformedFiles) {
    TempDir dir;
    dir.write("white", "[Version]\nmajor = 1\nminor = 0\n[File]\nwhite_ext = \"doc\", \"GZ\"\n");
    WhiteList list;
    ASSERT_EQ(white_list_init(&list), 0);
    EXPECT_EQ(white_list_test(&list, "a.doc"), -1);  // an empty list passes nothing
    ASSERT_EQ(white_list_read(&list, (dir / "white").c_str()), 0);
    EXPECT_EQ(white_list_test(&list, "A.DOC"), 0);
    EXPECT_EQ(white_list_test(&list, "a.tar.gz"), 0);
    for (const char* name : {"a.docx", ".doc", "doc", "", static_cast<const char*>(nullptr)})
        EXPECT_EQ(white_list_test(&list, name), -1) << (name ? name : "null");
    ASSERT_EQ(vt_string_set_insert(&list.File.white_ext, "*"), 0);
    EXPECT_EQ(white_list_test(&list, "noextension"), 0);
    EXPECT_EQ(white_list_test(&list, ""), -1);
    white_list_destroy(&list);

    // Black-list keys are unknown here; a black-list section is undefined.
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

TEST(WhiteList, LockedListLoadsClearsAndEmptiesOnABadFile) {
    TempDir dir;
    dir.write("white", "[File]\nwhite_ext = \"jpg\", \"PNG\"\n");
    dir.write("bad", "[File]\nwhite_ext = \"jpg\" \"png\"\n");
    WhiteListCpp list;
    EXPECT_EQ(list.Test("a.jpg"), -1);
    ASSERT_EQ(list.Load(dir / "white"), 0);
    EXPECT_EQ(list.Test("a.JPG"), 0);
    EXPECT_EQ(list.Test("a.gif"), -1);
    EXPECT_EQ(list.Load(dir / "bad"), -1);
    EXPECT_EQ(list.Test("a.jpg"), -1);
    ASSERT_EQ(list.Load(dir / "white"), 0);
    list.Clear();
    EXPECT_EQ(list.Test("a.jpg"), -1);
}

// Workers test paths while the control thread swaps between a good file, a bad one and
// an edit in place. Every answer must come from one whole state: the rules of the good
// file, the empty filter, or the good rules plus the edit. A white list is reloaded and
// cleared alongside.
TEST(BlackListConcurrency, TestsWhileAnotherThreadReloads) {
    TempDir dir;
    dir.write("good", "[File]\nblack_ext = \"tmp\"\n[Directory]\nblack_name = \".git\"\n");
    dir.write("bad", "[File]\nblack_ext = \"tmp\"\n[Directory]\nblack_name = .git\n");
    dir.write("white", "[File]\nwhite_ext = \"jpg\"\n");
    BlackList2 list;
    WhiteListCpp white;
    ASSERT_EQ(list.Load(dir / "good"), 0);
    std::atomic<bool> stop{false};
    std::atomic<int> bad_answers{0};
    std::atomic<long> tests{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < 3; ++t) {
        workers.emplace_back([&] {
            while (!stop.load()) {
                int ext = list.TestFilePath("/src/a.tmp");
                int git = list.TestDirectoryPath("/src/.git");
                int bak = list.TestFilePath("/src/a.bak");
                int jpg = white.Test("a.jpg");
                if ((ext != 0 && ext != FILTER_EXT) || (git != 0 && git != FILTER_NAME) ||
                    (bak != 0 && bak != FILTER_EXT) || (jpg != 0 && jpg != -1) ||
                    white.Test("a.gif") != -1)
                    ++bad_answers;
                tests += 3;
            }
        });
    }
    // Go on until the workers have had a fair share of turns, however they are scheduled.
    for (int round = 0; round < 300 || tests.load() < 3000; ++round) {
        if (round % 3 == 0) {
            EXPECT_EQ(list.Load(dir / "bad"), -1);
            EXPECT_EQ(white.Load(dir / "white"), 0);
        } else if (round % 3 == 1) {
            EXPECT_EQ(list.Load(dir / "good"), 0);
            white.Clear();
        } else {
            Filter* f = list.GetFilter();
            BlackList2::InsertFilter(&f->File, FILTER_EXT, ustring("bak"));
            list.ReturnFilter();
        }
    }
    stop = true;
    for (auto& w : workers) w.join();
    EXPECT_EQ(bad_answers.load(), 0);
}

}  // namespace
