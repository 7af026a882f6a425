// PStream over real loopback sockets: the exact bytes of every kind, refusal of
// malformed input, binaries streamed between files and the socket.
#include "foundation/stream.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <initializer_list>
#include <string>
#include <thread>

#include "foundation/error-code.h"
#include "support/fail-each-op.h"
#include "support/files.h"
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

// Feeds `wire` to Recv, then end of stream. With `kept`, RecvObject is used instead, which
// leaves the progress and key path standing, as a reader would see them.
int decode(const std::string& wire, PObject& out, const std::string& recv_dir = "",
           PStream* kept = nullptr) {
    loopback::Pair pair;
    loopback::write_all(pair.a, wire);
    ::shutdown(pair.a, SHUT_WR);
    Channel ch;
    EXPECT_EQ(ch.Open(pair.take_b(), true), 0);
    ch.SetTimeout(5);
    PStream own;
    PStream& ps = kept != nullptr ? *kept : own;
    ps.SetDefaultRecvLocation(recv_dir.c_str());
    return kept != nullptr ? ps.RecvObject(ch, out) : ps.Recv(ch, out);
}

PObject binary(const std::string& path, uint64_t offset, uint64_t length) {
    PObject o;
    o = PObject::binary_type{offset, length, path.c_str()};
    return o;
}

TEST(PStreamEncoding, EveryKindHasItsTagAndBody) {
    PObject reply;
    reply["daemon_port"] = uint64_t{1025};
    EXPECT_EQ(encode(reply), B({0x42}) + key("daemon_port") + B({0x01, 0x02, 0x04, 0x01, 0x40}));
    EXPECT_EQ(encode(PObject()), B({0x00, 0x00}));
    EXPECT_EQ(encode(PObject("ab")), B({0x10, 0x00, 0x02, 'a', 'b'}));
    PObject array;
    array = PObject::array_type{PObject(uint64_t{1}), PObject("x"), PObject()};
    EXPECT_EQ(encode(array), B({0x41, 0x01, 0x01, 0x01, 0x10, 0x00, 0x01, 'x', 0x00, 0x00, 0x40}));
    // A long text keeps all its bytes but its length is cut to 16 bits.
    std::string text(65539, 'x');
    EXPECT_EQ(encode(PObject(text.c_str())), B({0x10, 0x00, 0x03}) + text);
}

