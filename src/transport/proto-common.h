// proto-common.h: the grammar the daemon speaks with the server, as free functions on a
// Channel: the message header, typed sections, strings (plain and enciphered), the shared
// records, keep-alive and the encryption service requests, the transfer of a file's bytes
// as numbered blocks, and the PObject request form of the newer commands. Used by the
// connection pool, the pullers and the workers; the wire constants are in proto-format.h.
//
// Results: 0 or a positive count on success; on failure a channel failure comes back as the
// Channel's own negative code (-1 abort, -2 I/O or closed, -9 time-out), a grammar failure
// (wrong magic, unexpected section id, a length above the buffer, a section asked for with
// the wrong width) as -5 (ERR_PROTO), a file failure as -3 (ERR_SYS), a bad argument as -4.
// After a failure in the middle of a message the position in the stream is undefined and
// the connection must be dropped. Nothing read from the server is trusted: every length is
// checked against the buffer it is read into.
//
// A Channel serves one thread at a time; so do these functions. PROTO_VERSION is set once
// at start-up by ProtoInit.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/channel.h"
#include "foundation/object.h"
#include "foundation/stream.h"
#include "foundation/ustring.h"
#include "platform/fs.h"
#include "transport/proto-format.h"

// Outcome of ProtoCheck.
enum PV_TEST_CODE {
    PV_MATCH_SUPPORT = 0,         // the server speaks our version
    PV_UNMATCH_SUPPORT = 1,       // another version of our generation; works
    PV_UNSUPPORT_OLD_SERVER = 2,  // the server is older than we support
    PV_UNSUPPORT_OLD_CLIENT = 3,  // the server is a whole generation newer
};

struct ProtocolVersion {
    uint32_t major = 0;
    uint32_t minor = 0;
    uint32_t build = 0;
};
struct FilterVersion {
    uint32_t major = 0;
    uint32_t minor = 0;
    uint32_t build = 0;
};
struct SSLServiceReq {
    ProtocolVersion proto_ver;
    uint32_t ssl_option = 0;
};
struct SSLServiceResponse {
    uint8_t response_code = 0;
    uint32_t misc_response = 0;
};
struct View {
    uint64_t view_id = 0;
    ustring name;
};
struct ObjectID {
    uint64_t sync_id = 0;
    ustring path;
};
struct ObjectMetadata {
    uint32_t mtime = 0;
    uint64_t size = 0;
    ustring hash;
};
struct CommonAttributeBlock {
    uint32_t mtime = 0;
};

// ---- Framing ----

// Channel::Open(ip, port): 0, or -1 when the connection can't be made.
int ProtoConnect(Channel& ch, const char* ip, int port);
// Channel::Close; 0.
int ProtoDisconnect(Channel& ch);
// Sets the process-wide protocol version written into every header. Call once at start-up.
void ProtoInit(uint8_t version);
// The version headers carry now: PROTO_DEFAULT_VERSION unless ProtoInit changed it.
uint8_t ProtoVersion();
// Compatibility with a server of `proto_version`: a PV_TEST_CODE.
int ProtoCheck(uint32_t proto_version);

// Queues the 8-byte header (nothing is flushed). 0 or the channel's code.
int ProtoWriteHeader(Channel& ch, uint16_t pkt_len, uint8_t cmd);
// Reads a header. The magic is read under the channel's present time-out (a first reply may
// be slow); after it the channel's time-out is set to PROTO_HEADER_STEP_TIMEOUT for the rest
// of the message. All 8 bytes are taken before the magic is checked: a wrong magic gives -5
// with the header consumed. 0 or a code; the outputs are set only on success.
int ProtoReadHeader(Channel& ch, uint16_t& pkt_len, uint8_t& cmd, uint8_t& version);

// The table row of a section id, or null for 0 and ids past SPROTO_ID_LAST. Static storage.
const SYNC_SECTION_ATTR* ProtoGetSecAttr(uint8_t id);

// Fixed sections. A write queues the id and the data; the overload's width must equal the
// table's, else -5 and nothing is queued. Result: 0 or a code.
int ProtoWriteSection(Channel& ch, uint8_t sec, uint8_t data);
int ProtoWriteSection(Channel& ch, uint8_t sec, uint16_t data);
int ProtoWriteSection(Channel& ch, uint8_t sec, uint32_t data);
int ProtoWriteSection(Channel& ch, uint8_t sec, uint64_t data);
// A read of a fixed section checks the width first (-5 without touching the connection),
// then requires the id byte to be `sec` (-5 otherwise: sections are never skipped). The
// section's size on the wire (1 plus the width), or a code; `data` is set only on success.
int ProtoReadSection(Channel& ch, uint8_t sec, uint8_t& data);
int ProtoReadSection(Channel& ch, uint8_t sec, uint16_t& data);
int ProtoReadSection(Channel& ch, uint8_t sec, uint32_t& data);
int ProtoReadSection(Channel& ch, uint8_t sec, uint64_t& data);

