// The file layer under the delta engine: buffered reads over a ring small enough to force
// every wrap, which no delta reaches with the engine's 1 MiB ring. Buffered writes (the
// reverse deltas rdiff reads back), plain file operations and asynchronous writes are
// exercised by every copy, signature and patch the readers make, their failures included.
#include <gtest/gtest.h>

#include <string>

#include "delta-test-support.h"
#include "delta/xio.h"
#include "support/temp-dir.h"

using namespace deltatest;

TEST(XioBufferedFile, ReadsLargerThanTheRingKeepByteOrder) {
    TempDir dir;
    std::string content = RandomBytes(5000, 1);
    WriteFile(dir / "in", content);
    fd_t fd;
    ASSERT_EQ(fd_open_read((dir / "in").c_str(), fd), 0);
    fd_bio_t bio;
    fd_bio_load(bio, fd, 1024);
    // Pieces within the ring, larger than the ring, and across its refills; then a read
    // the file ends inside of.
    std::string got;
    for (size_t n : {10, 2990, 7, 1023, 900, 69}) {
        std::string piece(n, '\0');
        ASSERT_EQ(fd_bio_read(bio, piece.data(), n), 0) << "piece of " << n;
        got += piece;
    }
    EXPECT_TRUE(got == content.substr(0, 4999));
    EXPECT_EQ(fd_bio_read(bio, got.data(), 2), -1);
    fd_bio_unload(bio);
    EXPECT_TRUE(fd_is_open(fd));
    fd_close(fd);
}
