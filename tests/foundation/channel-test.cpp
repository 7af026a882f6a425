// Channel over real loopback sockets: time-outs, the abort flag, ring limits, connects.
#include "foundation/channel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "foundation/error-code.h"
#include "support/files.h"
#include "support/loopback.h"

namespace {

using loopback::seconds_since;
using clock_type = std::chrono::steady_clock;

// A Channel that owns one end of a loopback pair; `peer` is the raw other end.
struct Wired {
    loopback::Pair pair;
    Channel ch;
    int peer;
    Wired() : peer(pair.a) { EXPECT_EQ(ch.Open(pair.take_b(), true), 0); }
};

TEST(ChannelOpen, AdoptsOnlyOneValidSocketAndRefusesIOWhenClosed) {
    Channel ch;
    char buf[1];
    EXPECT_EQ(ch.Read(buf, 1), ERR_IO);
    EXPECT_EQ(ch.Write("x", 1), ERR_IO);
    int port = 0;
    EXPECT_EQ(ch.GetPeerInfo(nullptr, 0, port), ERR_SYS);
    EXPECT_EQ(ch.Open(platform::kInvalidSocket, true), ERR_INVAL);
    loopback::Pair pair;
    ASSERT_EQ(ch.Open(pair.take_a(), true), 0);
    int other = pair.take_b();
    EXPECT_EQ(ch.Open(other, true), ERR_INVAL);  // already open; the caller keeps `other`
    ::close(other);
    ch.Close();
    EXPECT_TRUE(ch.IsClosed());
}

TEST(ChannelOpen, ConnectsByDottedQuadOnlyAndFailsAtOnceWhenRefused) {
    loopback::Listener listener;
    Channel ch;
    EXPECT_EQ(ch.Open("localhost", listener.port()), ERR_IO);
    EXPECT_EQ(ch.Open("127.0.0.1", 0), ERR_IO);
    ASSERT_EQ(ch.Open("127.0.0.1", listener.port()), 0);
    int server = listener.accept();
    ASSERT_GE(server, 0);
    ASSERT_EQ(ch.Write("ping", 4), 0);
    ASSERT_EQ(ch.FlushWrite(0), 4);
    EXPECT_EQ(loopback::read_some(server, 4), "ping");
    ::close(server);
    ch.Close();
    int port = listener.port();
    listener.close();
    auto t0 = clock_type::now();
    EXPECT_EQ(ch.Open("127.0.0.1", port), ERR_IO);
    EXPECT_LT(seconds_since(t0), 1.0);
    EXPECT_TRUE(ch.IsClosed());
}

TEST(ChannelOpen, ConnectToAFullBacklogTimesOut) {
    loopback::Listener listener(0);
    std::vector<int> waiting;
    for (int i = 0; i < 3; ++i) {
        int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        sockaddr_in addr = loopback::address(listener.port());
        ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        waiting.push_back(fd);
    }
    Channel ch;
    ch.SetTimeout(3);  // each empty one-second slice counts three
    platform::socket_t s = ch.CreateSock();
    ASSERT_EQ(ch.SetNonBlock(s), 0);
    auto t0 = clock_type::now();
    EXPECT_EQ(ch.ConnectWithTimeout(s, "127.0.0.1", listener.port()), ERR_TIMEOUT);
    EXPECT_LT(seconds_since(t0), 2.5);
    platform::close_socket(s);
    for (int fd : waiting) ::close(fd);
}

TEST(ChannelTimeouts, LimitIsOnSilenceNotOnTheWholeRead) {
    Wired w;
    w.ch.SetTimeout(2);
    std::thread trickle([&] {
        for (char c : std::string("ab")) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1300));
            loopback::write_all(w.peer, std::string(1, c));
        }
    });
    char buf[2];
    EXPECT_EQ(w.ch.Read(buf, sizeof buf), 0);
    trickle.join();
    EXPECT_EQ(std::string(buf, 2), "ab");
    w.ch.SetTimeout(1);
    auto t0 = clock_type::now();
    EXPECT_EQ(w.ch.Read(buf, sizeof buf), ERR_TIMEOUT);
    EXPECT_GE(seconds_since(t0), 0.9);
    EXPECT_LT(seconds_since(t0), 3.0);
}

// Sets the abort flag from another thread after `ms`, as a stopping task does.
std::thread raise_later(int& flag, int ms) {
    return std::thread([&flag, ms] {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        std::atomic_ref<int>(flag).store(1, std::memory_order_relaxed);
    });
}

