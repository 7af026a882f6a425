// FileList and StringBuffer: building from rows in any order, and the reverse walk
// checked against a plain sorted container.
#include "state/file-list.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace {

struct Item {
    std::string path;
    bool dir;
    uint32_t mtime;
    uint64_t size;
    bool operator==(const Item& o) const {
        return std::tie(path, dir, mtime, size) == std::tie(o.path, o.dir, o.mtime, o.size);
    }
};

std::ostream& operator<<(std::ostream& os, const Item& i) {
    return os << (i.dir ? "D " : "F ") << i.path << " " << i.mtime << " " << i.size;
}

std::vector<Item> walk(const FileList& list) {
    std::vector<Item> out;
    for (auto it = list.rbegin(); it != list.rend(); ++it)
        out.push_back({it->path.str(), it->is_dir(), it->mtime, it->size});
    return out;
}

std::vector<std::string> paths(const FileList& list) {
    std::vector<std::string> out;
    for (const Item& i : walk(list)) out.push_back(i.path);
    return out;
}

TEST(StringBuffer, StoresEachStringOnce) {
    StringBuffer sb;
    StringBuffer::String a;
    StringBuffer::String b;
    StringBuffer::String c;
    ASSERT_EQ(sb.insert("name", a), 0);
    ASSERT_EQ(sb.insert("name", b), 0);
    ASSERT_EQ(sb.insert("other", c), 0);
    EXPECT_EQ(a.ptr, b.ptr);
    EXPECT_NE(a.ptr, c.ptr);
    EXPECT_STREQ(c.ptr, "other");
    EXPECT_TRUE(a < c);
    EXPECT_TRUE(c > a);
    EXPECT_TRUE(a == b);
}

TEST(StringBuffer, GrowsForStringsLargerThanAChunkAndKeepsOldPointers) {
    StringBuffer sb;
    StringBuffer::String first;
    ASSERT_EQ(sb.insert("first", first), 0);
    std::string huge(300000, 'h');
    StringBuffer::String big;
    ASSERT_EQ(sb.insert(huge.c_str(), big), 0);
    EXPECT_EQ(std::strlen(big.ptr), huge.size());
    std::vector<StringBuffer::String> many(5000);
    for (int i = 0; i < 5000; ++i) ASSERT_EQ(sb.insert(std::to_string(i).c_str(), many[i]), 0);
    EXPECT_STREQ(first.ptr, "first");
    EXPECT_STREQ(many[4321].ptr, "4321");
}

TEST(FileList, EmptyListHasNothingToWalk) {
    StringBuffer sb;
    FileList list(sb);
    EXPECT_TRUE(list.rbegin() == list.rend());
    auto it = list.rend();
    ++it;
    EXPECT_TRUE(it == list.rend());
}

TEST(FileList, DirectoriesComeAfterTheirContentInFallingOrder) {
    StringBuffer sb;
    FileList list(sb);
    ASSERT_EQ(list.AddFile("a", 1, 10), 0);
    ASSERT_EQ(list.AddFile("c", 3, 30), 0);
    ASSERT_GT(list.AddDirectory("b", 2), 0);
    ASSERT_EQ(list.AddFile("b/x", 4, 40), 0);
    std::vector<Item> expected = {
        {"/c", false, 3, 30}, {"/b/x", false, 4, 40}, {"/b", true, 2, 0}, {"/a", false, 1, 10}};
    EXPECT_EQ(walk(list), expected);
}

TEST(FileList, DirectoryComesBeforeAFileOfTheSameName) {
    StringBuffer sb;
    FileList list(sb);
    ASSERT_EQ(list.AddFile("a", 1, 1), 0);
    ASSERT_GT(list.AddDirectory("a", 2), 0);
    ASSERT_EQ(list.AddFile("a/in", 3, 3), 0);
    EXPECT_EQ(paths(list), (std::vector<std::string>{"/a/in", "/a", "/a"}));
    EXPECT_TRUE(walk(list)[1].dir);
    EXPECT_FALSE(walk(list)[2].dir);
}

TEST(FileList, RowsMayComeInAnyOrder) {
    StringBuffer sb;
    FileList list(sb);
    ASSERT_EQ(list.AddFile("d/e", 9, 1), 0);
    int id = list.AddDirectory("d", 5);
    ASSERT_GT(id, 0);
    EXPECT_EQ(list.AddDirectory("d", 6), id) << "an existing directory takes the new time";
    std::vector<Item> expected = {{"/d/e", false, 9, 1}, {"/d", true, 6, 0}};
    EXPECT_EQ(walk(list), expected);
    EXPECT_EQ(list.AddFile(id, "f", 1, 2), 0);
    EXPECT_EQ(list.AddDirectory(id, "g", 3), id + 1);
    EXPECT_EQ(list.AddDirectory(id, "g", 3), -1) << "by parent, a taken name is refused";
}

