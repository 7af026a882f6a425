// FileList and StringBuffer: building from rows in any order, and the reverse walk
// checked against a plain sorted container.
#include "state/file-list.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

struct Item {
    std::string path;
    bool dir;
    uint32_t mtime;
    uint64_t size;
    bool operator==(const Item&) const = default;
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

TEST(StringBuffer, StoresEachStringOnceAndKeepsOldPointersAsItGrows) {
    StringBuffer sb;
    StringBuffer::String a, b, c, big;
    ASSERT_EQ(sb.insert("name", a), 0);
    ASSERT_EQ(sb.insert("name", b), 0);
    ASSERT_EQ(sb.insert("other", c), 0);
    EXPECT_EQ(a.ptr, b.ptr);
    EXPECT_TRUE(a == b && a < c && c > a && !(c < a));
    const std::string huge(300000, 'h');  // larger than a chunk
    ASSERT_EQ(sb.insert(huge.c_str(), big), 0);
    EXPECT_EQ(big.ptr, huge);
    std::vector<StringBuffer::String> many(5000);
    for (int i = 0; i < 5000; ++i) ASSERT_EQ(sb.insert(std::to_string(i).c_str(), many[i]), 0);
    EXPECT_STREQ(c.ptr, "other");
    EXPECT_STREQ(many[4321].ptr, "4321");
}

TEST(FileList, BadRowsAreRefusedAndChangeNothing) {
    StringBuffer sb;
    FileList list(sb);
    auto end = list.rend();
    EXPECT_TRUE(list.rbegin() == end);
    EXPECT_TRUE(++end == list.rend());
    ASSERT_EQ(list.AddFile("dup", 1, 1), 0);
    // Limits: 1023 bytes an element, 4095 a path.
    const std::string e(1023, 'e'), longest = e + "/" + e + "/" + e + "/" + e;
    const std::string long_element = e + "e/f", long_path = longest.substr(0, 4094) + "/x";
    for (const char* bad : {"dup", "dir/", "", "///", long_element.c_str(), long_path.c_str()})
        EXPECT_EQ(list.AddFile(bad, 2, 2), -1) << std::string(bad).substr(0, 8);
    EXPECT_EQ(list.AddFile(nullptr, 1, 1), -1);
    EXPECT_EQ(list.AddFile(-1, "x", 1, 1), -1);
    EXPECT_EQ(list.AddFile(99, "x", 1, 1), -1);
    EXPECT_EQ(list.AddDirectory(-1, "x", 1), -1);
    EXPECT_EQ(walk(list), (std::vector<Item>{{"/dup", false, 1, 1}}));
    EXPECT_EQ(list.AddFile(longest.c_str(), 1, 1), 0);
    EXPECT_EQ(list.AddFile("x//y", 1, 1), 0);  // empty elements are skipped
    EXPECT_EQ(walk(list).front(), (Item{"/x/y", false, 1, 1}));
}

TEST(FileList, DirectoriesByPathAndById) {
    StringBuffer sb;
    FileList list(sb);
    ASSERT_EQ(list.AddFile("d/e", 9, 1), 0);
    const int id = list.AddDirectory("d", 5);
    ASSERT_GT(id, 0);
    EXPECT_EQ(list.AddDirectory("d", 6), id) << "an existing directory takes the new time";
    EXPECT_EQ(list.AddFile(id, "f", 1, 2), 0);
    EXPECT_EQ(list.AddDirectory(id, "g", 3), id + 1);
    EXPECT_EQ(list.AddDirectory(id, "g", 3), -1) << "by parent, a taken name is refused";
    EXPECT_EQ(walk(list), (std::vector<Item>{{"/d/g", true, 3, 0},
                                             {"/d/f", false, 1, 2},
                                             {"/d/e", false, 9, 1},
                                             {"/d", true, 6, 0}}));
}

// The order a FileList must produce, computed without a tree: sort every entry by a
// forward pre-order (parent first; at a shared level names by strcmp, a file before a
// directory of the same name), then reverse.
bool ForwardLess(const Item& a, const Item& b) {
    auto split = [](const std::string& p) {
        std::vector<std::string> out;
        for (size_t pos = 1, slash; pos <= p.size(); pos = slash + 1) {
            slash = std::min(p.find('/', pos), p.size());
            out.push_back(p.substr(pos, slash - pos));
        }
        return out;
    };
    auto pa = split(a.path), pb = split(b.path);
    for (size_t i = 0; i < std::min(pa.size(), pb.size()); ++i) {
        if (int c = std::strcmp(pa[i].c_str(), pb[i].c_str()); c != 0) return c < 0;
        bool a_file_here = !a.dir && i + 1 == pa.size();
        bool b_file_here = !b.dir && i + 1 == pb.size();
        if (a_file_here != b_file_here) return a_file_here;
    }
    return pa.size() < pb.size();
}

TEST(FileList, RandomTreesWalkInTheModelsOrder) {
    const std::vector<std::string> names = {"a", "b", "B", "ab", "a b", "é", "z", "0", "a.b", "~"};
    for (unsigned seed = 1; seed <= 40; ++seed) {
        std::mt19937 gen(seed);
        StringBuffer sb;
        FileList list(sb);
        std::map<std::string, Item> files, dirs;
        for (int r = 0, rows = 1 + static_cast<int>(gen() % 200); r < rows; ++r) {
            std::string rel;
            for (int d = 0, depth = 1 + static_cast<int>(gen() % 4); d < depth; ++d)
                rel += (d ? "/" : "") + names[gen() % names.size()];
            const std::string path = "/" + rel;
            for (size_t cut = path.find('/', 1); cut != std::string::npos;
                 cut = path.find('/', cut + 1))
                dirs.try_emplace(path.substr(0, cut), Item{path.substr(0, cut), true, 0, 0});
            const uint32_t mtime = gen() % 100000;
            if (gen() % 3 == 0) {
                ASSERT_GE(list.AddDirectory(rel.c_str(), mtime), 0) << rel;
                dirs[path] = {path, true, mtime, 0};
            } else {
                const uint64_t size = gen() % 1000000;
                const bool taken = files.count(path) != 0;
                EXPECT_EQ(list.AddFile(rel.c_str(), mtime, size), taken ? -1 : 0) << rel;
                if (!taken) files[path] = {path, false, mtime, size};
            }
        }
        std::vector<Item> expected;
        for (auto* m : {&files, &dirs})
            for (const auto& [k, v] : *m) expected.push_back(v);
        std::sort(expected.begin(), expected.end(), ForwardLess);
        std::reverse(expected.begin(), expected.end());
        ASSERT_EQ(walk(list), expected) << "seed " << seed;
    }
}

}  // namespace
