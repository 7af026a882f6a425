#include "delta/file-reader.h"

#include <atomic>
#include <cstdlib>

#include "delta/copy-handler.h"
#include "delta/delta-handler.h"
#include "delta/md4-hash-handler.h"
#include "delta/signature-handler.h"

namespace {

constexpr size_t kChunkSize = 0x100000;

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};

}  // namespace

FileReader::FileReader() = default;
FileReader::~FileReader() = default;

void FileReader::setCopyHandler(const xio_string_type& file) {
    copy_handler = std::make_unique<CopyHandler>(file);
}

void FileReader::setMD4HashHandler(ustring& hash) {
    md4_hash_handler = std::make_unique<MD4HashHandler>(&hash);
}

void FileReader::setSignatureHandler(const xio_string_type& file, size_t block_size,
                                     size_t hash_size) {
    signature_handler = std::make_unique<SignatureHandler>(file);
    signature_handler->setBlockSize(block_size);
    signature_handler->setHashSize(hash_size);
}

void FileReader::setDeltaHandler(const xio_string_type& delta_file,
                                 const xio_string_type& signature_file, DeltaMode mode) {
    delta_handler = std::make_unique<DeltaHandler>(delta_file, signature_file, mode);
}

bool FileReader::aborted() const {
    return abort_flag != nullptr &&
           std::atomic_ref<int>(*abort_flag).load(std::memory_order_relaxed) != 0;
}

int FileReader::begin() {
    bool failed = false;
    if (copy_handler && copy_handler->begin() < 0) failed = true;
    if (delta_handler && delta_handler->begin() < 0) failed = true;
    if (signature_handler && signature_handler->begin() < 0) failed = true;
    if (md4_hash_handler && md4_hash_handler->begin() < 0) failed = true;
    return failed ? ERROR_HANDLER_CALL : 0;
}

int FileReader::update(const void* buffer, size_t length) {
    bool failed = false;
    if (copy_handler && copy_handler->update(buffer, length) < 0) failed = true;
    if (delta_handler && delta_handler->update(buffer, length) < 0) failed = true;
    if (signature_handler && signature_handler->update(buffer, length) < 0) failed = true;
    if (md4_hash_handler && md4_hash_handler->update(buffer, length) < 0) failed = true;
    return failed ? ERROR_HANDLER_CALL : 0;
}

int FileReader::wait() {
    bool failed = false;
    if (copy_handler && copy_handler->wait() < 0) failed = true;
    if (delta_handler && delta_handler->wait() < 0) failed = true;
    if (signature_handler && signature_handler->wait() < 0) failed = true;
    return failed ? ERROR_HANDLER_CALL : 0;
}

int FileReader::end() {
    bool failed = false;
    if (copy_handler && copy_handler->end() < 0) failed = true;
    if (delta_handler && delta_handler->end() < 0) failed = true;
    if (signature_handler && signature_handler->end() < 0) failed = true;
    if (md4_hash_handler && md4_hash_handler->end() < 0) failed = true;
    return failed ? ERROR_HANDLER_CALL : 0;
}

// Two chunk buffers: the next chunk is read while the handlers still work on the previous
// one (its write, its signature slices), and each handler still sees update then wait.
int SimpleFileReader::readFile() {
    if (file.empty()) return ERROR_ARGUMENT;
    int result = 0;
    fd_t input;
    std::unique_ptr<uint8_t, FreeDeleter> buffers[2];
    if (begin() < 0) {
        result = ERROR_HANDLER_CALL;
    } else if (fd_open_read(file, input) < 0) {
        result = ERROR_SYSTEM_CALL;
    } else {
        for (auto& b : buffers) b.reset(static_cast<uint8_t*>(std::malloc(kChunkSize)));
        result = buffers[0] && buffers[1] ? pump(input, buffers[0].get(), buffers[1].get())
                                          : ERROR_SYSTEM_CALL;
    }
    end();
    fd_close(input);
    return result;
}

int SimpleFileReader::pump(fd_t& input, uint8_t* first, uint8_t* second) {
    uint8_t* current = first;
    bool pending = false;
    int result = 0;
    for (;;) {
        if (aborted()) {
            result = ERROR_ABORT;
            break;
        }
        int64_t n = fd_read(input, current, kChunkSize);
        if (n < 0) {
            result = ERROR_SYSTEM_CALL;
            break;
        }
        if (pending) {
            pending = false;
            if (wait() < 0) {
                result = ERROR_HANDLER_CALL;
                break;
            }
        }
        if (n == 0) break;
        int updated = update(current, static_cast<size_t>(n));
        pending = true;
        current = current == first ? second : first;
        if (updated < 0) {
            result = ERROR_HANDLER_CALL;
            break;
        }
    }
    // A chunk the handlers still hold is finished whatever stopped the loop.
    if (pending && wait() < 0 && result == 0) result = ERROR_HANDLER_CALL;
    return result;
}
