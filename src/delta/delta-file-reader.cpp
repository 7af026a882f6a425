#include "delta/delta-file-reader.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "delta/rs-constant.h"

namespace {

constexpr size_t kBufferSize = 0x100000;

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};

uint64_t endOf(const Block& b) {
    return b.start + b.length;
}

}  // namespace

struct DeltaFileReaderImpl {
    ~DeltaFileReaderImpl() {
        fd_close(patch_fd);
        fd_close(basis_fd);
        fd_close(rpatch_fd);
    }

    xio_string_type patch_file;
    xio_string_type basis_file;
    xio_string_type rpatch_file;
    fd_t patch_fd;
    fd_bio_t patch_bio;
    uint64_t patch_offset = 0;
    fd_t basis_fd;
    fd_t rpatch_fd;
    fd_bio_t rpatch_bio;
    int patch_result = 1;
};

// The new file's bytes, gathered across commands into pieces of a whole buffer however small
// the commands are (the bytes are the same either way), in two buffers: one is filled while
// the handlers still work on the other.
struct DeltaFileReader::Output {
    uint8_t* buffers[2];
    size_t capacity;
    uint8_t* data = buffers[0];
    size_t fill = 0;
    bool pending = false;  // the other buffer is with the handlers
};

DeltaFileReader::DeltaFileReader() : impl(std::make_unique<DeltaFileReaderImpl>()) {}
DeltaFileReader::~DeltaFileReader() = default;

void DeltaFileReader::setFile(const xio_string_type& patch_file,
                              const xio_string_type& basis_file) {
    impl->patch_file = patch_file;
    impl->basis_file = basis_file;
}

void DeltaFileReader::setReverseDeltaFile(const xio_string_type& file) {
    impl->rpatch_file = file;
}

int DeltaFileReader::getPatchResult() const {
    return impl->patch_result;
}

int DeltaFileReader::readFile() {
    DeltaFileReaderImpl& d = *impl;
    if (d.basis_file.empty() || d.patch_file.empty()) {
        std::fprintf(stderr, "api (%d): invalid arguments (basis_file = '%s', patch_file = '%s'\n",
                     __LINE__, d.basis_file.c_str_utf8(), d.patch_file.c_str_utf8());
        d.patch_result = ERROR_ARGUMENT;
        return ERROR_ARGUMENT;
    }
    int result = begin() < 0 ? ERROR_HANDLER_CALL : validateInput(d);
    std::unique_ptr<uint8_t, FreeDeleter> buffers[2];
    if (result == 0) {
        for (auto& b : buffers) b.reset(static_cast<uint8_t*>(std::malloc(kBufferSize)));
        if (!buffers[0] || !buffers[1]) result = ERROR_SYSTEM_CALL;
    }
    if (result == 0) {
        result = runPatch(d, buffers[0].get(), buffers[1].get());
    } else {
        d.patch_result = result;
    }
    end();
    if (d.patch_bio.r_buffer) fd_bio_unload(d.patch_bio);
    fd_close(d.patch_fd);
    fd_close(d.basis_fd);
    return result;
}

int DeltaFileReader::runPatch(DeltaFileReaderImpl& d, uint8_t* buffer, uint8_t* spare) {
    std::vector<PatchCommand> commands;
    Output out{{buffer, spare}, kBufferSize};
    PatchCommand cmd;
    int forward = 0;
    bool stopped_between_commands = false;
    for (;;) {
        if (aborted()) {
            forward = ERROR_ABORT;
            stopped_between_commands = true;
            break;
        }
        int read = readPatchCommand(d, cmd);
        if (read != 1) {
            forward = read;
            break;
        }
        forward = doPatchCommand(d, cmd, out);
        if (forward < 0) break;
        if (!d.rpatch_file.empty()) commands.push_back(cmd);
    }
    int flushed = flushOutput(out);
    if (out.pending && wait() < 0) flushed = ERROR_HANDLER_CALL;
    out.pending = false;
    if (forward == 0) forward = flushed;
    d.patch_result = forward;
    if (stopped_between_commands) return ERROR_ABORT;
    // What the patch itself got wrong is only logged, and the pass counts as done; a failed
    // handler means the outputs are incomplete whatever the hash says, so that one is reported.
    if (forward == ERROR_HANDLER_CALL || flushed < 0) return ERROR_HANDLER_CALL;
    if (d.rpatch_file.empty()) return 0;
    return doReversePatch(commands, buffer, kBufferSize);
}

