// stream.cpp: encoding and decoding of PObject values, binaries streamed through files.
#include "foundation/stream.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>

#include "foundation/error-code.h"
#include "foundation/log.h"
#include "foundation/tmp-name-gen.h"
#include "platform/fs.h"

namespace {

const ustring& component() {
    static const ustring name("stream");
    return name;
}

// Progress lines every 100 MiB of a binary.
constexpr uint64_t kProgressStep = 104857600;

int channel_failure(int code) {
    Logger::LogMsg(Logger::L_WARNING, component(), "[WARNING] stream(%d): Channel: %d\n", __LINE__,
                   code);
    return ERR_IO;
}

// A fresh name in `dir` for a received binary that names no file. Without a receive
// directory there is none: an unexpected binary must not land at the root.
ustring new_receive_name(const ustring& dir) {
    if (dir.empty()) return ustring();
    return TmpNameGen::getTmpName(dir);
}

std::unique_ptr<char[]> chunk_buffer() {
    std::unique_ptr<char[]> buf(new (std::nothrow) char[PStream::kChunk]);
    if (!buf)
        Logger::LogMsg(Logger::L_ERR, component(), "[ERROR] stream(%d): malloc error\n", __LINE__);
    return buf;
}

// Makes an existing file hold exactly its first `offset` bytes, so that appending resumes
// a transfer. Whatever stands beyond goes: the caller may count fewer bytes than a failed
// write left. 0, or -1 after logging why.
int cut_back(const ustring& path, uint64_t offset) {
    std::unique_ptr<platform::File> file;
    int err = 0;
    if (platform::file_system().open(path.c_str_utf8(), platform::kOpenWrite, file, &err) != 0) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] stream(%d): CreateFile: Error code %d\n", __LINE__, err);
        return -1;
    }
    uint64_t size = 0;
    if (file->size(size, &err) != 0) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] stream(%d): SetFilePointerEx: Error code %d\n", __LINE__, err);
        return -1;
    }
    if (size < offset) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] stream(%d): '%s' holds %llu bytes, fewer than the offset %llu\n",
                       __LINE__, path.c_str_utf8(), static_cast<unsigned long long>(size),
                       static_cast<unsigned long long>(offset));
        return -1;
    }
    if (size > offset && file->truncate(offset, &err) != 0) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] stream(%d): SetEndOfFile: Error code %d\n", __LINE__, err);
        return -1;
    }
    return 0;
}

int file_error_code(int err) {
    return platform::is_no_space(err) ? ERR_INVAL : -1;
}

uint8_t integer_width(uint64_t v) {
    if (v < (1ULL << 8)) return 1;
    if (v < (1ULL << 16)) return 2;
    if (v < (1ULL << 32)) return 4;
    return 8;
}

// The open flags of a stream mode letter.
int stream_open_flags(char mode) {
    int flags = platform::kOpenSequential;
    switch (mode) {
        case 'a':
            return flags | platform::kOpenWrite | platform::kOpenCreate | platform::kOpenAppend;
        case 'r':
            return flags | platform::kOpenRead;
        case 'w':
            return flags | platform::kOpenWrite | platform::kOpenCreate | platform::kOpenTruncate;
        default:
            return flags | platform::kOpenRead | platform::kOpenWrite | platform::kOpenCreate |
                   platform::kOpenTruncate;
    }
}

}  // namespace

std::unique_ptr<platform::File> xfopen(const ustring& path, const char* mode) {
    std::unique_ptr<platform::File> file;
    int err = 0;
    if (platform::file_system().open(path.c_str_utf8(), stream_open_flags(mode[0]), file, &err) !=
        0) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] stream(%d): CreateFile(\"%s\"): Error code %d\n", __LINE__,
                       path.c_str_utf8(), err);
        return nullptr;
    }
    return file;
}

int PStream::Send(Channel& ch, const PObject& obj) {
    int rc = SendObject(ch, obj);
    if (rc == 0) {
        int flushed = ch.FlushWrite(0);
        if (flushed < 0) rc = channel_failure(flushed);
    }
    if (rc < 0) DumpHistory();
    ClearHistory();
    return rc;
}

int PStream::Recv(Channel& ch, PObject& obj) {
    int rc = RecvObject(ch, obj);
    if (rc < 0) DumpHistory();
    ClearHistory();
    return rc;
}

