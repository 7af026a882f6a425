// upload-body.cpp: receiving and hashing an upload's bytes in one pass.
#include "upload-body.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "content-store.h"
#include "delta/background-lane.h"
#include "delta/md4-hash-handler.h"
#include "foundation/error-code.h"
#include "foundation/log.h"

namespace {

const char* const kLog = "server_debug";
// How much of a large body is received before its writing to disk is started.
constexpr uint64_t kWriteBehind = 8 << 20;
// A large body moves in pieces of this size: one is written and hashed on a helper thread
// while the next arrives, and a piece is large enough that the hand-off costs little.
constexpr size_t kPiece = 1 << 20;

int FileFailure(const char* what, const std::string& path) {
    Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] upload-body(%d): %s %s: %s\n", __LINE__, what,
                   path.c_str(), std::strerror(errno));
    return errno == ENOSPC ? ERR_LOCAL_DISKFULL : ERR_SYS;
}

// Hashes the first `length` bytes already in the file.
int HashPrefix(const std::string& path, uint64_t length, MD4HashHandler& md4) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return FileFailure("open", path);
    std::vector<char> buf(Channel::kCapacity);
    uint64_t done = 0;
    while (done < length) {
        ssize_t got = ::read(fd, buf.data(), std::min<uint64_t>(buf.size(), length - done));
        if (got <= 0) break;
        md4.update(buf.data(), static_cast<size_t>(got));
        done += static_cast<uint64_t>(got);
    }
    ::close(fd);
    return done == length ? 0 : FileFailure("read", path);
}

bool WriteAll(int fd, const char* data, size_t length) {
    while (length > 0) {
        ssize_t put = ::write(fd, data, length);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        data += put;
        length -= static_cast<size_t>(put);
    }
    return true;
}

// Receives into memory.
int ReceiveBytes(Channel& ch, uint64_t incoming, MD4HashHandler& md4, UploadBody& out) {
    out.bytes.resize(static_cast<size_t>(incoming));
    int rc = incoming == 0 ? 0 : ch.Read(out.bytes.data(), out.bytes.size());
    if (rc < 0) return ERR_IO;
    md4.update(out.bytes.data(), out.bytes.size());
    return 0;
}

// Receives into the open file from `offset`; on failure, what arrived is in the file. A
// piece is written and hashed while the next one comes off the socket, pieces in order.
int ReceiveToFile(Channel& ch, int fd, const std::string& path, uint64_t offset, uint64_t incoming,
                  MD4HashHandler& md4) {
    const size_t size = static_cast<size_t>(std::min<uint64_t>(kPiece, incoming));
    std::vector<char> pieces[2] = {std::vector<char>(size), std::vector<char>(size)};
    size_t length = 0;
    const char* piece = nullptr;
    uint64_t written = 0, started = 0;
    int write_error = 0;  // the helper's errno, which is its thread's own
    const BackgroundLane::SliceFn store = [&](size_t) {
        if (!WriteAll(fd, piece, length)) {
            write_error = errno != 0 ? errno : EIO;
            return;
        }
        md4.update(piece, length);
        written += length;
        // Starts the disk on what came so far, so that the flush before the commit finds
        // little left to write.
        if (written - started >= kWriteBehind) {
            ::sync_file_range(fd, static_cast<off_t>(offset + started),
                              static_cast<off_t>(written - started), SYNC_FILE_RANGE_WRITE);
            started = written;
        }
    };
    // A thread pays off only over a few pieces.
    const bool background = incoming > 4 * kPiece;
    BackgroundLane lane;
    bool storing = false;
    uint64_t received = 0;
    int rc = 0;
    for (int i = 0; received < incoming && rc == 0; i ^= 1) {
        size_t got = 0;
        rc = ch.Read(pieces[i].data(), std::min<uint64_t>(size, incoming - received), got);
        received += got;
        if (storing) lane.wait();
        if (write_error != 0) break;
        piece = pieces[i].data();
        length = got;
        lane.start(1, store, background);
        storing = true;
    }
    if (storing) lane.wait();
    if (write_error != 0) {
        errno = write_error;
        return FileFailure("write", path);
    }
    return rc < 0 ? ERR_IO : 0;
}

}  // namespace

void UploadBody::Discard() {
    if (temporary && !file.empty()) ::unlink(file.c_str());
    *this = UploadBody();
}

int ReceiveUploadBody(Channel& ch, const std::string& spool, uint64_t offset,
                      const std::string& temp_path, UploadBody& out) {
    uint64_t incoming = 0;
    if (ch.ReadInt64(incoming) < 0) return ERR_IO;
    out = UploadBody();
    out.present = true;
    MD4HashHandler md4;
    md4.begin();
    int rc = 0;
    if (spool.empty() && incoming <= ContentStore::kInlineLimit) {
        rc = ReceiveBytes(ch, incoming, md4, out);
    } else {
        out.file = spool.empty() ? temp_path : spool;
        out.temporary = spool.empty();
        int fd = ::open(out.file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) return FileFailure("open", out.file);
        // A resumed spool never keeps bytes beyond the offset the client was told.
        if (::ftruncate(fd, static_cast<off_t>(offset)) != 0 ||
            ::lseek(fd, static_cast<off_t>(offset), SEEK_SET) < 0)
            rc = FileFailure("cut back", out.file);
        if (rc == 0 && offset > 0) rc = HashPrefix(out.file, offset, md4);
        if (rc == 0) rc = ReceiveToFile(ch, fd, out.file, offset, incoming, md4);
        if (::close(fd) != 0 && rc == 0) rc = FileFailure("close", out.file);
        if (rc < 0) out.Discard();
    }
    if (rc < 0) return rc;
    md4.end();
    out.md4 = md4.getResult().str();
    out.size = offset + incoming;
    return 0;
}