int DeltaFileReader::validateInput(DeltaFileReaderImpl& d) {
    if (fd_open_read(d.patch_file, d.patch_fd) < 0 || fd_open_read(d.basis_file, d.basis_fd) < 0) {
        std::fprintf(stderr, "api (%d): fd_open_read: Error Code %d\n", __LINE__, errno);
        return ERROR_SYSTEM_CALL;
    }
    fd_bio_load(d.patch_bio, d.patch_fd, kBufferSize);
    uint8_t magic[4];
    if (fd_bio_read(d.patch_bio, magic, sizeof magic) < 0) {
        std::fprintf(stderr, "api (%d): fd_bio_read<int>: Error Code %d\n", __LINE__, errno);
        return ERROR_SYSTEM_CALL;
    }
    uint32_t value = RSConstant::getBE32(magic);
    if (value != RSConstant::MAGIC_DELTA) {
        std::fprintf(stderr, "api (%d): invalid patch file (%x)\n", __LINE__, value);
        return ERROR_FILE_FORMAT;
    }
    return 0;
}

int DeltaFileReader::readPatchCommand(DeltaFileReaderImpl& d, PatchCommand& cmd) {
    uint8_t code;
    if (fd_bio_read(d.patch_bio, &code, 1) < 0) {
        std::fprintf(stderr, "api (%d): expect command byte\n", __LINE__);
        return ERROR_SYSTEM_CALL;
    }
    d.patch_offset += 1;
    const RSConstant::CmdInfo& info = RSConstant::getInfo(code);
    uint8_t bytes[8];
    uint64_t param1 = 0;
    uint64_t param2 = 0;
    if (info.len_1 != 0) {
        if (fd_bio_read(d.patch_bio, bytes, info.len_1) < 0) {
            std::fprintf(stderr, "api (%d): expect parameter 1 with %u bytes\n", __LINE__,
                         unsigned{info.len_1});
            return ERROR_SYSTEM_CALL;
        }
        param1 = RSConstant::getBE(bytes, info.len_1);
        d.patch_offset += info.len_1;
    }
    if (info.len_2 != 0) {
        if (fd_bio_read(d.patch_bio, bytes, info.len_2) < 0) {
            std::fprintf(stderr, "api (%d): expect parameter 2 with %u bytes\n", __LINE__,
                         unsigned{info.len_2});
            return ERROR_SYSTEM_CALL;
        }
        param2 = RSConstant::getBE(bytes, info.len_2);
        d.patch_offset += info.len_2;
    }
    switch (info.type) {
        case RSConstant::CMD_LITERAL:
            cmd.setLiteral(d.patch_offset, info.immediate != 0 ? info.immediate : param1);
            return 1;
        case RSConstant::CMD_COPY:
            cmd.setCopy(param1, param2);
            return 1;
        case RSConstant::CMD_END:
            return 0;
        default:
            std::fprintf(stderr, "api (%d): unexpected kind: %u\n", __LINE__, unsigned{code});
            return ERROR_FILE_FORMAT;
    }
}

