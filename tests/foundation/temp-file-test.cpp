// TempFile and SFFile ownership of files on disk, and temporary names under load.
#include "foundation/temp-file.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "foundation/file-op.h"
#include "foundation/tmp-name-gen.h"
#include "support/fault-fs.h"
#include "support/temp-dir.h"

namespace {

bool exists(const ustring& path) {
    struct stat st {};
    return !path.empty() && ::lstat(path.c_str_utf8(), &st) == 0;
}

class TempFileTest : public ::testing::Test {
  protected:
    TempDir dir;
    ustring prefix{dir.path().c_str()};
};

TEST_F(TempFileTest, LastCopyRemovesTheFile) {
    ustring path;
    {
        TempFile a(prefix);
        ASSERT_EQ(a.create(), 0);
        path = a.getPath();
        EXPECT_TRUE(exists(path));
        {
            TempFile b(a);
            TempFile c;
            c = b;
            EXPECT_EQ(c.getPath(), path);
        }
        EXPECT_TRUE(exists(path)) << "copies going away leave the original's file";
    }
    EXPECT_FALSE(exists(path));
}

TEST_F(TempFileTest, OriginalGoingFirstLeavesTheFileToTheCopy) {
    auto a = std::make_unique<TempFile>(prefix);
    ASSERT_EQ(a->create(), 0);
    ustring path = a->getPath();
    auto b = std::make_unique<TempFile>(*a);
    a.reset();
    EXPECT_TRUE(exists(path));
    b.reset();
    EXPECT_FALSE(exists(path));
}

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
    EXPECT_TRUE(exists(kept));
    {
        TempFile a(prefix);
        ASSERT_EQ(a.create(), 0);
        TempFile b(a);
        lost = a.getPath();
        b.convert_permanent();
    }
    EXPECT_FALSE(exists(lost)) << "a copy that went earlier cannot keep the file";
}

TEST_F(TempFileTest, CreateOnAnOwnerRefusesAndKeepsItsFile) {
    TempFile a(prefix);
    ASSERT_EQ(a.create(), 0);
    ustring path = a.getPath();
    EXPECT_EQ(a.create(), -1);
    EXPECT_EQ(a.getPath(), path);
    EXPECT_TRUE(exists(path));
}

TEST_F(TempFileTest, ExceptionUnwindingRemovesTheFile) {
    ustring path;
    try {
        TempFile a(prefix);
        ASSERT_EQ(a.create(), 0);
        path = a.getPath();
        throw std::runtime_error("abandon");
    } catch (const std::runtime_error&) {
    }
    EXPECT_FALSE(path.empty());
    EXPECT_FALSE(exists(path));
}

TEST_F(TempFileTest, AssigningOverAnOwnerReleasesItsFile) {
    TempFile a(prefix);
    ASSERT_EQ(a.create(), 0);
    ustring first = a.getPath();
    TempFile b(prefix);
    ASSERT_EQ(b.create(), 0);
    ustring second = b.getPath();
    a = b;
    EXPECT_FALSE(exists(first));
    EXPECT_EQ(a.getPath(), second);

    TempFile shared(a);  // three owners of `second` now
    TempFile fresh(prefix);
    shared = fresh;  // lets go of one share
    EXPECT_TRUE(shared.getPath().empty());
    a = fresh;
    EXPECT_TRUE(exists(second)) << "b still holds it";
    b = fresh;
    EXPECT_FALSE(exists(second)) << "the last share went with b";
}

TEST_F(TempFileTest, RemoveDeletesForEveryCopy) {
    TempFile a(prefix);
    ASSERT_EQ(a.create(), 0);
    TempFile b(a);
    ustring path = a.getPath();
    a.remove();
    EXPECT_FALSE(exists(path));
    EXPECT_TRUE(a.getPath().empty());
    EXPECT_EQ(a.create(), 0) << "an emptied owner can make a new file";
    EXPECT_NE(a.getPath(), path);
}

TEST_F(TempFileTest, DefaultPrefixAndFailedCreation) {
    ASSERT_EQ(TempFile::initialize(prefix), 0);
    TempFile a;
    ASSERT_EQ(a.create(), 0);
    EXPECT_EQ(a.getPath().substr(0, prefix.length()), prefix);
    TempFile::initialize("/tmp");

    TempFile missing(ustring((dir / "absent").c_str()));
    EXPECT_EQ(missing.create(), -1);
    EXPECT_TRUE(missing.getPath().empty());

    tbtest::FaultFileSystem fs;
    tbtest::ScopedFileSystem guard(fs);
    fs.FailNth(tbtest::FsOp::kOpen, 1, ENOSPC);
    TempFile full(prefix);
    EXPECT_EQ(full.create(), -1);
    EXPECT_TRUE(full.getPath().empty());
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
    EXPECT_TRUE(exists(path)) << "an SFFile is only temporary when removed";
    SFFile g(prefix);
    ASSERT_EQ(g.create(), 0);
    ustring gp = g.getPath();
    g.remove();
    EXPECT_FALSE(exists(gp));
    EXPECT_TRUE(g.getPath().empty());
    EXPECT_EQ(g.getSize(), 0u);
}

TEST(TmpNameGen, NamesHaveTheAlphabetAndLength) {
    ustring a = TmpNameGen::getTmpName("/x/y");
    ustring b = TmpNameGen::getTmpName("/x/y");
    EXPECT_NE(a, b);
    ASSERT_EQ(a.length(), 4u + 9u);
    EXPECT_EQ(a.substr(0, 5), ustring("/x/y/"));
    for (size_t i = 5; i < a.length(); ++i) {
        char c = a[i];
        EXPECT_TRUE(std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_') << c;
    }
}

TEST(TmpNameConcurrency, NamesNeverCollideAcrossThreads) {
    constexpr int kThreads = 8;
    constexpr int kEach = 4000;
    std::vector<std::vector<std::string>> names(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&names, t] {
            for (int i = 0; i < kEach; ++i) names[t].push_back(TmpNameGen::getTmpName("p").str());
        });
    for (auto& th : threads) th.join();
    std::set<std::string> all;
    for (auto& v : names) all.insert(v.begin(), v.end());
    EXPECT_EQ(all.size(), static_cast<size_t>(kThreads * kEach));
}

TEST(TmpNameConcurrency, TempFilesOfManyThreadsAreDistinctAndCleanedUp) {
    TempDir dir;
    ustring prefix(dir.path().c_str());
    constexpr int kThreads = 6;
    constexpr int kEach = 100;
    std::mutex mu;
    std::set<std::string> paths;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            std::vector<TempFile> mine;
            for (int i = 0; i < kEach; ++i) {
                mine.emplace_back(prefix);
                if (mine.back().create() != 0) ++failures;
                std::lock_guard<std::mutex> g(mu);
                paths.insert(mine.back().getPath().str());
            }
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(paths.size(), static_cast<size_t>(kThreads * kEach));
    for (const std::string& p : paths) EXPECT_FALSE(exists(ustring(p.c_str()))) << p;
}

}  // namespace
