// proto-common.cpp: header, sections, strings, records, service requests, file blocks.
#include "transport/proto-common.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstring>
#include <memory>
#include <new>

#include "foundation/error-code.h"
#include "foundation/log.h"
#include "foundation/utility.h"
#include "platform/fs.h"

namespace {

const ustring& component() {
    static const ustring name("proto_debug");
    return name;
}

std::atomic<uint8_t> g_proto_version{PROTO_DEFAULT_VERSION};

// ---- integers by width ----

int write_int(Channel& ch, uint8_t v) {
    return ch.WriteByte(v);
}
int write_int(Channel& ch, uint16_t v) {
    return ch.WriteInt16(v);
}
int write_int(Channel& ch, uint32_t v) {
    return ch.WriteInt32(v);
}
int write_int(Channel& ch, uint64_t v) {
    return ch.WriteInt64(v);
}
int read_int(Channel& ch, uint8_t& v) {
    return ch.ReadByte(v);
}
int read_int(Channel& ch, uint16_t& v) {
    return ch.ReadInt16(v);
}
int read_int(Channel& ch, uint32_t& v) {
    return ch.ReadInt32(v);
}
int read_int(Channel& ch, uint64_t& v) {
    return ch.ReadInt64(v);
}

// ---- sections ----

bool fixed_of_width(uint8_t sec, size_t width) {
    const SYNC_SECTION_ATTR* attr = ProtoGetSecAttr(sec);
    return attr != nullptr && !attr->hasLen && attr->len == width;
}

bool variable(uint8_t sec) {
    const SYNC_SECTION_ATTR* attr = ProtoGetSecAttr(sec);
    return attr != nullptr && attr->hasLen;
}

int bad_write_attr(uint8_t sec) {
    Logger::LogMsg(Logger::L_DEBUG, component(),
                   "[DEBUG] proto-common(%d): WriteSection: bad attribute [section = %d]\n",
                   __LINE__, sec);
    return ERR_PROTO;
}

int bad_read_attr(uint8_t sec) {
    Logger::LogMsg(Logger::L_DEBUG, component(),
                   "[DEBUG] proto-common(%d): ReadSection: bad attribute [sec = %d]\n", __LINE__,
                   sec);
    return ERR_PROTO;
}

int write_failed(int rc, uint8_t sec) {
    Logger::LogMsg(Logger::L_DEBUG, component(),
                   "[DEBUG] proto-common(%d): WriteSection: section #%d: %s\n", __LINE__, sec,
                   GetErrorString(rc));
    return rc;
}

int read_failed(int rc, uint8_t sec) {
    Logger::LogMsg(Logger::L_DEBUG, component(),
                   "[DEBUG] proto-common(%d): ReadSection: section #%d: %s\n", __LINE__, sec,
                   GetErrorString(rc));
    return rc;
}

// Takes the id byte and insists that it is `sec`: the grammar is strictly ordered.
int read_section_id(Channel& ch, uint8_t sec) {
    uint8_t id = 0;
    int rc = ch.ReadByte(id);
    if (rc < 0) return read_failed(rc, sec);
    if (id == sec) return 0;
    Logger::LogMsg(Logger::L_ERR, component(),
                   "[ERROR] proto-common(%d): Expect section id #%d but get section #%d\n",
                   __LINE__, sec, id);
    return ERR_PROTO;
}

template <typename T>
int write_fixed(Channel& ch, uint8_t sec, T data) {
    if (!fixed_of_width(sec, sizeof(T))) return bad_write_attr(sec);
    int rc = ch.WriteByte(sec);
    if (rc >= 0) rc = write_int(ch, data);
    return rc < 0 ? write_failed(rc, sec) : 0;
}

template <typename T>
int read_fixed(Channel& ch, uint8_t sec, T& data) {
    if (!fixed_of_width(sec, sizeof(T))) return bad_read_attr(sec);
    int rc = read_section_id(ch, sec);
    if (rc < 0) return rc;
    T value = 0;
    rc = read_int(ch, value);
    if (rc < 0) return read_failed(rc, sec);
    data = value;
    return static_cast<int>(PROTO_FIXED_HEAD + sizeof(T));
}

// Text of at most PROTO_STRING_MAX bytes, cut at an embedded zero. The byte count or a code.
int read_text(Channel& ch, ustring& str) {
    char buf[PROTO_STRING_MAX];
    int n = ProtoReadVarData(ch, buf, sizeof(buf));
    if (n < 0) return n;
    str.assign(buf, ::strnlen(buf, static_cast<size_t>(n)));
    return n;
}

// ---- versions as text ----

template <typename V>
int write_version(Channel& ch, uint8_t sec, const V& ver) {
    char text[40];
    std::snprintf(text, sizeof(text), "%u.%u.%u", ver.major, ver.minor, ver.build);
    return ProtoWriteSection(ch, sec, ustring(text));
}

template <typename V>
int read_version(Channel& ch, uint8_t sec, V& ver, const char* format) {
    ustring text;
    int rc = ProtoReadSection(ch, sec, text);
    if (rc < 0) return rc;
    unsigned major = 0, minor = 0, build = 0;
    int scanned = std::sscanf(text.c_str_utf8(), "%u.%u.%u", &major, &minor, &build);
    if (scanned != 3) {
        Logger::LogMsg(Logger::L_ERR, component(), format, __LINE__, text.c_str_utf8(), scanned);
        return ERR_SYS;
    }
    ver.major = major;
    ver.minor = minor;
    ver.build = build;
    return 0;
}

// ---- file transfer ----

using FilePtr = std::unique_ptr<platform::File>;

std::unique_ptr<char[]> block_buffer(size_t size) {
    std::unique_ptr<char[]> buf(new (std::nothrow) char[size]);
    if (!buf)
        Logger::LogMsg(Logger::L_CRIT, component(), "[CRIT] proto-common(%d): out of memory\n",
                       __LINE__);
    return buf;
}

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

int send_block(Channel& ch, uint32_t id, const char* data, size_t len) {
    int rc = ProtoWriteSection(ch, SPROTO_ID_DELTAID, id);
    if (rc >= 0) rc = ProtoWriteSection(ch, SPROTO_ID_DELTADATA, data, len);
    if (rc >= 0) rc = ch.FlushWrite(0);
    return rc < 0 ? rc : 0;
}

// Positions `file` at `offset` of a file of `size` bytes.
int seek_for_send(platform::File& file, uint64_t offset, uint64_t size) {
    if (offset > size) {
        Logger::LogMsg(
            Logger::L_ERR, component(),
            "[ERROR] proto-common(%d): WriteFile: offset %llu is larger than size %llu \n",
            __LINE__, static_cast<unsigned long long>(offset),
            static_cast<unsigned long long>(size));
        return ERR_SYS;
    }
    int err = 0;
    if (file.seek(static_cast<int64_t>(offset), &err) >= 0) return 0;
    Logger::LogMsg(Logger::L_ERR, component(), "[ERROR] proto-common(%d): WriteFile: fseek: %s\n",
                   __LINE__, std::strerror(err));
    return ERR_SYS;
}

// Sends the blocks of the stretch [offset, size) of `file`, which stands at offset.
int send_blocks(Channel& ch, platform::File& file, uint64_t offset, uint64_t size, size_t block) {
    std::unique_ptr<char[]> buf = block_buffer(block);
    if (!buf) return ERR_SYS;
    const auto start = std::chrono::steady_clock::now();
    uint64_t remaining = size - offset;
    uint32_t id = 0;
    while (remaining > 0) {
        size_t want = remaining < block ? static_cast<size_t>(remaining) : block;
        int err = 0;
        int64_t read = platform::read_full(file, buf.get(), want, &err);
        if (read < 0) {
            Logger::LogMsg(Logger::L_ERR, component(),
                           "[ERROR] proto-common(%d): WriteFile: fread: %s\n", __LINE__,
                           std::strerror(err));
            return ERR_SYS;
        }
        size_t got = static_cast<size_t>(read);
        if (got == 0) {
            Logger::LogMsg(Logger::L_DEBUG, component(),
                           "[DEBUG] proto-common(%d): WriteFile: End of file\n", __LINE__);
            break;
        }
        int rc = send_block(ch, id, buf.get(), got);
        if (rc < 0) return rc;
        remaining -= got;
        ++id;
        if (got < want) break;
        double elapsed = seconds_since(start);
        if (id % PROTO_FILE_REPORT_BLOCKS == 0 && elapsed >= 1.0) {
            uint64_t sent_kb = (size - offset - remaining) / 1024;
            Logger::LogMsg(Logger::L_INFO, component(),
                           "[INFO] proto-common(%d): FileTransfer: %llu/%llu KB, speed: %lf Kb/s\n",
                           __LINE__, static_cast<unsigned long long>(sent_kb),
                           static_cast<unsigned long long>(size / 1024), sent_kb / elapsed);
        }
    }
    if (remaining == 0) return ch.FlushWrite(0) < 0 ? ERR_IO : 0;
    // The length is already announced; the reader waits for bytes that will never come.
    Logger::LogMsg(Logger::L_ERR, component(),
                   "[ERROR] proto-common(%d): WriteFile: file shrank, %llu bytes missing\n",
                   __LINE__, static_cast<unsigned long long>(remaining));
    return ERR_PROTO;
}

int write_file(Channel& ch, uint8_t is_delta, platform::File& file, uint64_t offset, size_t block) {
    int rc = ProtoWriteSection(ch, SPROTO_ID_DELTATYPE, is_delta);
    if (rc < 0) return rc;
    uint64_t size = 0;
    int err = 0;
    if (file.size(size, &err) != 0) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] proto-common(%d): WriteFile: fstat: %s\n", __LINE__,
                       std::strerror(err));
        return ERR_SYS;
    }
    rc = ProtoWriteSection(ch, SPROTO_ID_DELTALEN, size);
    if (rc < 0) return rc;
    if (size == 0) return ch.FlushWrite(0) < 0 ? ERR_IO : 0;
    rc = seek_for_send(file, offset, size);
    if (rc < 0) return rc;
    return send_blocks(ch, file, offset, size, block);
}