TEST(ChannelConcurrency, AbortFlagEndsABlockedReadAndABlockedFlush) {
    Wired w;
    Channel& ch = w.ch;
    int small = 4096;
    ::setsockopt(w.peer, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    ::setsockopt(ch.GetSocket(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    int abort_flag = 0;
    ch.SetFlag(&abort_flag);
    ch.SetTimeout(0);  // never time out: only the flag can end a wait
    std::thread setter = raise_later(abort_flag, 200);
    char buf[1];
    auto t0 = clock_type::now();
    EXPECT_EQ(ch.Read(buf, 1), ERR_INT);
    EXPECT_LT(seconds_since(t0), 1.8);
    setter.join();

    abort_flag = 0;
    setter = raise_later(abort_flag, 300);
    std::string chunk = PatternBytes(Channel::kCapacity);
    int rc = 0;
    t0 = clock_type::now();
    // The peer never reads, so sooner or later a flush blocks until the flag is seen.
    while (rc == 0 && seconds_since(t0) < 10) rc = ch.Write(chunk.data(), chunk.size());
    EXPECT_EQ(rc, ERR_INT);
    EXPECT_LT(seconds_since(t0), 1.8);
    setter.join();
    ch.SetFlag(nullptr);
    ch.ClearWrite();  // nothing to flush on close: the peer still isn't reading
}

// Writes wait for a flush, a full ring or the close; reads keep what arrived.
TEST(ChannelRings, WritesWaitAndReadsKeepWhatArrived) {
    Wired w;
    std::string big(Channel::kCapacity + 1, 'x');
    EXPECT_EQ(w.ch.Write(big.data(), big.size()), ERR_INVAL);
    ASSERT_EQ(w.ch.Write("abc", 3), 0);
    EXPECT_EQ(loopback::read_some(w.peer, 3, 200), "");
    EXPECT_EQ(w.ch.FlushWrite(0), 3);
    EXPECT_EQ(loopback::read_some(w.peer, 3), "abc");
    EXPECT_EQ(w.ch.Write(big.data(), Channel::kCapacity), 0);
    EXPECT_EQ(w.ch.FlushWrite(0), static_cast<int>(Channel::kCapacity));
    EXPECT_EQ(loopback::read_some(w.peer, Channel::kCapacity).size(), Channel::kCapacity);
    // Bytes and 16/64-bit integers are pinned by the stream's golden encodings.
    ASSERT_EQ(w.ch.WriteInt32(0x01020304), 0);
    ASSERT_EQ(w.ch.FlushWrite(0), 4);
    EXPECT_EQ(loopback::read_some(w.peer, 4), "\x01\x02\x03\x04");
    loopback::write_all(w.peer, "\xF1\x02\x03\x04");
    uint32_t v = 0;
    ASSERT_EQ(w.ch.ReadInt32(v), 0);
    EXPECT_EQ(v, 0xF1020304u);
    // A peer closing mid-read gives an I/O error and what did arrive.
    loopback::write_all(w.peer, "12345");
    ::shutdown(w.peer, SHUT_WR);
    char buf[10];
    size_t got = 0;
    EXPECT_EQ(w.ch.Read(buf, sizeof buf, got), ERR_IO);
    EXPECT_EQ(std::string(buf, got), "12345");
    ASSERT_EQ(w.ch.Write("tail", 4), 0);
    w.ch.Close();
    EXPECT_EQ(loopback::read_some(w.peer), "tail");
}

// Both rings wrap many times over with odd-sized pieces; every byte arrives in order.
TEST(ChannelConcurrency, RingsWrapWithoutLosingBytes) {
    loopback::Pair pair;
    Channel sender;
    Channel receiver;
    ASSERT_EQ(sender.Open(pair.take_a(), true), 0);
    ASSERT_EQ(receiver.Open(pair.take_b(), true), 0);
    const std::string data = PatternBytes(1000003);
    std::thread writer([&] {
        for (size_t done = 0; done < data.size(); done += 7777)
            ASSERT_EQ(sender.Write(data.data() + done, std::min<size_t>(7777, data.size() - done)),
                      0);
        ASSERT_GE(sender.FlushWrite(0), 0);
    });
    std::string got(data.size(), '\0');
    for (size_t done = 0; done < data.size(); done += 5003)
        ASSERT_EQ(receiver.Read(got.data() + done, std::min<size_t>(5003, data.size() - done)), 0);
    writer.join();
    EXPECT_TRUE(got == data);
}

// A mode that stands for an encrypting one: it turns every byte read into 'T', and its
// close says whether its farewell came before the socket was closed.
class MarkingMode : public ChannelOps {
  public:
    explicit MarkingMode(std::string& closes) : m_closes(closes) {}
    int read_(char* buf, size_t len, int timeout_ms) override {
        int n = carrier()->read_(buf, len, timeout_ms);
        for (int i = 0; i < n; ++i) buf[i] = 'T';
        return n;
    }
    int write(const char* buf, size_t len, int timeout_ms) override {
        return carrier()->write(buf, len, timeout_ms);
    }
    void close() override {
        m_closes += ::fcntl(get_fd(), F_GETFD) != -1 ? "farewell on the open socket" : "too late";
        ChannelOps::close();
    }
    int kind() const override { return Channel::CHANNEL_SSL_MODE; }

  private:
    std::string& m_closes;
};

TEST(ChannelModes, ANewModeTakesOverInPlaceAndClosesDownToTheSocket) {
    std::string closes;
    Channel closed;
    EXPECT_EQ(closed.SwitchChannelOp(std::make_unique<MarkingMode>(closes)), ERR_INVAL);
    Wired w;
    const platform::socket_t socket = w.ch.GetSocket();
    ASSERT_EQ(w.ch.SwitchChannelOp(std::make_unique<MarkingMode>(closes)), 0);
    EXPECT_TRUE(w.ch.IsSSL());
    EXPECT_EQ(w.ch.GetSocket(), socket);
    // Once encrypted, always: a refused mode is dropped without touching the socket.
    EXPECT_EQ(w.ch.SwitchChannelOp(std::make_unique<MarkingMode>(closes)), ERR_INVAL);
    loopback::write_all(w.peer, "zz");
    char got[2] = {};
    ASSERT_EQ(w.ch.Read(got, 2), 0);
    EXPECT_EQ(std::string(got, 2), "TT");
    ASSERT_EQ(w.ch.Write("up", 2), 0);
    ASSERT_EQ(w.ch.FlushWrite(0), 2);
    EXPECT_EQ(loopback::read_some(w.peer, 2), "up");
    w.ch.Close();
    EXPECT_EQ(closes, "farewell on the open socket");
    EXPECT_TRUE(loopback::closed_without_bytes(w.peer));
    EXPECT_TRUE(w.ch.IsClosed());
    EXPECT_FALSE(w.ch.IsSSL());
}

}  // namespace
