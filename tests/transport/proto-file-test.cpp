// Files on the wire, both ways: the exact blocks of each form, the resume rule for
// temporary files, and blocks or files that do not fit what was announced.
#include <gtest/gtest.h>

#include <cstdio>

#include "foundation/error-code.h"
#include "support/temp-dir.h"
#include "transport/proto-common.h"
#include "transport/proto-test-util.h"

namespace {

using namespace prototest;

// Feeds `wire` to a fresh connection and receives it into `path`: the first form when
// `offset` is negative, else the second form from `offset`.
int Receive(const std::string& wire, const std::string& path, int64_t offset = -1,
            bool hang_up = false) {
    Wired w;
    w.feed(wire);
    if (hang_up) w.hang_up();
    uint8_t is_delta = 0;
    return offset < 0
               ? ProtoReadFile(w.ch, is_delta, ustring(path))
               : ProtoReadFile2(w.ch, is_delta, ustring(path), static_cast<uint64_t>(offset));
}

struct FileCase {
    const char* name;
    bool second_form;
    int is_delta;
    size_t size;
    uint64_t offset;
};

TEST(ProtoFileWire, EachFormSendsItsBlocksAndReceivesThemBack) {
    const FileCase cases[] = {
        {"empty file", false, 1, 0, 0},
        {"exactly one block has no empty block behind", false, 0, PROTO_FILE_BLOCK, 0},
        {"one block and one byte", false, 0, PROTO_FILE_BLOCK + 1, 0},
        {"second form from an offset, in larger blocks", true, 1, PROTO_FILE_BLOCK2 + 10, 5},
        {"second form resumed at the end", true, 0, 3, 3},
    };
    for (const FileCase& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        Wired w;
        std::string data = PatternBytes(c.size);
        dir.write("source", data);
        ustring source(dir / "source"), target(dir / "target");
        ASSERT_EQ(c.second_form ? ProtoWriteFile2(w.ch, c.is_delta, source, c.offset)
                                : ProtoWriteFile(w.ch, c.is_delta, source),
                  0);
        // The announced length is the whole file's; the blocks carry what follows the offset.
        std::string golden = file_wire(c.is_delta, data, c.offset,
                                       c.second_form ? PROTO_FILE_BLOCK2 : PROTO_FILE_BLOCK);
        EXPECT_TRUE(w.sent(golden.size(), false) == golden);  // flushed by the call itself
        EXPECT_TRUE(w.nothing_more());

        // The receiver resumes into a temporary file of exactly the offset, or replaces.
        dir.write("target", c.offset ? data.substr(0, c.offset) : "old content that must go");
        w.feed(golden + "next");
        uint8_t is_delta = 9;
        ASSERT_EQ(c.second_form ? ProtoReadFile2(w.ch, is_delta, target, c.offset)
                                : ProtoReadFile(w.ch, is_delta, target),
                  0);
        EXPECT_EQ(is_delta, c.is_delta);
        EXPECT_TRUE(ReadFile(dir / "target") == data);
        EXPECT_EQ(w.unread(4), "next");  // the reader stopped at the announced length
    }
}

// The stream form sends the whole file, wherever its caller left the stream; a sender
// without the bytes it would announce fails.
TEST(ProtoFileSend, StreamFromAnyPositionAndMissingBytes) {
    TempDir dir;
    Wired w;
    dir.write("short", "abc");
    std::unique_ptr<platform::File> file;
    ASSERT_EQ(
        platform::file_system().open((dir / "short").c_str(), platform::kOpenRead, file, nullptr),
        0);
    char first;
    ASSERT_EQ(file->read(&first, 1, nullptr), 1);
    ASSERT_EQ(ProtoWriteFile(w.ch, 0, *file), 0);
    std::string whole = file_wire(0, "abc", 0, PROTO_FILE_BLOCK);
    EXPECT_EQ(w.sent(whole.size(), false), whole);
    EXPECT_EQ(ProtoWriteFile2(w.ch, 0, ustring(dir / "short"), 4), ERR_SYS);
    EXPECT_EQ(w.sent(11),
              file_wire(0, "abc", 3, 1));  // already queued: the caller drops the connection
    EXPECT_EQ(ProtoWriteFile(w.ch, 0, ustring(dir / "absent")), ERR_SYS);
    EXPECT_TRUE(w.nothing_more());
}

TEST(ProtoFileRefusals, ReceiverRefusesBlocksThatDoNotFitAndKeepsWhatArrived) {
    TempDir dir;
    const std::string head = bytes({SPROTO_ID_DELTATYPE, 0, SPROTO_ID_DELTALEN}) + be(3, 8) +
                             bytes({SPROTO_ID_DELTAID}) + be(0, 4);
    EXPECT_EQ(Receive(head + var_section(SPROTO_ID_DELTADATA, "abcde"), dir / "over"), ERR_PROTO);
    // An empty block would never advance.
    EXPECT_EQ(Receive(head + var_section(SPROTO_ID_DELTADATA, ""), dir / "empty"), ERR_PROTO);
    EXPECT_EQ(Receive(file_wire(0, PatternBytes(PROTO_FILE_BLOCK + 1), 0, PROTO_FILE_BLOCK + 1),
                      dir / "wide"),
              ERR_PROTO);
    // A length below the agreed offset.
    dir.write("ahead", "abcdef");
    EXPECT_EQ(Receive(file_wire(0, "abc", 3, PROTO_FILE_BLOCK2), dir / "ahead", 6), ERR_PROTO);
    // Resuming needs a temporary file of exactly the offset: a missing one is not resumed.
    EXPECT_EQ(Receive(file_wire(0, "abc", 1, PROTO_FILE_BLOCK2), dir / "absent", 1), ERR_SYS);

    std::string data = PatternBytes(3 * PROTO_FILE_BLOCK);
    std::string wire = file_wire(0, data, 0, PROTO_FILE_BLOCK);
    EXPECT_EQ(Receive(wire.substr(0, wire.size() - 100), dir / "cut", -1, true), ERR_IO);
    EXPECT_TRUE(ReadFile(dir / "cut") == data.substr(0, 2 * PROTO_FILE_BLOCK));
}

}  // namespace