TEST(PStreamEncoding, IntegerWidthsAtEachBoundary) {
    const std::pair<uint64_t, std::string> cases[] = {
        {0, B({1, 1, 0})},
        {255, B({1, 1, 0xFF})},
        {256, B({1, 2, 1, 0})},
        {65535, B({1, 2, 0xFF, 0xFF})},
        {65536, B({1, 4, 0, 1, 0, 0})},
        {0xFFFFFFFFULL, B({1, 4, 0xFF, 0xFF, 0xFF, 0xFF})},
        {0x100000000ULL, B({1, 8, 0, 0, 0, 1, 0, 0, 0, 0})},
        {UINT64_MAX, B({1, 8, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF})},
    };
    for (const auto& [value, wire] : cases) {
        EXPECT_EQ(encode(PObject(value)), wire) << value;
        PObject back;
        ASSERT_EQ(decode(wire, back), 0);
        EXPECT_EQ(back.asUInt64(), value);
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
    EXPECT_EQ(back.toString(), ustring("{\"a\": 2}")) << "a repeated key lands on one member";
}

TEST(PStreamDecoding, NestedValueRoundTripsAndFailsAtEveryCut) {
    PObject obj;
    obj["list"] = PObject::array_type{PObject(uint64_t{300}), PObject("seven"), PObject()};
    obj["map"]["deeper"]["n"] = uint64_t{1} << 40;
    obj["map"]["text"] = "caf\xC3\xA9";
    std::string wire = encode(obj);
    PObject back;
    ASSERT_EQ(decode(wire, back), 0);
    EXPECT_EQ(back.toString(), obj.toString());
    for (size_t cut = 0; cut < wire.size(); ++cut) {
        PObject part;
        EXPECT_EQ(decode(wire.substr(0, cut), part), ERR_IO) << "cut at " << cut;
    }
}

TEST(PStreamDecoding, LooserFormsAreReadAndMalformedInputIsRefused) {
    const std::pair<std::string, const char*> loose[] = {
        {B({1, 0}), "0"},
        {B({1, 3, 1, 2, 3}), "66051"},
        {B({1, 8, 0, 0, 0, 0, 0, 0, 0, 9}), "9"},
        {B({0x10, 0x00, 0x03, 'a', 0x00, 'b'}), "\"a\""},  // an embedded zero cuts the text
    };
    PObject v;
    for (const auto& [wire, text] : loose) {
        ASSERT_EQ(decode(wire, v), 0) << text;
        EXPECT_EQ(v.toString(), ustring(text));
    }
    const int limit = PStream::kMaxDepth;
    EXPECT_EQ(decode(std::string(limit, '\x41') + std::string(limit, '\x40'), v), 0);
    const std::pair<const char*, std::string> cases[] = {
        {"unknown tag", B({0x02, 0x00})},
        {"end with nothing open", B({0x40})},
        {"null with a body", B({0x00, 0x01})},
        {"integer key", B({0x42, 0x01, 0x01, 0x05, 0x01, 0x01, 0x06, 0x40})},
        {"map as key", B({0x42, 0x42, 0x40, 0x40})},
        {"unknown tag inside", B({0x41, 0x20, 0x40})},
        {"integer of nine bytes", B({1, 9, 0, 0, 0, 0, 0, 0, 0, 0, 9})},
        {"one level too deep", std::string(limit + 1, '\x41') + std::string(limit + 1, '\x40')},
        {"hostile nesting", std::string(100000, '\x41')},
    };
    for (const auto& [name, wire] : cases) EXPECT_EQ(decode(wire, v), ERR_PROTO) << name;
}

TEST(PStreamBinary, SendsAStretchOfAFileThatMustBeThere) {
    TempDir dir;
    dir.write("f", "0123456789");
    EXPECT_EQ(encode(binary(dir / "f", 3, 4)), B({0x30, 0, 0, 0, 0, 0, 0, 0, 4}) + "3456");
    EXPECT_EQ(encode(binary(dir / "f", 0, 0)), B({0x30, 0, 0, 0, 0, 0, 0, 0, 0}));
    int rc = 0;
    encode(binary(dir / "missing", 0, 0), &rc);
    EXPECT_EQ(rc, -1) << "even an empty stretch needs its file";
    encode(binary(dir / "f", 4, 20), &rc);
    EXPECT_EQ(rc, ERR_PROTO) << "a file shorter than the length";
}

// offset 0 writes anew, offset == length appends, any other offset cuts back first.
TEST(PStreamBinary, ReceivingPlacesTheBytesByOffset) {
    struct Case {
        const char* name;
        const char* before;  // null: no file
        uint64_t offset, length;
        std::string body;
        int rc;
        const char* after;  // null: still no file
        uint64_t end;
    } cases[] = {
        {"replace", "old and longer content", 0, 0, "new", 0, "new", 3},
        {"append", "hello", 5, 5, " world", 0, "hello world", 11},
        {"resume", "0123456789", 5, 10, "abc", 0, "01234abc", 8},
        {"empty", nullptr, 0, 0, "", 0, "", 0},
        {"resume of a missing file", nullptr, 5, 10, "abc", -1, nullptr, 5},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        if (c.before != nullptr) dir.write("f", c.before);
        PObject target = binary(dir / "f", c.offset, c.length);
        std::string wire = B({0x30, 0, 0, 0, 0, 0, 0, 0, static_cast<int>(c.body.size())});
        EXPECT_EQ(decode(wire + c.body, target), c.rc);
        EXPECT_EQ(Exists(dir / "f"), c.after != nullptr);
        EXPECT_EQ(ReadFile(dir / "f"), c.after != nullptr ? c.after : "");
        EXPECT_EQ(target.asBinary().offset, c.end);
        EXPECT_EQ(target.asBinary().length, c.end);
    }
    PObject full = binary("/dev/full", 0, 0);
    EXPECT_EQ(decode(B({0x30, 0, 0, 0, 0, 0, 0, 0, 4}) + "data", full), ERR_INVAL);
    PObject nowhere;
    EXPECT_EQ(decode(B({0x30, 0, 0, 0, 0, 0, 0, 0, 2}) + "hi", nowhere), -1)
        << "an unnamed binary needs a receive folder";
}

TEST(PStreamBinary, PeerClosingMidBodyKeepsWhatArrivedAndSaysWhere) {
    TempDir dir;
    dir.write("f", "ab");
    PObject reply;
    reply["keep"] = "me";  // a map that arrives into a map adds to it
    reply["file"]["data"] = binary(dir / "f", 2, 2);
    std::string wire = B({0x42}) + key("file") + B({0x42}) + key("data") +
                       B({0x30, 0, 0, 0, 0, 0, 0, 0, 10}) + "cdef";
    PStream ps;
    EXPECT_EQ(decode(wire, reply, "", &ps), ERR_IO);
    ustring where;
    uint64_t sent = 0;
    uint64_t total = 0;
    ps.GetStatus(where, sent, total);
    EXPECT_EQ(where, ustring("file.data"));
    EXPECT_EQ(sent, 4u);
    EXPECT_EQ(total, 10u);
    EXPECT_EQ(ReadFile(dir / "f"), "abcdef");
    EXPECT_EQ(reply["file"]["data"].asBinary().length, 6u);
    EXPECT_EQ(reply["keep"].asString(), ustring("me"));
    ps.ClearHistory();
    ps.GetStatus(where, sent, total);
    EXPECT_TRUE(where.empty());
    EXPECT_EQ(total, 0u);
}

// A binary several rings long crosses a real socket while another thread watches the
// receiver's progress, as the status reader of a transfer does.
TEST(PStreamConcurrency, LargeBinaryCrossesWithProgressVisible) {
    TempDir dir;
    const std::string content = PatternBytes(3 * 1024 * 1024 + 12345);
    dir.write("src", content);
    loopback::Pair pair;
    Channel out;
    Channel in;
    ASSERT_EQ(out.Open(pair.take_a(), true), 0);
    ASSERT_EQ(in.Open(pair.take_b(), true), 0);
    PObject request;
    request["file"]["data"] = binary(dir / "src", 0, content.size());
    std::thread sender([&] { EXPECT_EQ(PStream().Send(out, request), 0); });
    PStream receiver;
    receiver.SetDefaultRecvLocation(dir.path().c_str());
    std::atomic<bool> done{false};
    std::thread watcher([&] {
        ustring where;
        uint64_t sent = 0;
        uint64_t total = 0;
        while (!done.load()) {
            receiver.GetStatus(where, sent, total);
            ASSERT_LE(sent, total);
        }
    });
    PObject got;
    EXPECT_EQ(receiver.Recv(in, got), 0);
    done = true;
    watcher.join();
    sender.join();
    const std::string path = got["file"]["data"].asBinary().path.str();
    EXPECT_EQ(path.rfind(dir.path() + "/", 0), 0u)
        << "an unnamed binary lands in the receive folder";
    EXPECT_TRUE(ReadFile(path) == content);
}

}  // namespace

