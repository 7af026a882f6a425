// The file layer under the delta engine: ring buffers and the buffered file view at sizes
// that force every wrap, and the failures of the plain file operations. The asynchronous
// writes are exercised by every copy the file reader makes.
#include <gtest/gtest.h>

#include <string>

#include "delta-test-support.h"
#include "delta/xio.h"
#include "support/temp-dir.h"

using namespace deltatest;

namespace {

std::string takeOut(buffer_t& b, size_t n) {
    std::string s(n, '\0');
    s.resize(buffer_copy_out(b, s.data(), n));
    return s;
}

}  // namespace

TEST(XioRing, KeepsByteOrderAcrossTheWrapAndThroughFiles) {
    TempDir dir;
    buffer_t ring(8);
    EXPECT_EQ(buffer_copy_in(ring, "abcdef", 6), 6u);
    EXPECT_EQ(takeOut(ring, 4), "abcd");
    // Six more bytes fit only partly: two behind the data, two wrapped to the front.
    EXPECT_EQ(buffer_copy_in(ring, "ghijkl", 6), 6u);
    EXPECT_TRUE(buffer_is_full(ring));
    EXPECT_EQ(buffer_copy_in(ring, "x", 1), 0u);
    EXPECT_EQ(takeOut(ring, 100), "efghijkl");
    EXPECT_EQ(buffer_size(ring), 0u);

    writeFile(dir / "in", "0123456789");
    fd_t in;
    ASSERT_EQ(fd_open_read((dir / "in").c_str(), in), 0);
    buffer_copy_in(ring, "ab", 2);
    takeOut(ring, 1);  // data "b" at head 1: moved to the start before the read
    EXPECT_EQ(buffer_read_fd(ring, in), 7);
    EXPECT_EQ(buffer_read_fd(ring, in), 0);  // full
    EXPECT_EQ(takeOut(ring, 5), "b0123");
    buffer_copy_in(ring, "XYZ", 3);  // wraps: "456" ends the storage, "XYZ" starts it
    fd_t out;
    ASSERT_EQ(fd_open_write((dir / "out").c_str(), out), 0);
    EXPECT_EQ(buffer_write_fd(ring, out), 0);
    EXPECT_EQ(buffer_size(ring), 0u);
    fd_close(out);
    fd_close(in);
    EXPECT_EQ(readFile(dir / "out"), "456XYZ");
}

TEST(XioBufferedFile, ReadsAndWritesLargerThanTheRingKeepByteOrder) {
    TempDir dir;
    std::string content = randomBytes(5000, 1);
    writeFile(dir / "in", content);
    fd_t fd;
    ASSERT_EQ(fd_open_read((dir / "in").c_str(), fd), 0);
    fd_bio_t bio;
    fd_bio_load(bio, fd, 1024);
    std::string got(3000, '\0');
    ASSERT_EQ(fd_bio_read(bio, got.data(), 10), 0);
    // More than the ring holds: the ring's bytes, then straight from the file.
    ASSERT_EQ(fd_bio_read(bio, got.data() + 10, 2990), 0);
    EXPECT_EQ(got, content.substr(0, 3000));
    // The file ends inside the request.
    EXPECT_EQ(fd_bio_read(bio, got.data(), 2001), -1);
    fd_bio_unload(bio);
    EXPECT_TRUE(fd_is_open(fd));
    fd_close(fd);

    ASSERT_EQ(fd_open_write((dir / "out").c_str(), fd), 0);
    fd_bio_load(bio, fd, 16);
    EXPECT_EQ(fd_bio_write(bio, "head", 4), 0);
    EXPECT_EQ(fd_bio_write(bio, content.data(), 40), 0);
    EXPECT_EQ(fd_bio_write(bio, "tail", 4), 0);
    EXPECT_EQ(fd_bio_flush(bio), 0);
    fd_bio_unload(bio);
    fd_close(fd);
    EXPECT_TRUE(readFile(dir / "out") == "head" + content.substr(0, 40) + "tail");
}

TEST(XioFile, FailuresReturnMinusOne) {
    TempDir dir;
    fd_t fd;
    EXPECT_EQ(fd_open_read((dir / "missing").c_str(), fd), -1);
    EXPECT_FALSE(fd_is_open(fd));
    EXPECT_EQ(fd_open_write((dir / "no/such/dir/file").c_str(), fd), -1);
    EXPECT_EQ(fd_sync(fd), -1);
    fd_aio_t aio;
    EXPECT_EQ(fd_aio_wait(aio), -1);  // nothing was started
    EXPECT_EQ(fd_aio_write(aio, fd, "x", 1), -1);
    writeFile(dir / "f", "0123456789");
    ASSERT_EQ(fd_open_read((dir / "f").c_str(), fd), 0);
    EXPECT_EQ(fd_seek(fd, ~uint64_t{0}), -1);
    fd_close(fd);
}