int PStream::SendObject(Channel& ch, const PObject& obj) {
    switch (obj.type()) {
        case PObject::TYPE_NULL:
            return SendNull(ch);
        case PObject::TYPE_INTEGER:
            return Send(ch, obj.asUInt64());
        case PObject::TYPE_STRING:
            return Send(ch, obj.asString());
        case PObject::TYPE_ARRAY:
            return Send(ch, obj.asArray());
        case PObject::TYPE_MAP:
            return Send(ch, obj.asMap());
        case PObject::TYPE_BINARY:
            return Send(ch, obj.asBinary());
        default:
            return -1;
    }
}

int PStream::SendNull(Channel& ch) {
    UpdateStatus(0, 0);
    const char body[2] = {static_cast<char>(ptag::kNull), 0};
    int rc = ch.Write(body, sizeof body);
    return rc < 0 ? channel_failure(rc) : 0;
}

int PStream::Send(Channel& ch, uint64_t value) {
    UpdateStatus(0, 0);
    Logger::LogMsg(Logger::L_DEBUG, component(), "%s%llu\n", Indent(),
                   static_cast<unsigned long long>(value));
    uint8_t width = integer_width(value);
    char body[10];
    body[0] = static_cast<char>(ptag::kInteger);
    body[1] = static_cast<char>(width);
    for (int i = width - 1; i >= 0; --i, value >>= 8) body[2 + i] = static_cast<char>(value & 0xFF);
    int rc = ch.Write(body, 2 + width);
    return rc < 0 ? channel_failure(rc) : 0;
}

int PStream::Send(Channel& ch, const ustring& text) {
    UpdateStatus(0, 0);
    Logger::LogMsg(Logger::L_DEBUG, component(), "%s\"%s\"\n", Indent(), text.c_str_utf8());
    int rc = ch.WriteByte(ptag::kString);
    if (rc == 0) rc = ch.WriteInt16(static_cast<uint16_t>(text.size()));
    for (size_t done = 0; rc == 0 && done < text.size(); done += Channel::kCapacity)
        rc = ch.Write(text.c_str_utf8() + done, std::min(Channel::kCapacity, text.size() - done));
    return rc < 0 ? channel_failure(rc) : 0;
}

int PStream::Send(Channel& ch, const PObject::array_type& array) {
    Logger::LogMsg(Logger::L_DEBUG, component(), "%s[\n", Indent());
    int rc = ch.WriteByte(ptag::kArray);
    if (rc < 0) return channel_failure(rc);
    ++indent;
    for (const PObject& element : array) {
        rc = SendObject(ch, element);
        if (rc < 0) return rc;
    }
    --indent;
    rc = ch.WriteByte(ptag::kEnd);
    if (rc < 0) return channel_failure(rc);
    Logger::LogMsg(Logger::L_DEBUG, component(), "%s]\n", Indent());
    return 0;
}

int PStream::Send(Channel& ch, const PObject::map_type& map) {
    Logger::LogMsg(Logger::L_DEBUG, component(), "%s{\n", Indent());
    int rc = ch.WriteByte(ptag::kMap);
    if (rc < 0) return channel_failure(rc);
    ++indent;
    for (const auto& [key, value] : map) {
        // A writer may put "_" before a key to sort it first; the peer never sees it.
        ustring wire_key = !key.empty() && key[0] == '_' ? key.substr(1) : key;
        rc = Send(ch, wire_key);
        if (rc < 0) return rc;
        PushKey(wire_key);
        rc = SendObject(ch, value);
        if (rc < 0) return rc;
        PopKey();
    }
    --indent;
    rc = ch.WriteByte(ptag::kEnd);
    if (rc < 0) return channel_failure(rc);
    Logger::LogMsg(Logger::L_DEBUG, component(), "%s}\n", Indent());
    return 0;
}