int DeltaFileReader::doPatchCommand(DeltaFileReaderImpl& d, const PatchCommand& cmd, Output& out) {
    if (cmd.isCopy() && fd_seek(d.basis_fd, cmd.start) < 0) {
        std::fprintf(stderr, "api (%d): fd_seek: Error Code %d\n", __LINE__, errno);
        std::fprintf(stderr, "api (%d): fd_seek: offset = %llu\n", __LINE__,
                     static_cast<unsigned long long>(cmd.start));
        return ERROR_SYSTEM_CALL;
    }
    uint64_t left = cmd.length;
    while (left > 0) {
        if (aborted()) return ERROR_ABORT;
        if (out.fill == out.capacity && flushOutput(out) < 0) return ERROR_HANDLER_CALL;
        size_t n = static_cast<size_t>(std::min<uint64_t>(left, out.capacity - out.fill));
        uint8_t* dst = out.data + out.fill;
        if (cmd.isLiteral()) {
            if (fd_bio_read(d.patch_bio, dst, n) < 0) {
                std::fprintf(stderr, "api (%d): fd_bio_read: Error Code %d\n", __LINE__, errno);
                std::fprintf(stderr, "api (%d): fd_bio_read: offset = %llu, length = %u\n",
                             __LINE__, static_cast<unsigned long long>(d.patch_offset),
                             static_cast<unsigned>(n));
                return ERROR_SYSTEM_CALL;
            }
            d.patch_offset += n;
        } else {
            int64_t got = 0;
            while (static_cast<size_t>(got) < n) {
                int64_t r = fd_read(d.basis_fd, dst + got, n - static_cast<size_t>(got));
                if (r <= 0) break;
                got += r;
            }
            if (got != static_cast<int64_t>(n)) {
                std::fprintf(stderr, "api (%d): fd_read: Error Code %d\n", __LINE__, errno);
                std::fprintf(stderr, "api (%d): fd_read: length = %u, return code = %d\n", __LINE__,
                             static_cast<unsigned>(n), static_cast<int>(got));
                return ERROR_SYSTEM_CALL;
            }
        }
        out.fill += n;
        left -= n;
    }
    return 0;
}

// Hands the filled buffer to the handlers once the other one has come back from them.
int DeltaFileReader::flushOutput(Output& out) {
    if (out.fill == 0) return 0;
    if (out.pending) {
        out.pending = false;
        if (wait() < 0) {
            out.fill = 0;
            return ERROR_HANDLER_CALL;
        }
    }
    int updated = update(out.data, out.fill);
    out.pending = true;
    out.data = out.data == out.buffers[0] ? out.buffers[1] : out.buffers[0];
    out.fill = 0;
    return updated < 0 ? ERROR_HANDLER_CALL : 0;
}

void DeltaFileReader::insertSameBlock(BlockList& blocks, const Block& b) {
    auto inserted = blocks.insert(blocks.lower_bound(b.start), {b.start, b});
    auto i = inserted;
    if (i != blocks.begin()) {
        auto before = std::prev(i);
        if (endOf(before->second) > b.start) i = before;
    }
    auto j = std::next(i);
    while (j != blocks.end() && endOf(i->second) > j->second.start) {
        Block& x = i->second;
        Block& y = j->second;
        if (x.start != y.start && endOf(x) < endOf(y)) {
            uint64_t diff = endOf(x) - y.start;
            if (x.length >= y.length) {
                // The front of j moves, and with it j's key; it stays before its successor.
                auto after = std::next(j);
                auto node = blocks.extract(j);
                node.mapped().start += diff;
                node.mapped().length -= diff;
                node.mapped().new_start += diff;
                node.key() = node.mapped().start;
                j = blocks.insert(after, std::move(node));
            } else {
                x.length -= diff;
            }
            i = j;
            j = std::next(j);
        } else {
            if (x.length < y.length) {
                x.length = y.length;
                x.new_start = y.new_start;
            }
            j = blocks.erase(j);
        }
    }
}

int DeltaFileReader::doReversePatch(const std::vector<PatchCommand>& patch, uint8_t* buffer,
                                    size_t length) {
    DeltaFileReaderImpl& d = *impl;
    int result = writeReverse(patch, buffer, length);
    if (fd_is_open(d.rpatch_fd)) {
        if (d.rpatch_bio.w_buffer) {
            if (fd_bio_flush(d.rpatch_bio) < 0) result = ERROR_SYSTEM_CALL;
            fd_bio_unload(d.rpatch_bio);
        }
        fd_close(d.rpatch_fd);
    }
    return result;
}