TEST(FileList, BadRowsAreRefusedAndChangeNothing) {
    StringBuffer sb;
    FileList list(sb);
    ASSERT_EQ(list.AddFile("dup", 1, 1), 0);
    EXPECT_EQ(list.AddFile("dup", 2, 2), -1);
    EXPECT_EQ(list.AddFile("dir/", 1, 1), -1);
    EXPECT_EQ(list.AddFile("", 1, 1), -1);
    EXPECT_EQ(list.AddFile("///", 1, 1), -1);
    EXPECT_EQ(list.AddFile(-1, "x", 1, 1), -1);
    EXPECT_EQ(list.AddFile(99, "x", 1, 1), -1);
    EXPECT_EQ(list.AddDirectory(-1, "x", 1), -1);
    EXPECT_EQ(list.AddFile((std::string(1024, 'e') + "/f").c_str(), 1, 1), -1);
    EXPECT_EQ(list.AddFile(std::string(4096, 'p').c_str(), 1, 1), -1);
    EXPECT_EQ(list.AddFile(nullptr, 1, 1), -1);
    std::vector<Item> expected = {{"/dup", false, 1, 1}};
    EXPECT_EQ(walk(list), expected);
}

TEST(FileList, EmptyElementsAreSkipped) {
    StringBuffer sb;
    FileList list(sb);
    ASSERT_EQ(list.AddFile("/x//y", 1, 1), 0);
    EXPECT_EQ(paths(list), (std::vector<std::string>{"/x/y", "/x"}));
}

// The order a FileList must produce, computed without a tree: sort every entry by a
// forward pre-order (parent first; at a shared level names by strcmp, a file before a
// directory of the same name), then reverse.
struct Model {
    std::map<std::string, Item> files;
    std::map<std::string, Item> dirs;

    static std::vector<std::string> split(const std::string& p) {
        std::vector<std::string> out;
        size_t pos = 1;
        while (pos <= p.size()) {
            size_t slash = p.find('/', pos);
            if (slash == std::string::npos) slash = p.size();
            out.push_back(p.substr(pos, slash - pos));
            pos = slash + 1;
        }
        return out;
    }

    static bool forward_less(const Item& a, const Item& b) {
        auto pa = split(a.path);
        auto pb = split(b.path);
        for (size_t i = 0; i < std::min(pa.size(), pb.size()); ++i) {
            int c = std::strcmp(pa[i].c_str(), pb[i].c_str());
            if (c != 0) return c < 0;
            bool a_file_here = !a.dir && i + 1 == pa.size();
            bool b_file_here = !b.dir && i + 1 == pb.size();
            if (a_file_here != b_file_here) return a_file_here;
        }
        return pa.size() < pb.size();
    }

    std::vector<Item> expected() const {
        std::vector<Item> all;
        for (const auto& [k, v] : files) all.push_back(v);
        for (const auto& [k, v] : dirs) all.push_back(v);
        std::sort(all.begin(), all.end(), forward_less);
        std::reverse(all.begin(), all.end());
        return all;
    }

    void add_parents(const std::string& path) {
        for (size_t cut = path.find('/', 1); cut != std::string::npos;
             cut = path.find('/', cut + 1)) {
            std::string parent = path.substr(0, cut);
            if (!dirs.count(parent)) dirs[parent] = {parent, true, 0, 0};
        }
    }
};

TEST(FileList, RandomTreesWalkInTheModelsOrder) {
    const std::vector<std::string> names = {"a", "b", "B", "ab", "a b", "é", "z", "0", "a.b", "~"};
    for (unsigned seed = 1; seed <= 40; ++seed) {
        std::mt19937 gen(seed);
        StringBuffer sb;
        FileList list(sb);
        Model model;
        int rows = 1 + static_cast<int>(gen() % 200);
        for (int r = 0; r < rows; ++r) {
            std::string rel;
            int depth = 1 + static_cast<int>(gen() % 4);
            for (int d = 0; d < depth; ++d) rel += (d ? "/" : "") + names[gen() % names.size()];
            std::string path = "/" + rel;
            uint32_t mtime = gen() % 100000;
            if (gen() % 3 == 0) {
                int id = list.AddDirectory(rel.c_str(), mtime);
                ASSERT_GE(id, 0) << rel;
                model.add_parents(path);
                model.dirs[path] = {path, true, mtime, 0};
            } else {
                uint64_t size = gen() % 1000000;
                int rc = list.AddFile(rel.c_str(), mtime, size);
                model.add_parents(path);
                if (model.files.count(path)) {
                    EXPECT_EQ(rc, -1) << rel;
                } else {
                    EXPECT_EQ(rc, 0) << rel;
                    model.files[path] = {path, false, mtime, size};
                }
            }
        }
        ASSERT_EQ(walk(list), model.expected()) << "seed " << seed;
    }
}

}  // namespace