int PStream::Send(Channel& ch, const PObject::binary_type& binary) {
    Logger::LogMsg(Logger::L_DEBUG, component(), "%sbinary, %llu bytes\n", Indent(),
                   static_cast<unsigned long long>(binary.length));
    int rc = ch.WriteByte(ptag::kBinary);
    if (rc == 0) rc = ch.WriteInt64(binary.length);
    if (rc < 0) return channel_failure(rc);
    std::unique_ptr<char[]> buf = chunk_buffer();
    if (!buf) return -1;
    std::unique_ptr<platform::File> file = xfopen(binary.path, "rb");
    if (!file) {
        Logger::LogMsg(Logger::L_ERR, component(), "[ERROR] stream(%d): fopen error\n", __LINE__);
        return -1;
    }
    if (binary.offset > static_cast<uint64_t>(INT64_MAX) ||
        file->seek(static_cast<int64_t>(binary.offset), nullptr) < 0) {
        Logger::LogMsg(Logger::L_ERR, component(), "[ERROR] stream(%d): fseek error\n", __LINE__);
        return -1;
    }
    UpdateStatus(0, binary.length);
    uint64_t sent = 0;
    while (sent < binary.length) {
        size_t want = static_cast<size_t>(std::min<uint64_t>(kChunk, binary.length - sent));
        int64_t got = platform::read_full(*file, buf.get(), want, nullptr);
        if (got < 0) {
            Logger::LogMsg(Logger::L_ERR, component(), "[ERROR] stream(%d): fread error\n",
                           __LINE__);
            return -1;
        }
        if (got == 0) break;
        size_t n = static_cast<size_t>(got);
        rc = ch.Write(buf.get(), n);
        if (rc < 0) return channel_failure(rc);
        sent += n;
        UpdateStatus(sent, binary.length);
        if (sent % kProgressStep == 0)
            Logger::LogMsg(Logger::L_INFO, component(),
                           "[INFO] stream(%d): sending %s ... (%llu / %llu)\n", __LINE__,
                           binary.path.c_str_utf8(), static_cast<unsigned long long>(sent),
                           static_cast<unsigned long long>(binary.length));
    }
    if (sent != binary.length) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] stream(%d): file length is incorrect.\n", __LINE__);
        return ERR_PROTO;
    }
    return 0;
}

int PStream::RecvObject(Channel& ch, PObject& obj) {
    return RecvObjectAt(ch, obj, 0);
}

int PStream::RecvDispatch(Channel& ch, uint8_t tag, PObject& obj) {
    return RecvDispatchAt(ch, tag, obj, 0);
}

int PStream::RecvTag(Channel& ch, uint8_t& tag) {
    int rc = ch.ReadByte(tag);
    return rc < 0 ? channel_failure(rc) : 0;
}

int PStream::RecvObjectAt(Channel& ch, PObject& obj, int depth) {
    uint8_t tag = 0;
    int rc = RecvTag(ch, tag);
    if (rc < 0) return rc;
    return RecvDispatchAt(ch, tag, obj, depth);
}

int PStream::RecvDispatchAt(Channel& ch, uint8_t tag, PObject& obj, int depth) {
    if ((tag == ptag::kArray || tag == ptag::kMap) && depth >= kMaxDepth) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] stream(%d): PStream: nesting deeper than %d levels\n", __LINE__,
                       kMaxDepth);
        return ERR_PROTO;
    }
    switch (tag) {
        case ptag::kNull: {
            obj.clear();
            UpdateStatus(0, 0);
            uint8_t zero = 0;
            int rc = ch.ReadByte(zero);
            if (rc < 0) return channel_failure(rc);
            if (zero == 0) return 0;
            Logger::LogMsg(Logger::L_ERR, component(),
                           "[ERROR] stream(%d): expect length 0, but we've got %u\n", __LINE__,
                           static_cast<unsigned>(zero));
            return ERR_PROTO;
        }
        case ptag::kInteger: {
            uint64_t value = 0;
            int rc = Recv(ch, value);
            if (rc == 0) obj = value;
            return rc;
        }
        case ptag::kString: {
            ustring text;
            int rc = Recv(ch, text);
            if (rc == 0) obj = text;
            return rc;
        }
        case ptag::kBinary:
            return Recv(ch, obj.asBinary());
        case ptag::kArray:
            return RecvArray(ch, obj.asArray(), depth);
        case ptag::kMap:
            return RecvMap(ch, obj.asMap(), depth);
        default:
            Logger::LogMsg(Logger::L_ERR, component(),
                           "[ERROR] stream(%d): PStream: unknown tag %u\n", __LINE__,
                           static_cast<unsigned>(tag));
            return ERR_PROTO;
    }
}

