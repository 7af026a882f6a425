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
                                 const xio_string_type& signature_file) {
    delta_handler = std::make_unique<DeltaHandler>(delta_file, signature_file);
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

int SimpleFileReader::readFile() {
    if (file.empty()) return ERROR_ARGUMENT;
    int result = 0;
    fd_t input;
    std::unique_ptr<uint8_t, FreeDeleter> buffer;
    if (begin() < 0) {
        result = ERROR_HANDLER_CALL;
    } else if (fd_open_read(file, input) < 0) {
        result = ERROR_SYSTEM_CALL;
    } else if (buffer.reset(static_cast<uint8_t*>(std::malloc(kChunkSize))); !buffer) {
        result = ERROR_SYSTEM_CALL;
    } else {
        for (;;) {
            if (aborted()) {
                result = ERROR_ABORT;
                break;
            }
            int64_t n = fd_read(input, buffer.get(), kChunkSize);
            if (n < 0) {
                result = ERROR_SYSTEM_CALL;
                break;
            }
            if (n == 0) break;
            // wait() runs even after a failed update: handlers may still hold the buffer.
            int updated = update(buffer.get(), static_cast<size_t>(n));
            int waited = wait();
            if (updated < 0 || waited < 0) {
                result = ERROR_HANDLER_CALL;
                break;
            }
        }
    }
    end();
    fd_close(input);
    return result;
}