// Variable sections from bytes or text; `sec` must be a variable section (-5), and the data
// at most PROTO_VAR_MAX bytes (-4). 0 or a code.
int ProtoWriteSection(Channel& ch, uint8_t sec, const char* buf, size_t buf_size);
int ProtoWriteSection(Channel& ch, uint8_t sec, const ustring& str);
// Reads a variable section into `buf` (at most `max` bytes; a longer one is -5 with its
// data left unread). The data length plus 3, or a code; `len` is set only on success.
int ProtoReadSection(Channel& ch, uint8_t sec, char* buf, size_t max, size_t& len);
// The same into text of at most PROTO_STRING_MAX bytes; text ends at an embedded zero byte.
int ProtoReadSection(Channel& ch, uint8_t sec, ustring& str);
// A variable section carrying the enciphered form of `str` (see ProtoWriteEncString).
int ProtoWriteEncSection(Channel& ch, uint8_t sec, const ustring& str);
// Reads and deciphers such a section. The section size, or a code; -5 when the text isn't a
// valid enciphered form.
int ProtoReadDecSection(Channel& ch, uint8_t sec, ustring& str);

// A 16-bit length, then the bytes. -4 for a null `buf` or a negative `len`; a `len` above
// PROTO_VAR_MAX is refused with -4 rather than cut. 0 or a code.
int ProtoWriteVarData(Channel& ch, const char* buf, int len);
// Reads a length, then exactly that many bytes into `buf`. The length, or: -4 for a null
// `buf` or `max` 0; -5 when the length exceeds `max` (the data stays unread, the connection
// is then unusable); the channel's code when the data doesn't arrive.
int ProtoReadVarData(Channel& ch, char* buf, size_t max);

// Variable data without a section id. Wide text travels as UTF-8; a text longer than
// PROTO_VAR_MAX bytes is refused with -4. A write gives 0 or a code. A read holds at most
// PROTO_STRING_MAX bytes (-5 for more), ends at an embedded zero byte, and gives the count
// of bytes taken from the wire or a code; `str` is set only on success.
int ProtoWriteString(Channel& ch, const char* str);
int ProtoWriteString(Channel& ch, const uchar16* str);
int ProtoWriteString(Channel& ch, const ustring& str);
int ProtoReadString(Channel& ch, std::string& str);
int ProtoReadString(Channel& ch, std::u16string& str);
int ProtoReadString(Channel& ch, ustring& str);
// A secret (a password) as the base64 text of its Blowfish CFB64 encipherment under the
// key both ends hold (SyncPassEnc); the empty text stays empty. A write gives 0 or a code
// (-4 for a secret too long to encipher); a read gives the count of bytes taken from the
// wire, or -5 when the text doesn't decipher, leaving `str` as it was.
int ProtoWriteEncString(Channel& ch, const ustring& str);
int ProtoReadDecString(Channel& ch, ustring& str);

// ---- Records: each a fixed run of sections; 0 or the first failure's code ----

// SPROTO_ID_FILETIME.
int ProtoWriteCommonAttributeBlock(Channel& ch, const CommonAttributeBlock& attr);
int ProtoReadCommonAttributeBlock(Channel& ch, CommonAttributeBlock& attr);
// SPROTO_ID_SID, SPROTO_ID_PATH.
int ProtoWriteObjectId(Channel& ch, const ObjectID& id);
int ProtoReadObjectId(Channel& ch, ObjectID& id);
// SPROTO_ID_VIEW_ID, SPROTO_ID_VIEW_NAME.
int ProtoWriteView(Channel& ch, const View& view);
int ProtoReadView(Channel& ch, View& view);
// SPROTO_ID_FILESIZE, SPROTO_ID_FILETIME, SPROTO_ID_FILEHASH.
int ProtoWriteObjectMetadata(Channel& ch, const ObjectMetadata& meta);
int ProtoReadObjectMetadata(Channel& ch, ObjectMetadata& meta);
// SPROTO_IDPROTO_VERSION_2 with the text "major.minor.build"; a text that doesn't scan as
// three numbers gives -3.
int ProtoWriteProtocolVersion(Channel& ch, const ProtocolVersion& ver);
int ProtoReadProtocolVersion(Channel& ch, ProtocolVersion& ver);
// SPROTO_ID_FILTER_VERSION, the same text form.
int ProtoWriteFilterVersion(Channel& ch, const FilterVersion& ver);
int ProtoReadFilterVersion(Channel& ch, FilterVersion& ver);

// ---- Keep-alive and the encryption service requests ----

