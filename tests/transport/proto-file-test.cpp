// Reading what a server sends: the header, sections in strict order, lengths against
// buffers, records, and the receiving side of file transfer with its resume rule.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "foundation/error-code.h"
#include "support/temp-dir.h"
#include "transport/proto-common.h"
#include "transport/proto-test-util.h"

namespace {

using prototest::be;
using prototest::bytes;
using prototest::var_section;
using prototest::Wired;

const std::string kMagic = bytes({0x25, 0x52, 0x18, 0x14});

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

TEST(ProtoHeaderDecoding, TakesAllFields) {
    Wired w;
    w.feed(kMagic + bytes({61, SCMD_REQUEST_SSL_2, 0x01, 0x02}));
    uint16_t len = 0;
    uint8_t cmd = 0, version = 0;
    ASSERT_EQ(ProtoReadHeader(w.ch, len, cmd, version), 0);
    EXPECT_EQ(len, 0x0102);
    EXPECT_EQ(cmd, SCMD_REQUEST_SSL_2);
    EXPECT_EQ(version, 61);
}

TEST(ProtoHeaderDecoding, WrongMagicConsumesTheWholeHeader) {
    Wired w;
    w.feed(bytes({0x25, 0x52, 0x18, 0x15, 60, 9, 0, 0}) + kMagic + bytes({60, 7, 0, 0}));
    uint16_t len = 0xFFFF;
    uint8_t cmd = 0xFF, version = 0xFF;
    EXPECT_EQ(ProtoReadHeader(w.ch, len, cmd, version), ERR_PROTO);
    EXPECT_EQ(cmd, 0xFF);  // outputs untouched on failure
    ASSERT_EQ(ProtoReadHeader(w.ch, len, cmd, version), 0);
    EXPECT_EQ(cmd, 7);
}

TEST(ProtoHeaderDecoding, PeerClosingInsideTheHeaderIsAnIoError) {
    Wired w;
    w.feed(kMagic + bytes({60}));
    w.hang_up();
    uint16_t len;
    uint8_t cmd, version;
    EXPECT_EQ(ProtoReadHeader(w.ch, len, cmd, version), ERR_IO);
}

TEST(ProtoSectionDecoding, FixedWidthsGiveTheirSize) {
    Wired w;
    w.feed(bytes({SPROTO_ID_RES, 0xAB, SPROTO_ID_PKG_MINOR_VERSION, 0x12, 0x34, SPROTO_ID_ALIVE}) +
           be(0xDEADBEEF, 4) + bytes({SPROTO_ID_FILESIZE}) + be(0x0102030405060708, 8));
    uint8_t b = 0;
    uint16_t s = 0;
    uint32_t i = 0;
    uint64_t l = 0;
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_RES, b), 2);
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_PKG_MINOR_VERSION, s), 3);
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_ALIVE, i), 5);
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_FILESIZE, l), 9);
    EXPECT_EQ(b, 0xAB);
    EXPECT_EQ(s, 0x1234);
    EXPECT_EQ(i, 0xDEADBEEFu);
    EXPECT_EQ(l, 0x0102030405060708u);
}

TEST(ProtoSectionDecoding, UnexpectedIdFailsWithoutSkippingAhead) {
    Wired w;
    w.feed(var_section(SPROTO_ID_PATH, "x") + bytes({SPROTO_ID_SID}) + be(5, 8));
    uint64_t sid = 0;
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_SID, sid), ERR_PROTO);
    EXPECT_EQ(sid, 0u);
    // Only the id byte was taken: the path's length and data come next, not the SID.
    uint16_t len = 0;
    ASSERT_EQ(w.ch.ReadInt16(len), 0);
    EXPECT_EQ(len, 1);
}

TEST(ProtoSectionDecoding, WrongWidthOrKindFailsWithoutTouchingTheConnection) {
    Wired w;
    w.feed(bytes({SPROTO_ID_SID}) + be(42, 8));
    uint32_t narrow = 0;
    ustring text;
    char buf[8];
    size_t len = 0;
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_SID, narrow), ERR_PROTO);
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_SID, text), ERR_PROTO);
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_SID, buf, sizeof(buf), len), ERR_PROTO);
    EXPECT_EQ(ProtoReadSection(w.ch, 0, narrow), ERR_PROTO);
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_LAST + 1, text), ERR_PROTO);
    uint64_t sid = 0;
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_SID, sid), 9);
    EXPECT_EQ(sid, 42u);
}