int write_file_at(Channel& ch, uint8_t is_delta, const ustring& path, uint64_t offset,
                  size_t block) {
    FilePtr file = xfopen(path, "rb");
    if (!file) return ERR_SYS;
    return write_file(ch, is_delta, *file, offset, block);
}

// Opens the target of a received file: replaced for offset 0, else appended to after
// checking that it holds exactly `offset` bytes.
int open_for_receive(const ustring& path, uint64_t offset, FilePtr& file) {
    file = xfopen(path, offset == 0 ? "wb" : "ab");
    if (!file) return ERR_SYS;
    if (offset == 0) return 0;
    uint64_t size = 0;
    if (file->size(size, nullptr) != 0 || size != offset) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] proto-common(%d): ReadFile: open: %s offset is %llu but size is "
                       "%llu\n",
                       __LINE__, path.c_str_utf8(), static_cast<unsigned long long>(offset),
                       static_cast<unsigned long long>(size));
        file.reset();
        return ERR_SYS;
    }
    return 0;
}

int receive_blocks(Channel& ch, platform::File& file, uint64_t offset, uint64_t size,
                   size_t block) {
    std::unique_ptr<char[]> buf = block_buffer(block);
    if (!buf) return ERR_SYS;
    uint64_t received = 0;
    uint64_t next_report = 0;
    while (offset + received < size) {
        uint32_t id = 0;
        int rc = ProtoReadSection(ch, SPROTO_ID_DELTAID, id);
        if (rc < 0) return rc;
        size_t len = 0;
        rc = ProtoReadSection(ch, SPROTO_ID_DELTADATA, buf.get(), block, len);
        if (rc < 0) return rc;
        if (len == 0 || len > size - offset - received) {
            Logger::LogMsg(Logger::L_ERR, component(),
                           "[ERROR] proto-common(%d): ReadFile: block #%u of %zu bytes doesn't fit "
                           "the length %llu\n",
                           __LINE__, id, len, static_cast<unsigned long long>(size));
            return ERR_PROTO;
        }
        int err = 0;
        if (file.write(buf.get(), len, &err) < 0) {
            Logger::LogMsg(Logger::L_ERR, component(),
                           "[ERROR] proto-common(%d): ReadFile: fwrite: %s\n", __LINE__,
                           std::strerror(err));
            return ERR_SYS;
        }
        received += len;
        if (id == next_report) {
            Logger::LogMsg(Logger::L_INFO, component(),
                           "[INFO] proto-common(%d): FileTransfer: %llu/%llu KB\n", __LINE__,
                           static_cast<unsigned long long>((offset + received) / 1024),
                           static_cast<unsigned long long>(size / 1024));
            next_report += PROTO_FILE_REPORT_BLOCKS;
        }
    }
    return 0;
}

