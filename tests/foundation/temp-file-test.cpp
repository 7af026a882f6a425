// TempFile and SFFile ownership of files on disk, and temporary names under load.
#include "foundation/temp-file.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "foundation/tmp-name-gen.h"
#include "support/files.h"
#include "support/temp-dir.h"

namespace {

bool on_disk(const ustring& path) {
    return !path.empty() && Exists(path.str());
}

class TempFileTest : public ::testing::Test {
  protected:
    TempDir dir;
    ustring prefix{dir.path()};
};

TEST_F(TempFileTest, PermanenceOfTheLastOwnerDecides) {
    ustring kept;
    ustring lost;
    {
        TempFile a(prefix);
        ASSERT_EQ(a.create(), 0);
        TempFile b(a);  // destroyed before a
        kept = a.getPath();
        a.convert_permanent();
    }
    EXPECT_TRUE(on_disk(kept));
    {
        TempFile a(prefix);
        ASSERT_EQ(a.create(), 0);
        TempFile b(a);
        lost = a.getPath();
        b.convert_permanent();
    }
    EXPECT_FALSE(on_disk(lost)) << "a copy that went earlier cannot keep the file";
}

TEST_F(TempFileTest, AssigningOverAnOwnerReleasesItsFile) {
    TempFile a(prefix);
    ASSERT_EQ(a.create(), 0);
    ustring first = a.getPath();
    TempFile b(prefix);
    ASSERT_EQ(b.create(), 0);
    ustring second = b.getPath();
    a = b;
    EXPECT_FALSE(on_disk(first));
    EXPECT_EQ(a.getPath(), second);

    TempFile shared(a);  // three owners of `second` now
    TempFile fresh(prefix);
    shared = fresh;  // lets go of one share
    EXPECT_TRUE(shared.getPath().empty());
    a = fresh;
    EXPECT_TRUE(on_disk(second)) << "b still holds it";
    b = fresh;
    EXPECT_FALSE(on_disk(second)) << "the last share went with b";
}

TEST_F(TempFileTest, CreateRefusesAnOwnerAndRemoveActsForEveryCopy) {
    TempFile a(prefix);
    ASSERT_EQ(a.create(), 0);
    ustring path = a.getPath();
    EXPECT_EQ(a.create(), -1);
    EXPECT_EQ(a.getPath(), path);
    ustring fresh;
    {
        TempFile b(a);
        a.remove();
        EXPECT_FALSE(on_disk(path));
        EXPECT_TRUE(a.getPath().empty());
        EXPECT_EQ(a.create(), 0) << "an emptied owner can make a new file";
        fresh = a.getPath();
        EXPECT_NE(fresh, path);
        TempFile c(a);
    }
    EXPECT_TRUE(on_disk(fresh)) << "the old copy going away leaves the new file to its owner";
    a = TempFile(prefix);
    EXPECT_FALSE(on_disk(fresh)) << "and its last owner deletes it";

    ASSERT_EQ(TempFile::initialize(prefix), 0);
    TempFile by_default;
    ASSERT_EQ(by_default.create(), 0);
    EXPECT_EQ(by_default.getPath().substr(0, prefix.length()), prefix);
    TempFile::initialize("/tmp");
    TempFile missing(ustring(dir / "absent"));
    EXPECT_EQ(missing.create(), -1);
}

TEST_F(TempFileTest, SFFileReusesItsFileAndLeavesIt) {
    ustring path;
    {
        SFFile f(prefix);
        ASSERT_EQ(f.create(), 0);
        path = f.getPath();
        std::ofstream(path.c_str_utf8()) << "twelve bytes";
        EXPECT_EQ(f.getSize(), 12u);
        SFFile copy(f);
        EXPECT_EQ(copy.create(), 0);
        EXPECT_EQ(copy.getPath(), path) << "a given path is reused";
    }
    EXPECT_TRUE(on_disk(path)) << "an SFFile is only temporary when removed";
    SFFile g(prefix);
    ASSERT_EQ(g.create(), 0);
    path = g.getPath();
    g.remove();
    EXPECT_FALSE(on_disk(path));
    EXPECT_TRUE(g.getPath().empty());
    EXPECT_EQ(g.getSize(), 0u);
}

// Names are the prefix, a separator and eight characters of a file-name-safe alphabet.
TEST(TmpNameConcurrency, NamesNeverCollideAcrossThreads) {
    constexpr int kThreads = 8;
    constexpr int kEach = 4000;
    std::vector<std::vector<std::string>> names(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&names, t] {
            for (int i = 0; i < kEach; ++i) names[t].push_back(TmpNameGen::getTmpName("/x").str());
        });
    for (auto& th : threads) th.join();
    std::set<std::string> all;
    for (auto& v : names) all.insert(v.begin(), v.end());
    EXPECT_EQ(all.size(), static_cast<size_t>(kThreads * kEach));
    for (const std::string& name : all)
        ASSERT_EQ(name.find_first_not_of(
                      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_", 3),
                  std::string::npos)
            << name;
    EXPECT_EQ(all.begin()->substr(0, 3), "/x/");
    EXPECT_EQ(all.begin()->size(), 3u + 8u);
}

}  // namespace