// Asks the server to keep the connection alive for `seconds`: header SCMD_KEEP_ALIVE,
// option 0, control 1, the time, then a flush. 0 or a code.
int ProtoWriteKeepAliveControl(Channel& ch, uint32_t seconds);
// The oldest form: flush, header SCMD_REQUEST_SSL, flush. No reply is read. 0 or a code.
int ProtoWriteSSLServiceRequest(Channel& ch);
// Section form: header SCMD_REQUEST_SSL_2, the version, SPROTO_ID_SSL_OPTION, flush; then
// the reply's header (its command must be SCMD_REQUEST_SSL_2, else -5), SPROTO_ID_RES and,
// unless that is SPROTO_RES_UPGRADE, SPROTO_ID_SSL_RESPONSE_OPTION, into `resp`. 0 when the
// server agreed (SPROTO_RES_OK); a refusal maps by ProtoSSLResult; a channel or grammar
// failure gives its code.
int ProtoWriteSSLServiceRequest2OLD(Channel& ch, const SSLServiceReq& req,
                                    SSLServiceResponse& resp);
// PObject form: header SCMD_REQUEST_SSL_2 and the map {"_action": "encrypt_channel",
// "proto_ver", "ssl_option", "_agent"}; the reply is one PObject. 0 when the reply has no
// "error"; otherwise ProtoSSLResult("error"."code"); -2 when sending or receiving fails.
int ProtoWriteSSLServiceRequest2(Channel& ch, const SSLServiceReq& req);
// A refusal code of the service requests as a daemon code: 2 -7, 3 to 9 -3, 10 -10, any
// other -3.
int ProtoSSLResult(uint32_t code);

// ---- The PObject request form ----

// Adds "_agent" = {"platform", "version": {"major", "minor", "build"}} to a request map.
void AppendAgent(PObject& request);
// Queues the header (payload length 0, `cmd`) and sends `request` through `stream`, which
// flushes. 0; the header's channel code; or PStream::Send's code (-2 channel, -1 a binary's
// file).
int ProtoWriteObjectRequest(Channel& ch, PStream& stream, uint8_t cmd, const PObject& request);
// The reply to such a request: one bare PStream value, no header. 0 or PStream::Recv's code.
int ProtoReadObjectReply(Channel& ch, PStream& stream, PObject& reply);

// ---- File transfer ----
//
// A file goes as SPROTO_ID_DELTATYPE (is_delta), SPROTO_ID_DELTALEN (the whole length) and,
// unless that is 0, blocks of SPROTO_ID_DELTAID (counter from 0) and SPROTO_ID_DELTADATA
// (1 to the block size bytes). A length that is a multiple of the block has no empty block
// behind the last one. The first forms use PROTO_FILE_BLOCK, the 2 forms PROTO_FILE_BLOCK2.

// Sends the whole open file (rewound first). Never more and never fewer bytes than the
// length announced: a file that shrinks under way gives -5 (the stream is broken). 0, -3
// when the file's size or contents can't be read, or the channel's code.
int ProtoWriteFile(Channel& ch, uint8_t is_delta, platform::File& file);
// The same for a file named by path (-3 when it can't be opened).
int ProtoWriteFile(Channel& ch, uint8_t is_delta, const ustring& path);
// Sends from `offset` on; the announced length is still the whole file's. An offset above
// the size gives -3 after the two leading sections are queued.
int ProtoWriteFile2(Channel& ch, uint8_t is_delta, platform::File& file, uint64_t offset);
int ProtoWriteFile2(Channel& ch, uint8_t is_delta, const ustring& path, uint64_t offset);
// Receives a file into `path` (created or replaced). 0, -3 for a file error, -5 for a block
// beyond the announced length, or the channel's code. The bytes received stay in the file.
int ProtoReadFile(Channel& ch, uint8_t& is_delta, const ustring& path);
// Receives the rest of a file from `offset` on. Offset 0 replaces `path`; any other offset
// requires `path` to hold exactly `offset` bytes already (the temporary file of the
// interrupted transfer), else -3 before any section is read. An announced length below the
// offset gives -5.
int ProtoReadFile2(Channel& ch, uint8_t& is_delta, const ustring& path, uint64_t offset);

// ---- Texts and code tables ----

// A command's name for logs: the names of 1 to 22, "SCMD_PKG_VER_QUERY" for 23,
// "SCMD_GET_FOLDER_LIST" for 24, "Unknown command" otherwise. Static storage.
const char* ProtoCmd2String(int cmd);
// The text of a protocol outcome 0 to 4; "Unknown protocol error" above. `err` must not be
// negative. Static storage.
const char* ProtoGetErroString(int err);

// Which task turns a server error into a daemon code: the two differ in the transfer
// classes and in the name their log lines carry.
enum ProtoRespCaller {
    PROTO_RESP_SYNCER = 0,           // syncer: transfer classes are unhandled
    PROTO_RESP_PROGRESS_SYNCER = 1,  // progress syncer: the same table
    PROTO_RESP_WORKER = 2,           // worker: download, upload, remove classes give -1
};
// The server's error "code" of a PObject reply as a daemon code. Exact codes first
// (access denied -19, quota -15, disk full -16, invalid path in view -20, logged); then
// the class: user and session -6, view -18, version -10, internal 0 (logged: the caller
// settles it), for a worker download, upload and remove -1; any other class is logged as
// unhandled and gives 0, which callers take as success.
int ProtoResp2ErrorCode(uint32_t perr, ProtoRespCaller caller);