int read_file(Channel& ch, uint8_t& is_delta, const ustring& path, uint64_t offset, size_t block) {
    FilePtr file;
    int rc = open_for_receive(path, offset, file);
    if (rc < 0) return rc;
    uint8_t type = 0;
    rc = ProtoReadSection(ch, SPROTO_ID_DELTATYPE, type);
    if (rc < 0) return rc;
    is_delta = type;
    uint64_t size = 0;
    rc = ProtoReadSection(ch, SPROTO_ID_DELTALEN, size);
    if (rc < 0) return rc;
    if (size < offset) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] proto-common(%d): ReadFile: length %llu is below the offset %llu\n",
                       __LINE__, static_cast<unsigned long long>(size),
                       static_cast<unsigned long long>(offset));
        return ERR_PROTO;
    }
    rc = receive_blocks(ch, *file, offset, size, block);
    int err = 0;
    if (file->close(&err) != 0) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] proto-common(%d): ReadFile: fclose: %s\n", __LINE__,
                       std::strerror(err));
        if (rc == 0) rc = ERR_SYS;
    }
    return rc;
}

// ---- server errors ----

struct RespTexts {
    const char* component;
    const char* invalid_path;  // null: the exact code goes unlogged
    const char* internal;
    const char* unhandled;
};

const RespTexts& resp_texts(ProtoRespCaller caller) {
    static const RespTexts syncer = {
        "syncer_debug",
        "[CRIT] syncer(%d): Server error(invalid path in view): %lu\n",
        "[CRIT] syncer(%d): server error: %lu\n",
        "[CRIT] syncer(%d): unhandled error code: %lu\n",
    };
    static const RespTexts progress = {
        "progress_syncer_debug",
        "[CRIT] progress-syncer(%d): Server error(invalid path in view): %lu\n",
        "[CRIT] progress-syncer(%d): server error: %lu\n",
        "[CRIT] progress-syncer(%d): unhandled error code: %lu\n",
    };
    static const RespTexts worker = {
        "worker_debug",
        nullptr,
        "[CRIT] worker(%d): server error: %lu\n",
        "[CRIT] worker(%d): unhandled error code: %lu\n",
    };
    switch (caller) {
        case PROTO_RESP_SYNCER:
            return syncer;
        case PROTO_RESP_PROGRESS_SYNCER:
            return progress;
        case PROTO_RESP_WORKER:
            break;
    }
    return worker;
}