int PStream::Recv(Channel& ch, uint64_t& value) {
    UpdateStatus(0, 0);
    uint8_t width = 0;
    int rc = ch.ReadByte(width);
    if (rc < 0) return channel_failure(rc);
    if (width > 8) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] stream(%d): PStream: integer of %u bytes\n", __LINE__,
                       static_cast<unsigned>(width));
        return ERR_PROTO;
    }
    uint8_t bytes[8];
    rc = ch.Read(reinterpret_cast<char*>(bytes), width);
    if (rc < 0) return channel_failure(rc);
    value = 0;
    for (uint8_t i = 0; i < width; ++i) value = (value << 8) | bytes[i];
    Logger::LogMsg(Logger::L_DEBUG, component(), "%s%llu\n", Indent(),
                   static_cast<unsigned long long>(value));
    return 0;
}

int PStream::Recv(Channel& ch, ustring& text) {
    UpdateStatus(0, 0);
    uint16_t len = 0;
    int rc = ch.ReadInt16(len);
    if (rc < 0) return channel_failure(rc);
    std::vector<char> buf(static_cast<size_t>(len) + 1, '\0');
    rc = ch.Read(buf.data(), len);
    if (rc < 0) return channel_failure(rc);
    // Taken as a terminated text: an embedded zero byte cuts it there.
    text.assign(buf.data());
    Logger::LogMsg(Logger::L_DEBUG, component(), "%s\"%s\"\n", Indent(), text.c_str_utf8());
    return 0;
}

int PStream::Recv(Channel& ch, PObject::array_type& array) {
    return RecvArray(ch, array, 0);
}

int PStream::Recv(Channel& ch, PObject::map_type& map) {
    return RecvMap(ch, map, 0);
}

int PStream::RecvArray(Channel& ch, PObject::array_type& array, int depth) {
    Logger::LogMsg(Logger::L_DEBUG, component(), "%s[\n", Indent());
    ++indent;
    for (;;) {
        uint8_t tag = 0;
        int rc = RecvTag(ch, tag);
        if (rc < 0) return rc;
        if (tag == ptag::kEnd) break;
        array.emplace_back();
        rc = RecvDispatchAt(ch, tag, array.back(), depth + 1);
        if (rc < 0) return rc;
    }
    --indent;
    Logger::LogMsg(Logger::L_DEBUG, component(), "%s]\n", Indent());
    return 0;
}

int PStream::RecvMap(Channel& ch, PObject::map_type& map, int depth) {
    Logger::LogMsg(Logger::L_DEBUG, component(), "%s{\n", Indent());
    ++indent;
    for (;;) {
        uint8_t tag = 0;
        int rc = RecvTag(ch, tag);
        if (rc < 0) return rc;
        if (tag == ptag::kEnd) break;
        if (tag != ptag::kString) {
            Logger::LogMsg(Logger::L_ERR, component(),
                           "[ERROR] stream(%d): PStream: expect string, but get tag %u\n", __LINE__,
                           static_cast<unsigned>(tag));
            return ERR_PROTO;
        }
        ustring key;
        rc = Recv(ch, key);
        if (rc < 0) return rc;
        PushKey(key);
        // A repeated key lands on the same member.
        rc = RecvObjectAt(ch, map[key], depth + 1);
        if (rc < 0) return rc;
        PopKey();
    }
    --indent;
    Logger::LogMsg(Logger::L_DEBUG, component(), "%s}\n", Indent());
    return 0;
}

int PStream::Recv(Channel& ch, PObject::binary_type& binary) {
    uint64_t incoming = 0;
    int rc = ch.ReadInt64(incoming);
    if (rc < 0) return channel_failure(rc);
    if (!binary.path.empty()) {
        Logger::LogMsg(Logger::L_DEBUG, component(),
                       "[DEBUG] stream(%d): store binary to %s, offset %llu\n", __LINE__,
                       binary.path.c_str_utf8(), static_cast<unsigned long long>(binary.offset));
    } else {
        binary.path = new_receive_name(recv_path);
        binary.offset = 0;
        binary.length = 0;
        if (binary.path.empty()) return -1;
    }
    uint64_t received = 0;
    rc = ReceiveFileBody(ch, binary, incoming, received);
    // What stands on disk, so the caller can resume from there whatever happened.
    binary.offset += received;
    binary.length = binary.offset;
    return rc;
}