TEST(ProtoSectionDecoding, VariableSectionsAgainstTheirBuffers) {
    Wired w;
    w.feed(var_section(SPROTO_ID_FILEHASH, std::string("\x00\x01\x02", 3)) +
           var_section(SPROTO_ID_PATH, "0123456789"));
    char buf[4];
    size_t len = 0;
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_FILEHASH, buf, sizeof(buf), len), 6);
    EXPECT_EQ(std::string(buf, len), std::string("\x00\x01\x02", 3));
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_PATH, buf, sizeof(buf), len), ERR_PROTO);
    EXPECT_EQ(len, 3u);  // untouched
    EXPECT_EQ(ProtoReadVarData(w.ch, nullptr, 4), ERR_INVAL);
    EXPECT_EQ(ProtoReadVarData(w.ch, buf, 0), ERR_INVAL);
    // The over-long data stays unread: the next bytes are its own.
    char rest[10];
    ASSERT_EQ(w.ch.Read(rest, sizeof(rest)), 0);
    EXPECT_EQ(std::string(rest, sizeof(rest)), "0123456789");
}

TEST(ProtoSectionDecoding, TextIsBoundedAndEndsAtAZeroByte) {
    Wired w;
    w.feed(var_section(SPROTO_ID_VIEW_NAME, std::string("ab\0cd", 5)) + be(PROTO_STRING_MAX, 2) +
           std::string(PROTO_STRING_MAX, 'x') + be(PROTO_STRING_MAX + 1, 2));
    ustring name;
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_VIEW_NAME, name), 8);
    EXPECT_EQ(name, ustring("ab"));
    std::string longest;
    EXPECT_EQ(ProtoReadString(w.ch, longest), static_cast<int>(PROTO_STRING_MAX));
    EXPECT_EQ(longest.size(), PROTO_STRING_MAX);
    std::u16string wide;
    EXPECT_EQ(ProtoReadString(w.ch, wide), ERR_PROTO);
}

TEST(ProtoSectionDecoding, DataCutShortByTheServerIsAnIoError) {
    Wired w;
    w.feed(bytes({SPROTO_ID_PATH, 0x00, 0x09}) + "abc");
    w.hang_up();
    ustring path;
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_PATH, path), ERR_IO);
}

TEST(ProtoRecordDecoding, RecordsRoundTrip) {
    Wired w;
    ASSERT_EQ(ProtoWriteObjectId(w.ch, ObjectID{77, ustring("/d/é")}), 0);
    ASSERT_EQ(ProtoWriteView(w.ch, View{3, ustring("Team")}), 0);
    ASSERT_EQ(ProtoWriteObjectMetadata(w.ch, ObjectMetadata{1700000000, 1ull << 40, ustring("ff")}),
              0);
    ASSERT_EQ(ProtoWriteProtocolVersion(w.ch, ProtocolVersion{4, 0, 4294967295u}), 0);
    ASSERT_EQ(ProtoWriteFilterVersion(w.ch, FilterVersion{1, 2, 3}), 0);
    std::string wire = w.sent_all();
    Wired r;
    r.feed(wire);
    ObjectID id;
    View view;
    ObjectMetadata meta;
    ProtocolVersion pv;
    FilterVersion fv;
    ASSERT_EQ(ProtoReadObjectId(r.ch, id), 0);
    ASSERT_EQ(ProtoReadView(r.ch, view), 0);
    ASSERT_EQ(ProtoReadObjectMetadata(r.ch, meta), 0);
    ASSERT_EQ(ProtoReadProtocolVersion(r.ch, pv), 0);
    ASSERT_EQ(ProtoReadFilterVersion(r.ch, fv), 0);
    EXPECT_EQ(id.sync_id, 77u);
    EXPECT_EQ(id.path, ustring("/d/é"));
    EXPECT_EQ(view.view_id, 3u);
    EXPECT_EQ(view.name, ustring("Team"));
    EXPECT_EQ(meta.mtime, 1700000000u);
    EXPECT_EQ(meta.size, 1ull << 40);
    EXPECT_EQ(meta.hash, ustring("ff"));
    EXPECT_EQ(pv.build, 4294967295u);
    EXPECT_EQ(fv.minor, 2u);
}

TEST(ProtoRecordDecoding, VersionThatDoesNotScanIsRefused) {
    Wired w;
    w.feed(var_section(SPROTO_IDPROTO_VERSION_2, "1.x.3") +
           var_section(SPROTO_ID_FILTER_VERSION, "7.8"));
    ProtocolVersion pv{9, 9, 9};
    FilterVersion fv;
    EXPECT_EQ(ProtoReadProtocolVersion(w.ch, pv), ERR_SYS);
    EXPECT_EQ(pv.major, 9u);
    EXPECT_EQ(ProtoReadFilterVersion(w.ch, fv), ERR_SYS);
}