void log_resp(const RespTexts& texts, const char* format, uint32_t perr) {
    if (format == nullptr) return;
    Logger::LogMsg(Logger::L_CRIT, texts.component, format, __LINE__,
                   static_cast<unsigned long>(perr));
}

}  // namespace

// ---- Framing ----

int ProtoConnect(Channel& ch, const char* ip, int port) {
    return ch.Open(ip, port) == 0 ? 0 : -1;
}

int ProtoDisconnect(Channel& ch) {
    ch.Close();
    return 0;
}

void ProtoInit(uint8_t version) {
    g_proto_version.store(version, std::memory_order_relaxed);
}

uint8_t ProtoVersion() {
    return g_proto_version.load(std::memory_order_relaxed);
}

int ProtoCheck(uint32_t proto_version) {
    if (proto_version - proto_version % 10 > PROTO_VERSION_NEWEST) return PV_UNSUPPORT_OLD_CLIENT;
    if (proto_version < PROTO_VERSION_OLDEST) return PV_UNSUPPORT_OLD_SERVER;
    if (proto_version == PROTO_VERSION_MATCH) return PV_MATCH_SUPPORT;
    return PV_UNMATCH_SUPPORT;
}

int ProtoWriteHeader(Channel& ch, uint16_t pkt_len, uint8_t cmd) {
    int rc = ch.WriteInt32(PROTO_MAGIC);
    if (rc >= 0) rc = ch.WriteByte(ProtoVersion());
    if (rc >= 0) rc = ch.WriteByte(cmd);
    if (rc >= 0) rc = ch.WriteInt16(pkt_len);
    if (rc >= 0) return 0;
    Logger::LogMsg(Logger::L_DEBUG, component(), "[DEBUG] proto-common(%d): WriteHeader: %s\n",
                   __LINE__, GetErrorString(rc));
    return rc;
}

int ProtoReadHeader(Channel& ch, uint16_t& pkt_len, uint8_t& cmd, uint8_t& version) {
    uint32_t magic = 0;
    int rc = ch.ReadInt32(magic);
    if (rc < 0) {
        Logger::LogMsg(Logger::L_DEBUG, component(),
                       "[DEBUG] proto-common(%d): ReadHeader: Failed to read magic\n", __LINE__);
        return rc;
    }
    // Once a message has begun, each further step must come quickly.
    ch.SetTimeout(PROTO_HEADER_STEP_TIMEOUT);
    uint8_t ver = 0, command = 0;
    uint16_t len = 0;
    if ((rc = ch.ReadByte(ver)) < 0) {
        Logger::LogMsg(Logger::L_DEBUG, component(),
                       "[DEBUG] proto-common(%d): ReadHeader: Failed to read version\n", __LINE__);
        return rc;
    }
    if ((rc = ch.ReadByte(command)) < 0) {
        Logger::LogMsg(Logger::L_DEBUG, component(),
                       "[DEBUG] proto-common(%d): ReadHeader: Failed to read command\n", __LINE__);
        return rc;
    }
    if ((rc = ch.ReadInt16(len)) < 0) {
        Logger::LogMsg(Logger::L_DEBUG, component(),
                       "[DEBUG] proto-common(%d): ReadHeader: Failed to read payload length\n",
                       __LINE__);
        return rc;
    }
    // Checked only now, so that a bad header never leaves part of itself on the stream.
    if (magic != PROTO_MAGIC) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] proto-common(%d): Invalid protocol (%x)\n", __LINE__, magic);
        return ERR_PROTO;
    }
    pkt_len = len;
    cmd = command;
    version = ver;
    return 0;
}

const SYNC_SECTION_ATTR* ProtoGetSecAttr(uint8_t id) {
    if (id == 0 || id > SPROTO_ID_LAST) return nullptr;
    return &kSectionAttrs[id - 1];
}

int ProtoWriteSection(Channel& ch, uint8_t sec, uint8_t data) {
    return write_fixed(ch, sec, data);
}
int ProtoWriteSection(Channel& ch, uint8_t sec, uint16_t data) {
    return write_fixed(ch, sec, data);
}
int ProtoWriteSection(Channel& ch, uint8_t sec, uint32_t data) {
    return write_fixed(ch, sec, data);
}
int ProtoWriteSection(Channel& ch, uint8_t sec, uint64_t data) {
    return write_fixed(ch, sec, data);
}
int ProtoReadSection(Channel& ch, uint8_t sec, uint8_t& data) {
    return read_fixed(ch, sec, data);
}
int ProtoReadSection(Channel& ch, uint8_t sec, uint16_t& data) {
    return read_fixed(ch, sec, data);
}
int ProtoReadSection(Channel& ch, uint8_t sec, uint32_t& data) {
    return read_fixed(ch, sec, data);
}
int ProtoReadSection(Channel& ch, uint8_t sec, uint64_t& data) {
    return read_fixed(ch, sec, data);
}