// Writes the incoming body into the file. 0 or a code; `received` counts the bytes that
// reached the file either way.
int PStream::ReceiveFileBody(Channel& ch, const PObject::binary_type& binary, uint64_t incoming,
                             uint64_t& received) {
    UpdateStatus(0, 0);
    std::unique_ptr<char[]> buf = chunk_buffer();
    if (!buf) return -1;
    // A resumed transfer never keeps bytes beyond the agreed offset, even when the caller
    // says the file ends there (offset equal to length): after a failed write it may not.
    if (binary.offset != 0 && cut_back(binary.path, binary.offset) != 0) return -1;
    std::unique_ptr<platform::File> file = xfopen(binary.path, binary.offset == 0 ? "wb" : "ab");
    if (!file) return -1;
    UpdateStatus(0, incoming);
    while (received < incoming) {
        size_t want = static_cast<size_t>(std::min<uint64_t>(kChunk, incoming - received));
        size_t got = 0;
        int rc = ch.Read(buf.get(), want, got);
        // Bytes that did arrive are good file content: keep them for a resume. A failed
        // write counts nothing; a resume cuts back whatever part of it landed.
        int err = 0;
        size_t written = got == 0 || file->write(buf.get(), got, &err) >= 0 ? got : 0;
        received += written;
        UpdateStatus(received, incoming);
        if (rc < 0) {
            Logger::LogMsg(Logger::L_WARNING, component(), "[WARNING] stream(%d): Channel: %d\n",
                           __LINE__, rc);
            return ERR_IO;
        }
        if (written != got) {
            Logger::LogMsg(Logger::L_ERR, component(),
                           "[ERROR] stream(%d): fwrite(\"%s\"): Error code %d\n", __LINE__,
                           binary.path.c_str_utf8(), err);
            return file_error_code(err);
        }
        if (received % kProgressStep == 0)
            Logger::LogMsg(Logger::L_INFO, component(),
                           "[INFO] stream(%d): receiving %s ... (%llu / %llu)\n", __LINE__,
                           binary.path.c_str_utf8(), static_cast<unsigned long long>(received),
                           static_cast<unsigned long long>(incoming));
    }
    int err = 0;
    if (file->close(&err) != 0) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] stream(%d): fclose(\"%s\"): Error code %d\n", __LINE__,
                       binary.path.c_str_utf8(), err);
        return file_error_code(err);
    }
    Logger::LogMsg(Logger::L_DEBUG, component(),
                   "%sbinary has been stored at '%s' with length %llu\n", Indent(),
                   binary.path.c_str_utf8(),
                   static_cast<unsigned long long>(binary.offset + received));
    return 0;
}

void PStream::SetDefaultRecvLocation(const ustring& path) {
    recv_path = path;
}

void PStream::GetStatus(ustring& path, uint64_t& sent, uint64_t& total) {
    std::lock_guard<std::mutex> guard(status_lock);
    path.clear();
    for (size_t i = 0; i < history.size(); ++i) {
        if (i > 0) path += ".";
        path += history[i];
    }
    sent = total_sent;
    total = total_size;
}

void PStream::UpdateStatus(uint64_t sent, uint64_t total) {
    std::lock_guard<std::mutex> guard(status_lock);
    total_sent = sent;
    total_size = total;
}

ustring PStream::GetHistory() {
    ustring path;
    uint64_t sent = 0;
    uint64_t total = 0;
    GetStatus(path, sent, total);
    return path;
}

void PStream::ClearHistory() {
    std::lock_guard<std::mutex> guard(status_lock);
    history.clear();
    total_sent = 0;
    total_size = 0;
    indent = 0;
}

void PStream::DumpHistory() {
    Logger::LogMsg(Logger::L_ERR, component(), "[ERROR] stream(%d): Error stack: %s\n", __LINE__,
                   GetHistory().c_str_utf8());
}

int PStream::Skip(Channel&, uint8_t) {
    return ERR_PROTO;
}

void PStream::PushKey(const ustring& key) {
    std::lock_guard<std::mutex> guard(status_lock);
    history.push_back(key);
}

void PStream::PopKey() {
    std::lock_guard<std::mutex> guard(status_lock);
    history.pop_back();
}

const char* PStream::Indent() const {
    static const char kBlanks[] = "                      ";  // 22 blanks: 11 levels
    size_t levels = std::min<size_t>(indent, 11);
    return kBlanks + (sizeof kBlanks - 1) - 2 * levels;
}