TEST(ProtoSecretDecoding, EncipheredTextDeciphers) {
    Wired w;
    w.feed(var_section(SPROTO_ID_PASSWD, "rFT8wxzW") + var_section(SPROTO_ID_PASSWD, "") +
           var_section(SPROTO_ID_PASSWD, "not base64!"));
    ustring secret("stale");
    EXPECT_EQ(ProtoReadDecSection(w.ch, SPROTO_ID_PASSWD, secret), 11);
    EXPECT_EQ(secret, ustring("secret"));
    EXPECT_EQ(ProtoReadDecSection(w.ch, SPROTO_ID_PASSWD, secret), 3);
    EXPECT_EQ(secret, ustring());
    secret = "kept";
    EXPECT_EQ(ProtoReadDecSection(w.ch, SPROTO_ID_PASSWD, secret), ERR_PROTO);
    EXPECT_EQ(secret, ustring("kept"));
}

// ---- receiving files ----

std::string file_wire(int is_delta, const std::string& data, size_t offset, size_t block_size) {
    std::string s = bytes({SPROTO_ID_DELTATYPE, is_delta, SPROTO_ID_DELTALEN}) + be(data.size(), 8);
    uint32_t id = 0;
    for (size_t at = offset; at < data.size(); at += block_size, ++id)
        s += bytes({SPROTO_ID_DELTAID}) + be(id, 4) +
             var_section(SPROTO_ID_DELTADATA, data.substr(at, block_size));
    return s;
}

TEST(ProtoFileDecoding, WholeFileInFirstGenerationBlocks) {
    TempDir dir;
    Wired w;
    std::string data = prototest::pattern(2 * PROTO_FILE_BLOCK + 100);
    dir.write("target", "old content that must go");
    w.feed(file_wire(1, data, 0, PROTO_FILE_BLOCK) + "next");
    uint8_t is_delta = 0;
    ASSERT_EQ(ProtoReadFile(w.ch, is_delta, ustring(dir / "target")), 0);
    EXPECT_EQ(is_delta, 1);
    EXPECT_EQ(slurp(dir / "target"), data);
    char rest[4];
    ASSERT_EQ(w.ch.Read(rest, 4), 0);  // the reader stopped at the announced length
    EXPECT_EQ(std::string(rest, 4), "next");
}

TEST(ProtoFileDecoding, EmptyFileReadsNoBlock) {
    TempDir dir;
    Wired w;
    w.feed(file_wire(0, "", 0, PROTO_FILE_BLOCK2) + bytes({SPROTO_ID_DELTAID}));
    uint8_t is_delta = 9;
    ASSERT_EQ(ProtoReadFile2(w.ch, is_delta, ustring(dir / "empty"), 0), 0);
    EXPECT_EQ(is_delta, 0);
    EXPECT_EQ(slurp(dir / "empty"), "");
    uint8_t next = 0;
    ASSERT_EQ(w.ch.ReadByte(next), 0);
    EXPECT_EQ(next, SPROTO_ID_DELTAID);
}

TEST(ProtoFileDecoding, ResumeAppendsToATemporaryFileOfExactlyTheOffset) {
    TempDir dir;
    Wired w;
    std::string data = prototest::pattern(PROTO_FILE_BLOCK2 + 1000);
    dir.write("part", data.substr(0, 300));
    w.feed(file_wire(0, data, 300, PROTO_FILE_BLOCK2));
    uint8_t is_delta = 0;
    ASSERT_EQ(ProtoReadFile2(w.ch, is_delta, ustring(dir / "part"), 300), 0);
    EXPECT_EQ(slurp(dir / "part"), data);
}

TEST(ProtoFileDecoding, ResumeRefusesATemporaryFileOfAnotherLength) {
    TempDir dir;
    Wired w;
    std::string data = prototest::pattern(1000);
    dir.write("part", data.substr(0, 299));
    std::string wire = file_wire(0, data, 300, PROTO_FILE_BLOCK2);
    w.feed(wire);
    uint8_t is_delta = 0;
    EXPECT_EQ(ProtoReadFile2(w.ch, is_delta, ustring(dir / "part"), 300), ERR_SYS);
    EXPECT_EQ(slurp(dir / "part"), data.substr(0, 299));
    // Refused before any section was read: the sender's bytes are all still waiting.
    std::string waiting(wire.size(), '\0');
    ASSERT_EQ(w.ch.Read(waiting.data(), waiting.size()), 0);
    EXPECT_EQ(waiting, wire);
    EXPECT_EQ(ProtoReadFile2(w.ch, is_delta, ustring(dir / "absent"), 300), ERR_SYS);
}