int ProtoWriteSection(Channel& ch, uint8_t sec, const char* buf, size_t buf_size) {
    if (!variable(sec)) return bad_write_attr(sec);
    if (buf == nullptr || buf_size > PROTO_VAR_MAX) return ERR_INVAL;
    int rc = ch.WriteByte(sec);
    if (rc < 0) return write_failed(rc, sec);
    return ProtoWriteVarData(ch, buf, static_cast<int>(buf_size));
}

int ProtoWriteSection(Channel& ch, uint8_t sec, const ustring& str) {
    return ProtoWriteSection(ch, sec, str.c_str_utf8(), str.length());
}

int ProtoReadSection(Channel& ch, uint8_t sec, char* buf, size_t max, size_t& len) {
    if (!variable(sec)) return bad_read_attr(sec);
    if (buf == nullptr || max == 0) return ERR_INVAL;
    int rc = read_section_id(ch, sec);
    if (rc < 0) return rc;
    int n = ProtoReadVarData(ch, buf, max);
    if (n < 0) return n;
    len = static_cast<size_t>(n);
    return n + static_cast<int>(PROTO_VAR_HEAD);
}

int ProtoReadSection(Channel& ch, uint8_t sec, ustring& str) {
    if (!variable(sec)) return bad_read_attr(sec);
    int rc = read_section_id(ch, sec);
    if (rc < 0) return rc;
    int n = read_text(ch, str);
    return n < 0 ? n : n + static_cast<int>(PROTO_VAR_HEAD);
}

int ProtoWriteEncSection(Channel& ch, uint8_t sec, const ustring& str) {
    if (!variable(sec)) return bad_write_attr(sec);
    ustring enc;
    if (SyncPassEnc(str, enc) < 0) return ERR_INVAL;
    return ProtoWriteSection(ch, sec, enc);
}

int ProtoReadDecSection(Channel& ch, uint8_t sec, ustring& str) {
    if (!variable(sec)) return bad_read_attr(sec);
    int rc = read_section_id(ch, sec);
    if (rc < 0) return rc;
    int n = ProtoReadDecString(ch, str);
    return n < 0 ? n : n + static_cast<int>(PROTO_VAR_HEAD);
}

int ProtoWriteVarData(Channel& ch, const char* buf, int len) {
    if (buf == nullptr || len < 0 || static_cast<size_t>(len) > PROTO_VAR_MAX) return ERR_INVAL;
    int rc = ch.WriteInt16(static_cast<uint16_t>(len));
    if (rc >= 0 && len > 0) rc = ch.Write(buf, static_cast<size_t>(len));
    if (rc >= 0) return 0;
    Logger::LogMsg(Logger::L_DEBUG, component(), "[DEBUG] proto-common(%d): WriteVarData: %s\n",
                   __LINE__, GetErrorString(rc));
    return rc;
}

int ProtoReadVarData(Channel& ch, char* buf, size_t max) {
    if (buf == nullptr || max == 0) return ERR_INVAL;
    uint16_t len = 0;
    int rc = ch.ReadInt16(len);
    if (rc < 0) {
        Logger::LogMsg(Logger::L_DEBUG, component(), "[DEBUG] proto-common(%d): ReadVarData: %s\n",
                       __LINE__, GetErrorString(rc));
        return rc;
    }
    if (len > max) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] proto-common(%d): Expect only %d bytes but %d bytes coming in\n",
                       __LINE__, static_cast<int>(max), static_cast<int>(len));
        return ERR_PROTO;
    }
    if (len == 0) return 0;
    size_t got = 0;
    rc = ch.Read(buf, len, got);
    if (rc >= 0) return len;
    Logger::LogMsg(Logger::L_ERR, component(), "[ERROR] proto-common(%d): ReadVarData: %s\n",
                   __LINE__, GetErrorString(rc));
    Logger::LogMsg(Logger::L_ERR, component(),
                   "[ERROR] proto-common(%d): Expected %d bytes but read only %d bytes\n", __LINE__,
                   static_cast<int>(len), static_cast<int>(got));
    return rc;
}

int ProtoWriteString(Channel& ch, const char* str) {
    if (str == nullptr) return ERR_INVAL;
    size_t len = std::strlen(str);
    if (len > PROTO_VAR_MAX) return ERR_INVAL;
    return ProtoWriteVarData(ch, str, static_cast<int>(len));
}

