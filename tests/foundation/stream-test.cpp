// PStream over real loopback sockets: the exact bytes of every kind, refusal of
// malformed input, binaries streamed between files and the socket.
#include "foundation/stream.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string>
#include <thread>

#include "foundation/error-code.h"
#include "support/loopback.h"
#include "support/temp-dir.h"

namespace {

std::string B(std::initializer_list<int> bytes) {
    std::string s;
    for (int b : bytes) s += static_cast<char>(b);
    return s;
}

std::string key(const std::string& k) {
    return B({0x10, 0, static_cast<int>(k.size())}) + k;
}

// What Send puts on the wire for `obj`; the reader runs alongside so big values fit.
std::string encode(const PObject& obj, int* result = nullptr) {
    loopback::Pair pair;
    std::string wire;
    std::thread reader([&] { wire = loopback::read_some(pair.a); });
    {
        Channel ch;
        EXPECT_EQ(ch.Open(pair.take_b(), true), 0);
        PStream ps;
        int rc = ps.Send(ch, obj);
        if (result != nullptr) *result = rc;
        if (rc != 0) ch.ClearWrite();
    }
    reader.join();
    return wire;
}

// Feeds `wire` to Recv, then end of stream.
int decode(const std::string& wire, PObject& out, const std::string& recv_dir = "") {
    loopback::Pair pair;
    loopback::write_all(pair.a, wire);
    ::shutdown(pair.a, SHUT_WR);
    Channel ch;
    EXPECT_EQ(ch.Open(pair.take_b(), true), 0);
    ch.SetTimeout(5);
    PStream ps;
    ps.SetDefaultRecvLocation(recv_dir.c_str());
    return ps.Recv(ch, out);
}

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

PObject binary(const std::string& path, uint64_t offset, uint64_t length) {
    PObject::binary_type b;
    b.path = path.c_str();
    b.offset = offset;
    b.length = length;
    PObject o;
    o = b;
    return o;
}

TEST(PStreamEncoding, DaemonPortMapByteForByte) {
    PObject reply;
    reply["daemon_port"] = uint64_t{1025};
    EXPECT_EQ(encode(reply), B({0x42}) + key("daemon_port") + B({0x01, 0x02, 0x04, 0x01, 0x40}));
}

TEST(PStreamEncoding, EveryKindHasItsTagAndBody) {
    EXPECT_EQ(encode(PObject()), B({0x00, 0x00}));
    EXPECT_EQ(encode(PObject("ab")), B({0x10, 0x00, 0x02, 'a', 'b'}));
    EXPECT_EQ(encode(PObject("")), B({0x10, 0x00, 0x00}));
    PObject array;
    array = PObject::array_type{PObject(uint64_t{1}), PObject("x"), PObject()};
    EXPECT_EQ(encode(array), B({0x41, 0x01, 0x01, 0x01, 0x10, 0x00, 0x01, 'x', 0x00, 0x00, 0x40}));
    PObject empty_map;
    empty_map.asMap();
    EXPECT_EQ(encode(empty_map), B({0x42, 0x40}));
    PObject with_null;
    with_null["a"] = PObject();
    EXPECT_EQ(encode(with_null), B({0x42}) + key("a") + B({0x00, 0x00, 0x40}));
    PObject nested;
    nested["m"]["n"] = PObject::array_type{};
    EXPECT_EQ(encode(nested),
              B({0x42}) + key("m") + B({0x42}) + key("n") + B({0x41, 0x40, 0x40, 0x40}));
}

TEST(PStreamEncoding, IntegerWidthsAtEachBoundary) {
    struct Case {
        uint64_t value;
        std::string wire;
    } cases[] = {
        {0, B({1, 1, 0})},
        {255, B({1, 1, 0xFF})},
        {256, B({1, 2, 1, 0})},
        {65535, B({1, 2, 0xFF, 0xFF})},
        {65536, B({1, 4, 0, 1, 0, 0})},
        {0xFFFFFFFFULL, B({1, 4, 0xFF, 0xFF, 0xFF, 0xFF})},
        {0x100000000ULL, B({1, 8, 0, 0, 0, 1, 0, 0, 0, 0})},
        {UINT64_MAX, B({1, 8, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF})},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(encode(PObject(c.value)), c.wire) << c.value;
        PObject back;
        ASSERT_EQ(decode(c.wire, back), 0);
        EXPECT_EQ(back.asUInt64(), c.value);
    }
}

TEST(PStreamEncoding, OneLeadingUnderscoreIsStrippedFromKeys) {
    PObject request;
    request["b"] = uint64_t{1};
    request["_action"] = "go";
    request["__x"] = uint64_t{2};
    // Key order is by bytes of the unstripped keys: "__x" < "_action" < "b".
    EXPECT_EQ(encode(request), B({0x42}) + key("_x") + B({1, 1, 2}) + key("action") +
                                   B({0x10, 0, 2, 'g', 'o'}) + key("b") + B({1, 1, 1, 0x40}));
    PObject twins;
    twins["_a"] = uint64_t{1};
    twins["a"] = uint64_t{2};
    std::string wire = encode(twins);
    EXPECT_EQ(wire, B({0x42}) + key("a") + B({1, 1, 1}) + key("a") + B({1, 1, 2, 0x40}));
    PObject back;
    ASSERT_EQ(decode(wire, back), 0);
    EXPECT_EQ(back.toString(), ustring("{\"a\": 2}"));
}

TEST(PStreamEncoding, LongTextKeepsAllItsBytesWithALengthCutTo16Bits) {
    std::string text(65539, 'x');
    std::string wire = encode(PObject(text.c_str()));
    EXPECT_EQ(wire, B({0x10, 0x00, 0x03}) + text);
}

TEST(PStreamDecoding, NestedContainersRoundTrip) {
    PObject obj;
    obj["list"] = PObject::array_type{PObject(uint64_t{7}), PObject("seven"), PObject()};
    obj["map"]["deeper"]["n"] = uint64_t{1} << 40;
    obj["map"]["text"] = "caf\xC3\xA9";
    obj["zero"] = uint64_t{0};
    PObject back;
    ASSERT_EQ(decode(encode(obj), back), 0);
    EXPECT_EQ(back.toString(), obj.toString());
    EXPECT_EQ(back["map"]["deeper"]["n"].asUInt64(), uint64_t{1} << 40);
}

TEST(PStreamDecoding, AnyIntegerLengthUpToEightIsFolded) {
    PObject v;
    ASSERT_EQ(decode(B({1, 0}), v), 0);
    EXPECT_EQ(v.asUInt64(), 0u);
    ASSERT_EQ(decode(B({1, 3, 1, 2, 3}), v), 0);
    EXPECT_EQ(v.asUInt64(), 0x010203u);
    ASSERT_EQ(decode(B({1, 8, 0, 0, 0, 0, 0, 0, 0, 9}), v), 0);
    EXPECT_EQ(v.asUInt64(), 9u);
    EXPECT_EQ(decode(B({1, 9, 0, 0, 0, 0, 0, 0, 0, 0, 9}), v), ERR_PROTO);
    EXPECT_EQ(decode(B({1, 0xFF}) + std::string(255, '\0'), v), ERR_PROTO);
}

TEST(PStreamDecoding, TruncatedInputFailsAtEveryCut) {
    PObject obj;
    obj["a"] = PObject::array_type{PObject(uint64_t{300}), PObject("xy"), PObject()};
    obj["b"]["c"] = uint64_t{5};
    std::string wire = encode(obj);
    for (size_t cut = 0; cut < wire.size(); ++cut) {
        PObject back;
        EXPECT_EQ(decode(wire.substr(0, cut), back), ERR_IO) << "cut at " << cut;
    }
}

TEST(PStreamDecoding, MalformedInputIsRefused) {
    PObject v;
    EXPECT_EQ(decode(B({0x02, 0x00}), v), ERR_PROTO);  // unknown tag
    EXPECT_EQ(decode(B({0x40}), v), ERR_PROTO);        // end with nothing open
    EXPECT_EQ(decode(B({0x00, 0x01}), v), ERR_PROTO);  // null with a body
    EXPECT_EQ(decode(B({0x42, 0x01, 0x01, 0x05, 0x01, 0x01, 0x06, 0x40}), v),
              ERR_PROTO);                                          // integer key
    EXPECT_EQ(decode(B({0x42, 0x42, 0x40, 0x40}), v), ERR_PROTO);  // map as key
    EXPECT_EQ(decode(B({0x41, 0x20, 0x40}), v), ERR_PROTO);        // unknown tag inside
}

TEST(PStreamDecoding, NestingBeyondTheLimitIsRefused) {
    const int limit = PStream::kMaxDepth;
    PObject v;
    std::string ok = std::string(limit, '\x41') + std::string(limit, '\x40');
    EXPECT_EQ(decode(ok, v), 0);
    std::string deep = std::string(limit + 1, '\x41') + std::string(limit + 1, '\x40');
    EXPECT_EQ(decode(deep, v), ERR_PROTO);
    std::string hostile(100000, '\x41');
    EXPECT_EQ(decode(hostile, v), ERR_PROTO);
}

TEST(PStreamDecoding, EmbeddedZeroCutsAText) {
    PObject v;
    ASSERT_EQ(decode(B({0x10, 0x00, 0x03, 'a', 0x00, 'b'}), v), 0);
    EXPECT_EQ(v.asString(), ustring("a"));
}

TEST(PStreamDecoding, RepeatedKeyLandsOnTheSameMember) {
    PObject v;
    ASSERT_EQ(
        decode(B({0x42}) + key("k") + B({1, 1, 1}) + key("k") + B({0x10, 0, 1, 'z', 0x40}), v), 0);
    EXPECT_EQ(v.toString(), ustring("{\"k\": \"z\"}"));
}

TEST(PStreamBinary, SendsAStretchOfAFileFromItsOffset) {
    TempDir dir;
    dir.write("f", "0123456789");
    EXPECT_EQ(encode(binary(dir / "f", 3, 4)), B({0x30, 0, 0, 0, 0, 0, 0, 0, 4}) + "3456");
}

TEST(PStreamBinary, ZeroLengthSendStillNeedsTheFile) {
    TempDir dir;
    dir.write("empty", "");
    EXPECT_EQ(encode(binary(dir / "empty", 0, 0)), B({0x30, 0, 0, 0, 0, 0, 0, 0, 0}));
    int rc = 0;
    encode(binary(dir / "missing", 0, 0), &rc);
    EXPECT_EQ(rc, -1);
}

TEST(PStreamBinary, FileShorterThanItsLengthIsAProtocolError) {
    TempDir dir;
    dir.write("f", "0123456789");
    int rc = 0;
    std::string wire = encode(binary(dir / "f", 4, 20), &rc);
    EXPECT_EQ(rc, ERR_PROTO);
}

TEST(PStreamBinary, ReceivingAtOffsetZeroReplacesTheFile) {
    TempDir dir;
    dir.write("f", "old and longer content");
    PObject target = binary(dir / "f", 0, 0);
    ASSERT_EQ(decode(B({0x30, 0, 0, 0, 0, 0, 0, 0, 3}) + "new", target), 0);
    EXPECT_EQ(slurp(dir / "f"), "new");
    EXPECT_EQ(target.asBinary().offset, 3u);
    EXPECT_EQ(target.asBinary().length, 3u);
}

TEST(PStreamBinary, OffsetEqualToLengthAppends) {
    TempDir dir;
    dir.write("f", "hello");
    PObject target = binary(dir / "f", 5, 5);
    ASSERT_EQ(decode(B({0x30, 0, 0, 0, 0, 0, 0, 0, 6}) + " world", target), 0);
    EXPECT_EQ(slurp(dir / "f"), "hello world");
    EXPECT_EQ(target.asBinary().offset, 11u);
    EXPECT_EQ(target.asBinary().length, 11u);
}

TEST(PStreamBinary, ResumeCutsTheFileBackToTheOffsetFirst) {
    TempDir dir;
    dir.write("f", "0123456789");
    PObject target = binary(dir / "f", 5, 10);
    ASSERT_EQ(decode(B({0x30, 0, 0, 0, 0, 0, 0, 0, 3}) + "abc", target), 0);
    EXPECT_EQ(slurp(dir / "f"), "01234abc");
    EXPECT_EQ(target.asBinary().offset, 8u);
    EXPECT_EQ(target.asBinary().length, 8u);
}

TEST(PStreamBinary, ResumeOfAMissingFileFailsWithoutCreatingIt) {
    TempDir dir;
    PObject target = binary(dir / "gone", 5, 10);
    EXPECT_EQ(decode(B({0x30, 0, 0, 0, 0, 0, 0, 0, 3}) + "abc", target), -1);
    EXPECT_FALSE(exists(dir / "gone"));
    EXPECT_EQ(target.asBinary().offset, 5u);
}

TEST(PStreamBinary, ZeroLengthReceiveCreatesAnEmptyFile) {
    TempDir dir;
    PObject target = binary(dir / "f", 0, 0);
    ASSERT_EQ(decode(B({0x30, 0, 0, 0, 0, 0, 0, 0, 0}), target), 0);
    EXPECT_TRUE(exists(dir / "f"));
    EXPECT_EQ(slurp(dir / "f"), "");
}

TEST(PStreamBinary, UnnamedBinaryLandsInTheReceiveDirectory) {
    TempDir dir;
    PObject v;
    ASSERT_EQ(decode(B({0x42}) + key("data") + B({0x30, 0, 0, 0, 0, 0, 0, 0, 2}) + "hi" + B({0x40}),
                     v, dir.path()),
              0);
    std::string path = v["data"].asBinary().path.str();
    EXPECT_EQ(path.rfind(dir.path() + "/", 0), 0u) << path;
    EXPECT_EQ(slurp(path), "hi");
    EXPECT_EQ(v["data"].asBinary().length, 2u);
    PObject nowhere;
    EXPECT_EQ(decode(B({0x30, 0, 0, 0, 0, 0, 0, 0, 2}) + "hi", nowhere), -1);
}

TEST(PStreamBinary, PreparedTargetInAMapReceivesIntoItsFile) {
    TempDir dir;
    dir.write("part", "ab");
    PObject reply;
    reply["keep"] = "me";
    reply["file"]["data"] = binary(dir / "part", 2, 2);
    std::string wire = B({0x42}) + key("file") + B({0x42}) + key("data") +
                       B({0x30, 0, 0, 0, 0, 0, 0, 0, 2}) + "cd" + B({0x40, 0x40});
    ASSERT_EQ(decode(wire, reply), 0);
    EXPECT_EQ(slurp(dir / "part"), "abcd");
    EXPECT_EQ(reply["keep"].asString(), ustring("me"));
    EXPECT_EQ(reply["file"]["data"].asBinary().length, 4u);
}

TEST(PStreamBinary, PeerClosingMidBodyKeepsWhatArrivedAndSaysWhere) {
    TempDir dir;
    dir.write("f", "ab");
    PObject reply;
    reply["file"]["data"] = binary(dir / "f", 2, 2);
    std::string wire = B({0x42}) + key("file") + B({0x42}) + key("data") +
                       B({0x30, 0, 0, 0, 0, 0, 0, 0, 10}) + "cdef";
    loopback::Pair pair;
    loopback::write_all(pair.a, wire);
    ::shutdown(pair.a, SHUT_WR);
    Channel ch;
    ASSERT_EQ(ch.Open(pair.take_b(), true), 0);
    PStream ps;
    // RecvObject leaves the progress and key path standing, as a reader would see them.
    EXPECT_EQ(ps.RecvObject(ch, reply), ERR_IO);
    ustring where;
    uint64_t sent = 0;
    uint64_t total = 0;
    ps.GetStatus(where, sent, total);
    EXPECT_EQ(where, ustring("file.data"));
    EXPECT_EQ(sent, 4u);
    EXPECT_EQ(total, 10u);
    EXPECT_EQ(slurp(dir / "f"), "abcdef");
    EXPECT_EQ(reply["file"]["data"].asBinary().offset, 6u);
    EXPECT_EQ(reply["file"]["data"].asBinary().length, 6u);
    ps.ClearHistory();
    ps.GetStatus(where, sent, total);
    EXPECT_TRUE(where.empty());
    EXPECT_EQ(total, 0u);
}

TEST(PStreamBinary, FullDiskIsReportedAsSuch) {
    PObject target = binary("/dev/full", 0, 0);
    EXPECT_EQ(decode(B({0x30, 0, 0, 0, 0, 0, 0, 0, 4}) + "data", target), ERR_INVAL);
}

// A binary several rings long crosses a real socket while another thread watches the
// receiver's progress, as the status reader of a transfer does.
TEST(PStreamConcurrency, LargeBinaryCrossesWithProgressVisible) {
    TempDir dir;
    std::string content(3 * 1024 * 1024 + 12345, '\0');
    for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7 + i / 4093);
    dir.write("src", content);
    loopback::Pair pair;
    Channel out;
    Channel in;
    ASSERT_EQ(out.Open(pair.take_a(), true), 0);
    ASSERT_EQ(in.Open(pair.take_b(), true), 0);
    PObject request;
    request["file"]["data"] = binary(dir / "src", 0, content.size());
    request["name"] = "src";
    int send_rc = 1;
    std::thread sender([&] {
        PStream ps;
        send_rc = ps.Send(out, request);
    });
    PStream receiver;
    receiver.SetDefaultRecvLocation(dir.path().c_str());
    std::atomic<bool> done{false};
    bool consistent = true;
    std::thread watcher([&] {
        while (!done.load()) {
            ustring where;
            uint64_t sent = 0;
            uint64_t total = 0;
            receiver.GetStatus(where, sent, total);
            if (sent > total) consistent = false;
        }
    });
    PObject got;
    EXPECT_EQ(receiver.Recv(in, got), 0);
    done = true;
    watcher.join();
    sender.join();
    EXPECT_EQ(send_rc, 0);
    EXPECT_TRUE(consistent);
    EXPECT_EQ(got["name"].asString(), ustring("src"));
    EXPECT_EQ(got["file"]["data"].asBinary().length, content.size());
    EXPECT_TRUE(slurp(got["file"]["data"].asBinary().path.str()) == content);
}

}  // namespace