int DeltaFileReader::writeReverse(const std::vector<PatchCommand>& patch, uint8_t* buffer,
                                  size_t length) {
    DeltaFileReaderImpl& d = *impl;
    uint64_t basis_size = 0;
    if (fd_stat(d.basis_fd, basis_size) < 0) {
        std::fprintf(stderr, "api (%d): fd_stat: Error Code %d\n", __LINE__, errno);
        return ERROR_SYSTEM_CALL;
    }
    if (fd_open_write(d.rpatch_file, d.rpatch_fd) < 0) {
        std::fprintf(stderr, "api (%d): fd_open_write: Error Code %d\n", __LINE__, errno);
        return ERROR_SYSTEM_CALL;
    }
    fd_bio_load(d.rpatch_bio, d.rpatch_fd, kBufferSize);
    BlockList blocks;
    uint64_t current_size = 0;
    for (const PatchCommand& cmd : patch) {
        if (cmd.isCopy()) insertSameBlock(blocks, Block{cmd.start, cmd.length, current_size});
        current_size += cmd.length;
    }
    if (writeHeader() < 0) return ERROR_SYSTEM_CALL;
    uint64_t last = 0;
    for (const auto& [start, block] : blocks) {
        if (writeLiteralCommand(last, block.start - last, buffer, length) < 0 ||
            writeCopyCommand(block.new_start, block.length) < 0) {
            return ERROR_SYSTEM_CALL;
        }
        last = endOf(block);
    }
    // A basis shorter than what the copies claimed can't be described: the copies were read
    // from it, so this only happens when it shrank under us.
    if (last > basis_size) return ERROR_SYSTEM_CALL;
    if (writeLiteralCommand(last, basis_size - last, buffer, length) < 0 || writeEndCommand() < 0) {
        return ERROR_SYSTEM_CALL;
    }
    return 0;
}

int DeltaFileReader::writeHeader() {
    uint8_t magic[4];
    RSConstant::putBE32(magic, RSConstant::MAGIC_DELTA);
    if (fd_bio_write(impl->rpatch_bio, magic, sizeof magic) < 0) {
        std::fprintf(stderr, "api (%d): fd_bio_write_int<uint32_t>: Error Code %d\n", __LINE__,
                     errno);
        return -1;
    }
    return 0;
}

int DeltaFileReader::writeCopyCommand(uint64_t start, uint64_t length) {
    uint8_t command[RSConstant::MAX_COPY_COMMAND];
    size_t n = RSConstant::encodeCopy(start, length, command);
    if (fd_bio_write(impl->rpatch_bio, command, n) < 0) {
        std::fprintf(stderr, "api (%d): fd_bio_write: Error Code %d\n", __LINE__, errno);
        return -1;
    }
    return 0;
}

int DeltaFileReader::writeLiteralCommand(uint64_t start, uint64_t length, uint8_t* copy_buffer,
                                         size_t copy_buffer_len) {
    if (length == 0) return 0;
    DeltaFileReaderImpl& d = *impl;
    uint8_t command[RSConstant::MAX_LITERAL_COMMAND];
    size_t n = RSConstant::encodeLiteral(length, command);
    if (fd_bio_write(d.rpatch_bio, command, n) < 0) {
        std::fprintf(stderr, "api (%d): fd_bio_write: Error Code %d\n", __LINE__, errno);
        return -1;
    }
    if (fd_seek(d.basis_fd, start) < 0) return -1;
    while (length > 0) {
        if (aborted()) return -1;
        size_t piece = static_cast<size_t>(std::min<uint64_t>(length, copy_buffer_len));
        if (fd_read(d.basis_fd, copy_buffer, piece) != static_cast<int64_t>(piece)) return -1;
        if (fd_bio_write(d.rpatch_bio, copy_buffer, piece) < 0) {
            std::fprintf(stderr, "api (%d): fd_bio_write: Error Code %d\n", __LINE__, errno);
            return -1;
        }
        length -= piece;
    }
    return 0;
}

int DeltaFileReader::writeEndCommand() {
    uint8_t end_command = RSConstant::OP_END;
    if (fd_bio_write(impl->rpatch_bio, &end_command, 1) < 0) {
        std::fprintf(stderr, "api (%d): fd_bio_write: Error Code %d\n", __LINE__, errno);
        return -1;
    }
    return 0;
}