int ProtoWriteString(Channel& ch, const uchar16* str) {
    if (str == nullptr) return ERR_INVAL;
    return ProtoWriteString(ch, ustring(str));
}

int ProtoWriteString(Channel& ch, const ustring& str) {
    if (str.length() > PROTO_VAR_MAX) return ERR_INVAL;
    return ProtoWriteVarData(ch, str.c_str_utf8(), static_cast<int>(str.length()));
}

int ProtoReadString(Channel& ch, std::string& str) {
    ustring text;
    int n = read_text(ch, text);
    if (n >= 0) str = text.str();
    return n;
}

int ProtoReadString(Channel& ch, std::u16string& str) {
    ustring text;
    int n = read_text(ch, text);
    if (n >= 0) str = text.c_str();
    return n;
}

int ProtoReadString(Channel& ch, ustring& str) {
    return read_text(ch, str);
}

int ProtoWriteEncString(Channel& ch, const ustring& str) {
    ustring enc;
    if (SyncPassEnc(str, enc) < 0) return ERR_INVAL;
    return ProtoWriteString(ch, enc);
}

int ProtoReadDecString(Channel& ch, ustring& str) {
    ustring enc;
    int n = read_text(ch, enc);
    if (n < 0) return n;
    ustring plain;
    if (SyncPassDec(enc, plain) < 0) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] proto-common(%d): ReadDecString: can't decipher '%s'\n", __LINE__,
                       enc.c_str_utf8());
        return ERR_PROTO;
    }
    str = plain;
    return n;
}

// ---- Records ----

int ProtoWriteCommonAttributeBlock(Channel& ch, const CommonAttributeBlock& attr) {
    return ProtoWriteSection(ch, SPROTO_ID_FILETIME, attr.mtime);
}

int ProtoReadCommonAttributeBlock(Channel& ch, CommonAttributeBlock& attr) {
    int rc = ProtoReadSection(ch, SPROTO_ID_FILETIME, attr.mtime);
    return rc < 0 ? rc : 0;
}

int ProtoWriteObjectId(Channel& ch, const ObjectID& id) {
    int rc = ProtoWriteSection(ch, SPROTO_ID_SID, id.sync_id);
    return rc < 0 ? rc : ProtoWriteSection(ch, SPROTO_ID_PATH, id.path);
}

int ProtoReadObjectId(Channel& ch, ObjectID& id) {
    int rc = ProtoReadSection(ch, SPROTO_ID_SID, id.sync_id);
    if (rc >= 0) rc = ProtoReadSection(ch, SPROTO_ID_PATH, id.path);
    return rc < 0 ? rc : 0;
}

int ProtoWriteView(Channel& ch, const View& view) {
    int rc = ProtoWriteSection(ch, SPROTO_ID_VIEW_ID, view.view_id);
    return rc < 0 ? rc : ProtoWriteSection(ch, SPROTO_ID_VIEW_NAME, view.name);
}

int ProtoReadView(Channel& ch, View& view) {
    int rc = ProtoReadSection(ch, SPROTO_ID_VIEW_ID, view.view_id);
    if (rc >= 0) rc = ProtoReadSection(ch, SPROTO_ID_VIEW_NAME, view.name);
    return rc < 0 ? rc : 0;
}

int ProtoWriteObjectMetadata(Channel& ch, const ObjectMetadata& meta) {
    int rc = ProtoWriteSection(ch, SPROTO_ID_FILESIZE, meta.size);
    if (rc >= 0) rc = ProtoWriteSection(ch, SPROTO_ID_FILETIME, meta.mtime);
    return rc < 0 ? rc : ProtoWriteSection(ch, SPROTO_ID_FILEHASH, meta.hash);
}

int ProtoReadObjectMetadata(Channel& ch, ObjectMetadata& meta) {
    int rc = ProtoReadSection(ch, SPROTO_ID_FILESIZE, meta.size);
    if (rc >= 0) rc = ProtoReadSection(ch, SPROTO_ID_FILETIME, meta.mtime);
    if (rc >= 0) rc = ProtoReadSection(ch, SPROTO_ID_FILEHASH, meta.hash);
    return rc < 0 ? rc : 0;
}

int ProtoWriteProtocolVersion(Channel& ch, const ProtocolVersion& ver) {
    return write_version(ch, SPROTO_IDPROTO_VERSION_2, ver);
}

int ProtoReadProtocolVersion(Channel& ch, ProtocolVersion& ver) {
    return read_version(ch, SPROTO_IDPROTO_VERSION_2, ver,
                        "[ERROR] proto-common(%d): ReadProtocolVersion: sscanf: %s (%d).\n");
}

int ProtoWriteFilterVersion(Channel& ch, const FilterVersion& ver) {
    return write_version(ch, SPROTO_ID_FILTER_VERSION, ver);
}

int ProtoReadFilterVersion(Channel& ch, FilterVersion& ver) {
    return read_version(ch, SPROTO_ID_FILTER_VERSION, ver,
                        "[ERROR] proto-common(%d): ReadFilterVersion: sscanf: %s (%d).\n");
}