TEST(ProtoFileDecoding, ResumeAtTheEndReadsNoBlock) {
    TempDir dir;
    Wired w;
    dir.write("whole", "abc");
    w.feed(file_wire(0, "abc", 3, PROTO_FILE_BLOCK2));
    uint8_t is_delta = 0;
    ASSERT_EQ(ProtoReadFile2(w.ch, is_delta, ustring(dir / "whole"), 3), 0);
    EXPECT_EQ(slurp(dir / "whole"), "abc");
}

TEST(ProtoFileDecoding, BlocksThatDoNotFitTheLengthAreRefused) {
    TempDir dir;
    uint8_t is_delta = 0;
    {
        Wired w;  // more bytes than announced
        w.feed(bytes({SPROTO_ID_DELTATYPE, 0, SPROTO_ID_DELTALEN}) + be(3, 8) +
               bytes({SPROTO_ID_DELTAID}) + be(0, 4) + var_section(SPROTO_ID_DELTADATA, "abcde"));
        EXPECT_EQ(ProtoReadFile(w.ch, is_delta, ustring(dir / "over")), ERR_PROTO);
        EXPECT_EQ(slurp(dir / "over"), "");
    }
    {
        Wired w;  // an empty block would never advance
        w.feed(bytes({SPROTO_ID_DELTATYPE, 0, SPROTO_ID_DELTALEN}) + be(3, 8) +
               bytes({SPROTO_ID_DELTAID}) + be(0, 4) + var_section(SPROTO_ID_DELTADATA, ""));
        EXPECT_EQ(ProtoReadFile(w.ch, is_delta, ustring(dir / "empty-block")), ERR_PROTO);
    }
    {
        Wired w;  // a block above the generation's size
        w.feed(file_wire(0, prototest::pattern(PROTO_FILE_BLOCK + 1), 0, PROTO_FILE_BLOCK + 1));
        EXPECT_EQ(ProtoReadFile(w.ch, is_delta, ustring(dir / "wide")), ERR_PROTO);
    }
    {
        Wired w;  // a length below the agreed offset
        dir.write("ahead", "abcdef");
        w.feed(file_wire(0, "abc", 3, PROTO_FILE_BLOCK2));
        EXPECT_EQ(ProtoReadFile2(w.ch, is_delta, ustring(dir / "ahead"), 6), ERR_PROTO);
        EXPECT_EQ(slurp(dir / "ahead"), "abcdef");
    }
}

TEST(ProtoFileDecoding, ConnectionLostMidFileKeepsWhatArrived) {
    TempDir dir;
    Wired w;
    std::string data = prototest::pattern(3 * PROTO_FILE_BLOCK);
    std::string wire = file_wire(0, data, 0, PROTO_FILE_BLOCK);
    w.feed(wire.substr(0, wire.size() - 100));
    w.hang_up();
    uint8_t is_delta = 0;
    EXPECT_EQ(ProtoReadFile(w.ch, is_delta, ustring(dir / "cut")), ERR_IO);
    EXPECT_EQ(slurp(dir / "cut"), data.substr(0, 2 * PROTO_FILE_BLOCK));
}

// A sender and a receiver on two threads, so that files larger than the socket buffers
// can cross.
TEST(ProtoFileTransferConcurrency, LargeFileCrossesAndResumes) {
    TempDir dir;
    std::string data = prototest::pattern(3 * 1024 * 1024 + 17, 3);
    dir.write("source", data);
    dir.write("target", data.substr(0, 1000000));
    loopback::Pair pair;
    Channel sender, receiver;
    ASSERT_EQ(sender.Open(pair.take_a(), true), 0);
    ASSERT_EQ(receiver.Open(pair.take_b(), true), 0);
    int sent = -100;
    std::thread t([&] { sent = ProtoWriteFile2(sender, 1, ustring(dir / "source"), 1000000); });
    uint8_t is_delta = 0;
    int got = ProtoReadFile2(receiver, is_delta, ustring(dir / "target"), 1000000);
    t.join();
    EXPECT_EQ(sent, 0);
    EXPECT_EQ(got, 0);
    EXPECT_EQ(is_delta, 1);
    EXPECT_TRUE(slurp(dir / "target") == data);
}

}  // namespace