// Each file operation of receiving the rest of a binary into a partly written file fails
// once in turn. The stretch the receiver reports as on disk always holds the right bytes,
// and resuming from there always completes the file.
TEST(PStreamBinary, EveryFailedFileOperationOfAResumeLosesNothing) {
    TempDir dir;
    const std::string data = PatternBytes(PStream::kChunk + PStream::kChunk / 2);
    const uint64_t kept = 1000;
    PObject target;
    auto receive = [&] {
        const uint64_t from = target.asBinary().offset;
        const std::string body = data.substr(from);
        std::string header = B({0x30});
        for (int shift = 56; shift >= 0; shift -= 8)
            header += static_cast<char>((body.size() >> shift) & 0xFF);
        return decode(header + body, target);
    };
    tbtest::FaultScenario scenario;
    scenario.prepare = [&] {
        dir.write("f", data.substr(0, kept) + "a stale tail");
        target = binary(dir / "f", kept, kept + 12);
    };
    scenario.act = receive;
    scenario.after_fault = [&](int) {
        const uint64_t at = target.asBinary().offset;
        ASSERT_LE(at, data.size());
        EXPECT_TRUE(ReadFile(dir / "f").substr(0, at) == data.substr(0, at));
    };
    scenario.recover = [&] {
        ASSERT_EQ(receive(), 0);
        EXPECT_TRUE(ReadFile(dir / "f") == data) << "the resumed file differs";
    };
    EXPECT_GE(tbtest::FailEachOperation(scenario), 4);
}