// ---- Keep-alive and service requests ----

int ProtoWriteKeepAliveControl(Channel& ch, uint32_t seconds) {
    int rc = ProtoWriteHeader(ch, 0, SCMD_KEEP_ALIVE);
    if (rc < 0) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] proto-common(%d): fail to send keep-alive header. %s\n", __LINE__,
                       GetErrorString(rc));
        return rc;
    }
    if ((rc = ProtoWriteSection(ch, SPROTO_ID_KEEP_ALIVE_OPTION, uint32_t{0})) < 0) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] proto-common(%d): fail to send keep-alive option. %s.\n", __LINE__,
                       GetErrorString(rc));
        return rc;
    }
    if ((rc = ProtoWriteSection(ch, SPROTO_ID_KEEP_ALIVE_CONTROL, uint32_t{1})) < 0) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] proto-common(%d): fail to send keep-alive control. %s.\n", __LINE__,
                       GetErrorString(rc));
        return rc;
    }
    if ((rc = ProtoWriteSection(ch, SPROTO_ID_ALIVE, seconds)) < 0) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] proto-common(%d): fail to send keep-alive time. %s.\n", __LINE__,
                       GetErrorString(rc));
        return rc;
    }
    if ((rc = ch.FlushWrite(0)) < 0) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] proto-common(%d): fail to send keep-alive data. %s.\n", __LINE__,
                       GetErrorString(rc));
        return rc;
    }
    return 0;
}

int ProtoWriteSSLServiceRequest(Channel& ch) {
    int rc = ch.FlushWrite(0);
    if (rc >= 0) rc = ProtoWriteHeader(ch, 0, SCMD_REQUEST_SSL);
    if (rc >= 0) rc = ch.FlushWrite(0);
    return rc < 0 ? rc : 0;
}

int ProtoSSLResult(uint32_t code) {
    if (code == SPROTO_RES_ERR) return ERR_SERVER;
    if (code == SPROTO_RES_UPGRADE) return ERR_VERSION;
    return ERR_SYS;
}

int ProtoWriteSSLServiceRequest2OLD(Channel& ch, const SSLServiceReq& req,
                                    SSLServiceResponse& resp) {
    int rc = ch.FlushWrite(0);
    if (rc >= 0) rc = ProtoWriteHeader(ch, 0, SCMD_REQUEST_SSL_2);
    if (rc >= 0) rc = ProtoWriteProtocolVersion(ch, req.proto_ver);
    if (rc >= 0) rc = ProtoWriteSection(ch, SPROTO_ID_SSL_OPTION, req.ssl_option);
    if (rc >= 0) rc = ch.FlushWrite(0);
    if (rc < 0) return rc;

    uint16_t pkt_len = 0;
    uint8_t cmd = 0, version = 0;
    if ((rc = ProtoReadHeader(ch, pkt_len, cmd, version)) < 0) return rc;
    if (cmd != SCMD_REQUEST_SSL_2) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] proto-common(%d): RequestSSL: unexpected reply %s\n", __LINE__,
                       ProtoCmd2String(cmd));
        return ERR_PROTO;
    }
    if ((rc = ProtoReadSection(ch, SPROTO_ID_RES, resp.response_code)) < 0) return rc;
    if (resp.response_code != SPROTO_RES_UPGRADE &&
        (rc = ProtoReadSection(ch, SPROTO_ID_SSL_RESPONSE_OPTION, resp.misc_response)) < 0)
        return rc;
    return resp.response_code == SPROTO_RES_OK ? 0 : ProtoSSLResult(resp.response_code);
}

int ProtoWriteSSLServiceRequest2(Channel& ch, const SSLServiceReq& req) {
    PObject request;
    request["_action"] = "encrypt_channel";
    request["proto_ver"]["major"] = req.proto_ver.major;
    request["proto_ver"]["minor"] = req.proto_ver.minor;
    request["proto_ver"]["build"] = req.proto_ver.build;
    request["ssl_option"] = req.ssl_option;
    AppendAgent(request);

    PStream stream;
    PObject reply;
    int rc = ProtoWriteObjectRequest(ch, stream, SCMD_REQUEST_SSL_2, request);
    if (rc >= 0) rc = ProtoReadObjectReply(ch, stream, reply);
    if (rc < 0) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] proto-common(%d): RunProtocol: stream: Error code %d\n", __LINE__,
                       rc);
        return ERR_IO;
    }
    if (!reply.hasMember("error")) return 0;
    return ProtoSSLResult(reply["error"]["code"].asUInt32());
}

// ---- PObject request form ----

void AppendAgent(PObject& request) {
    PObject& agent = request["_agent"];
    agent["platform"] = PROTO_AGENT_PLATFORM;
    agent["version"]["major"] = PROTO_AGENT_MAJOR;
    agent["version"]["minor"] = PROTO_AGENT_MINOR;
    agent["version"]["build"] = PROTO_AGENT_BUILD;
}

int ProtoWriteObjectRequest(Channel& ch, PStream& stream, uint8_t cmd, const PObject& request) {
    int rc = ProtoWriteHeader(ch, 0, cmd);
    return rc < 0 ? rc : stream.Send(ch, request);
}

int ProtoReadObjectReply(Channel& ch, PStream& stream, PObject& reply) {
    return stream.Recv(ch, reply);
}

// ---- File transfer ----

int ProtoWriteFile(Channel& ch, uint8_t is_delta, platform::File& file) {
    return write_file(ch, is_delta, file, 0, PROTO_FILE_BLOCK);
}

int ProtoWriteFile(Channel& ch, uint8_t is_delta, const ustring& path) {
    return write_file_at(ch, is_delta, path, 0, PROTO_FILE_BLOCK);
}

int ProtoWriteFile2(Channel& ch, uint8_t is_delta, platform::File& file, uint64_t offset) {
    return write_file(ch, is_delta, file, offset, PROTO_FILE_BLOCK2);
}

int ProtoWriteFile2(Channel& ch, uint8_t is_delta, const ustring& path, uint64_t offset) {
    return write_file_at(ch, is_delta, path, offset, PROTO_FILE_BLOCK2);
}

int ProtoReadFile(Channel& ch, uint8_t& is_delta, const ustring& path) {
    return read_file(ch, is_delta, path, 0, PROTO_FILE_BLOCK);
}

int ProtoReadFile2(Channel& ch, uint8_t& is_delta, const ustring& path, uint64_t offset) {
    return read_file(ch, is_delta, path, offset, PROTO_FILE_BLOCK2);
}

// ---- Texts and code tables ----

const char* ProtoCmd2String(int cmd) {
    // The log's own table: it stops at 24 and keeps two older names for 23 and 24.
    static const char* const kNames[] = {
        "Unknown command",      "SCMD_REQUEST",    "SCMD_KEEP_ALIVE",      "SCMD_AUTH",
        "SCMD_NOTIFY",          "SCMD_LOGOUT",     "SCMD_EVT_PULL",        "SCMD_EVT_RECV",
        "SCMD_NEW_EVT_INFO",    "SCMD_EVT_SEND",   "SCMD_USER_CTRL",       "SCMD_TEST_CONN",
        "SCMD_RESPONSE",        "SCMD_USER_CHECK", "SCMD_REQUEST_CONNECT", "SCMD_EVT_REMOVE",
        "SCMD_GET_FILTER",      "SCMD_LIST_VIEW",  "SCMD_AUTH_2",          "SCMD_EVT_RECV_2",
        "SCMD_REQUEST_SSL",     "SCMD_EVT_RECV_3", "SCMD_REQUEST_SSL_2",   "SCMD_PKG_VER_QUERY",
        "SCMD_GET_FOLDER_LIST",
    };
    constexpr int kCount = sizeof(kNames) / sizeof(kNames[0]);
    return cmd > 0 && cmd < kCount ? kNames[cmd] : kNames[0];
}

const char* ProtoGetErroString(int err) {
    static const char* const kTexts[] = {
        "Protocol finished successfully",
        "Protocol aborted due to interrupt",
        "Protocol aborted due to IO error",
        "Protocol aborted due to authentication failure",
        "Protocol aborted due to invalid argument",
    };
    constexpr int kCount = sizeof(kTexts) / sizeof(kTexts[0]);
    return err >= 0 && err < kCount ? kTexts[err] : "Unknown protocol error";
}

int ProtoResp2ErrorCode(uint32_t perr, ProtoRespCaller caller) {
    const RespTexts& texts = resp_texts(caller);
    switch (perr) {
        case SPROTO_ERR_ACCESS_DENY:
            return ERR_PERMISS;
        case SPROTO_ERR_QUOTA:
            return ERR_QUOTA;
        case SPROTO_ERR_DISKFULL:
            return ERR_DISKFULL;
        case SPROTO_ERR_VIEW_INVALID_PATH:
            log_resp(texts, texts.invalid_path, perr);
            return ERR_VIEW_PATH;
        default:
            break;
    }
    switch (perr & SPROTO_ERR_CLASS_MASK) {
        case SPROTO_ERR_INTERNAL:
            log_resp(texts, texts.internal, perr);
            return ERR_OK;
        case SPROTO_ERR_USER:
        case SPROTO_ERR_SESSION:
            return ERR_AUTH;
        case SPROTO_ERR_VIEW:
            return ERR_VIEW;
        case SPROTO_ERR_VERSION:
            return ERR_VERSION;
        case SPROTO_ERR_DOWNLOAD:
        case SPROTO_ERR_UPLOAD:
        case SPROTO_ERR_REMOVE:
            if (caller == PROTO_RESP_WORKER) return ERR_INT;
            break;
        default:
            break;
    }
    log_resp(texts, texts.unhandled, perr);
    return ERR_OK;
}
