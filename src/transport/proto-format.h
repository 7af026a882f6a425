// proto-format.h: the server protocol's wire constants in one place: the message header,
// the command numbers, the section table, the result and error codes of replies and the
// limits of file transfer. Both proto-common and the test peer that plays the server read
// them from here; no other file repeats a number of this list.
//
// A message is an 8-byte header (all integers big-endian)
//   offset 0  4 bytes  magic, PROTO_MAGIC
//   offset 4  1 byte   protocol version (PROTO_VERSION of the sender)
//   offset 5  1 byte   command, an SCMD_ value
//   offset 6  2 bytes  payload length; the daemon always writes 0, lengths live in sections
// followed either by sections or by one PStream value (a map naming itself in "_action").
// A section is a one-byte id and its data:
//   fixed     id, then 1, 2, 4 or 8 bytes of integer (the width the table gives the id)
//   variable  id, then a 16-bit length N, then N bytes
// The grammar is strictly ordered: a reader always knows which section comes next, and
// sections can't be skipped.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint32_t PROTO_MAGIC = 0x25521814;        // first four bytes of every message
constexpr uint8_t PROTO_DEFAULT_VERSION = 60;       // our protocol version until ProtoInit
constexpr size_t PROTO_HEADER_SIZE = 8;             // magic, version, command, payload length
constexpr uint32_t PROTO_HEADER_STEP_TIMEOUT = 10;  // seconds per step once a message began

constexpr size_t PROTO_FIXED_HEAD = 1;     // bytes in front of a fixed section's data (the id)
constexpr size_t PROTO_VAR_HEAD = 3;       // bytes in front of a variable section's data
constexpr size_t PROTO_VAR_MAX = 0xFFFF;   // the 16-bit length field's limit
constexpr size_t PROTO_STRING_MAX = 8192;  // longest string a read accepts

constexpr size_t PROTO_FILE_BLOCK = 8192;            // file block of the first generation
constexpr size_t PROTO_FILE_BLOCK2 = 0xE000;         // file block of the 2 forms, 57344 bytes
constexpr uint32_t PROTO_FILE_REPORT_BLOCKS = 1280;  // blocks between progress lines

// Protocol versions a server may announce (ProtoCheck).
constexpr uint32_t PROTO_VERSION_MATCH = 60;   // exactly ours
constexpr uint32_t PROTO_VERSION_OLDEST = 60;  // below it: the server is too old
constexpr uint32_t PROTO_VERSION_NEWEST = 69;  // above it, units cut: the client is too old

// Command byte of the header (_SYNC_PROTO_CMD_tag).
enum _SYNC_PROTO_CMD_tag : uint8_t {
    SCMD_REQUEST = 1,
    SCMD_KEEP_ALIVE = 2,
    SCMD_AUTH = 3,
    SCMD_NOTIFY = 4,
    SCMD_LOGOUT = 5,
    SCMD_EVT_PULL = 6,
    SCMD_EVT_RECV = 7,
    SCMD_NEW_EVT_INFO = 8,
    SCMD_EVT_SEND = 9,
    SCMD_USER_CTRL = 10,
    SCMD_TEST_CONN = 11,
    SCMD_RESPONSE = 12,
    SCMD_USER_CHECK = 13,
    SCMD_REQUEST_CONNECT = 14,
    SCMD_EVT_REMOVE = 15,
    SCMD_GET_FILTER = 16,
    SCMD_LIST_VIEW = 17,
    SCMD_AUTH_2 = 18,
    SCMD_EVT_RECV_2 = 19,
    SCMD_REQUEST_SSL = 20,
    SCMD_EVT_RECV_3 = 21,
    SCMD_REQUEST_SSL_2 = 22,
    SCMD_EVT_RECV_4 = 23,
    SCMD_EVT_SEND_2 = 24,
    SCMD_QUERY_SERVER_INFO = 25,
    SCMD_LIST = 26,
    SCMD_RESUME_TRANSFER = 27,
};

// Section ids. The width of each is in kSectionAttrs below.
enum SPROTO_ID : uint8_t {
    SPROTO_ID_RES = 1,
    SPROTO_ID_TYPE = 2,
    SPROTO_ID_USER = 3,
    SPROTO_ID_PASSWD = 4,
    SPROTO_ID_CLIENT = 5,
    SPROTO_ID_SESSION = 6,
    SPROTO_ID_PATH = 7,
    SPROTO_ID_NOTIFY = 8,
    SPROTO_ID_SID = 9,
    SPROTO_ID_PREFIX = 10,
    SPROTO_ID_EVT_COUNT = 11,
    SPROTO_ID_SEQID = 12,
    SPROTO_ID_EVTID = 13,
    SPROTO_ID_FILETYPE = 14,
    SPROTO_ID_FILESTATUS = 15,
    SPROTO_ID_FILEHASH = 16,
    SPROTO_ID_FILETIME = 17,
    SPROTO_ID_FILESIZE = 18,
    SPROTO_ID_FILEUPDATER = 19,
    SPROTO_ID_FILEOP = 20,
    SPROTO_ID_DELTALEN = 21,
    SPROTO_ID_DELTADATA = 22,
    SPROTO_ID_DELTACOUNT = 23,
    SPROTO_ID_DELTAID = 24,
    SPROTO_ID_DELTATYPE = 25,
    SPROTO_ID_USRENABLE = 26,
    SPROTO_ID_SERIAL_NUMBER = 27,
    SPROTO_IDPROTO_VERSION = 28,
    SPROTO_ID_SERVER_ID = 29,
    SPROTO_ID_ALIVE = 30,
    SPROTO_ID_DATA_BLOCK = 31,
    SPROTO_ID_SYNC_BLOCK = 32,
    SPROTO_ID_MACHASH = 33,
    SPROTO_ID_MACSIZE = 34,
    SPROTO_ID_AUTH_TYPE = 35,
    SPROTO_ID_VIEW_ID = 36,
    SPROTO_ID_VIEW_NAME = 37,
    SPROTO_ID_VIEW_COUNT = 38,
    SPROTO_ID_META_BLOCK = 39,
    SPROTO_ID_FILTER_VERSION = 40,
    SPROTO_IDPROTO_VERSION_2 = 41,
    SPROTO_ID_KEEP_ALIVE_OPTION = 42,
    SPROTO_ID_KEEP_ALIVE_CONTROL = 43,
    SPROTO_ID_ACK_OPTION = 44,
    SPROTO_ID_SSL_OPTION = 45,
    SPROTO_ID_SSL_RESPONSE_OPTION = 46,
    SPROTO_ID_PKG_MAJOR_VERSION = 47,
    SPROTO_ID_PKG_MINOR_VERSION = 48,
    SPROTO_ID_PKG_BUILDNUM = 49,
    SPROTO_ID_FOLDER_COUNT = 50,
    SPROTO_ID_JOB_TOKEN = 51,
    SPROTO_ID_FILE_OFFSET = 52,
    SPROTO_ID_PATCH_TOKEN = 53,
    SPROTO_ID_LAST = 53,  // highest id of the table
};

// One row of the section table.
struct SYNC_SECTION_ATTR {
    uint8_t id;
    bool hasLen;       // variable section: a 16-bit length precedes the data
    uint16_t headLen;  // bytes in front of the data: PROTO_FIXED_HEAD or PROTO_VAR_HEAD
    uint16_t len;      // width of a fixed section's data; 0 for a variable one
    const char* name;
};

#define TB_FIXED(id, width) \
    { id, false, PROTO_FIXED_HEAD, width, #id }
#define TB_VAR(id) \
    { id, true, PROTO_VAR_HEAD, 0, #id }
// Indexed by id - 1; ProtoGetSecAttr is the way in.
inline constexpr SYNC_SECTION_ATTR kSectionAttrs[SPROTO_ID_LAST] = {
    TB_FIXED(SPROTO_ID_RES, 1),
    TB_FIXED(SPROTO_ID_TYPE, 1),
    TB_VAR(SPROTO_ID_USER),
    TB_VAR(SPROTO_ID_PASSWD),
    TB_VAR(SPROTO_ID_CLIENT),
    TB_VAR(SPROTO_ID_SESSION),
    TB_VAR(SPROTO_ID_PATH),
    TB_FIXED(SPROTO_ID_NOTIFY, 1),
    TB_FIXED(SPROTO_ID_SID, 8),
    TB_VAR(SPROTO_ID_PREFIX),
    TB_FIXED(SPROTO_ID_EVT_COUNT, 8),
    TB_FIXED(SPROTO_ID_SEQID, 4),
    TB_FIXED(SPROTO_ID_EVTID, 8),
    TB_FIXED(SPROTO_ID_FILETYPE, 1),
    TB_FIXED(SPROTO_ID_FILESTATUS, 1),
    TB_VAR(SPROTO_ID_FILEHASH),
    TB_FIXED(SPROTO_ID_FILETIME, 4),
    TB_FIXED(SPROTO_ID_FILESIZE, 8),
    TB_VAR(SPROTO_ID_FILEUPDATER),
    TB_FIXED(SPROTO_ID_FILEOP, 1),
    TB_FIXED(SPROTO_ID_DELTALEN, 8),
    TB_VAR(SPROTO_ID_DELTADATA),
    TB_FIXED(SPROTO_ID_DELTACOUNT, 4),
    TB_FIXED(SPROTO_ID_DELTAID, 4),
    TB_FIXED(SPROTO_ID_DELTATYPE, 1),
    TB_FIXED(SPROTO_ID_USRENABLE, 1),
    TB_VAR(SPROTO_ID_SERIAL_NUMBER),
    TB_FIXED(SPROTO_IDPROTO_VERSION, 1),
    TB_VAR(SPROTO_ID_SERVER_ID),
    TB_FIXED(SPROTO_ID_ALIVE, 4),
    TB_FIXED(SPROTO_ID_DATA_BLOCK, 4),
    TB_FIXED(SPROTO_ID_SYNC_BLOCK, 4),
    TB_VAR(SPROTO_ID_MACHASH),
    TB_FIXED(SPROTO_ID_MACSIZE, 8),
    TB_FIXED(SPROTO_ID_AUTH_TYPE, 1),
    TB_FIXED(SPROTO_ID_VIEW_ID, 8),
    TB_VAR(SPROTO_ID_VIEW_NAME),
    TB_FIXED(SPROTO_ID_VIEW_COUNT, 4),
    TB_FIXED(SPROTO_ID_META_BLOCK, 4),
    TB_VAR(SPROTO_ID_FILTER_VERSION),
    TB_VAR(SPROTO_IDPROTO_VERSION_2),
    TB_FIXED(SPROTO_ID_KEEP_ALIVE_OPTION, 4),
    TB_FIXED(SPROTO_ID_KEEP_ALIVE_CONTROL, 4),
    TB_FIXED(SPROTO_ID_ACK_OPTION, 4),
    TB_FIXED(SPROTO_ID_SSL_OPTION, 4),
    TB_FIXED(SPROTO_ID_SSL_RESPONSE_OPTION, 4),
    TB_FIXED(SPROTO_ID_PKG_MAJOR_VERSION, 2),
    TB_FIXED(SPROTO_ID_PKG_MINOR_VERSION, 2),
    TB_FIXED(SPROTO_ID_PKG_BUILDNUM, 4),
    TB_FIXED(SPROTO_ID_FOLDER_COUNT, 4),
    TB_VAR(SPROTO_ID_JOB_TOKEN),
    TB_FIXED(SPROTO_ID_FILE_OFFSET, 8),
    TB_VAR(SPROTO_ID_PATCH_TOKEN),
};
#undef TB_FIXED
#undef TB_VAR

// Result codes of first-generation replies, in SPROTO_ID_RES (_SYNC_PROTO_RESPONSE_tag).
enum _SYNC_PROTO_RESPONSE_tag : uint8_t {
    SPROTO_RES_OK = 1,
    SPROTO_RES_ERR = 2,
    SPROTO_RES_INVALID = 3,
    SPROTO_RES_USRERR = 4,
    SPROTO_RES_PASSERR = 5,
    SPROTO_RES_CLIENTERR = 6,
    SPROTO_RES_SESSIONERR = 7,
    SPROTO_RES_IDERR = 8,
    SPROTO_RES_CONFLICT = 9,
    SPROTO_RES_UPGRADE = 10,
    SPROTO_RES_NOENT = 11,
    SPROTO_RES_USERDISABLED = 12,
    SPROTO_RES_YRMDISABLED = 13,
    SPROTO_RES_QUOTA = 14,
    SPROTO_RES_DISKFULL = 15,
    SPROTO_RES_UPTODATE = 16,
    SPROTO_RES_WAIT = 17,
    SPROTO_RES_FILTER_VERSION = 18,
    SPROTO_RES_INVALID_VIEW = 19,
    SPROTO_RES_SHARE_DISABLED = 20,
    SPROTO_RES_SHARE_YRM_DISABLED = 21,
    SPROTO_RES_SHARE_ACCESS_DENIED = 22,
};

// Error codes of PObject replies, in "error"."code" (_SYNC_PROTO_ERR_tag). The high four
// bits of the 16-bit value are the class; SPROTO_ERR_CLASS_MASK takes them.
enum _SYNC_PROTO_ERR_tag : uint32_t {
    SPROTO_ERR_OK = 1,
    SPROTO_ERR_ERR = 2,
    SPROTO_ERR_UPGRADE = 10,
    SPROTO_ERR_USER = 0x1000,
    SPROTO_ERR_USER_DISABLE = 0x1001,
    SPROTO_ERR_USER_YRM_DISABLE = 0x1002,
    SPROTO_ERR_USER_HOME_DISABLE = 0x1003,
    SPROTO_ERR_USER_PASSWD = 0x1004,
    SPROTO_ERR_SESSION = 0x2000,
    SPROTO_ERR_SESSION_MISS = 0x2001,
    SPROTO_ERR_VIEW = 0x3000,
    SPROTO_ERR_INVALID_VIEW_ID = 0x3001,
    SPROTO_ERR_ACCESS_DENY = 0x3002,
    SPROTO_ERR_VIEW_INVALID_PATH = 0x3003,
    SPROTO_ERR_SYSTEM = 0x4000,
    SPROTO_ERR_QUOTA = 0x4001,
    SPROTO_ERR_DISKFULL = 0x4002,
    SPROTO_ERR_VERSION = 0x5000,
    SPROTO_ERR_VERSION_TOO_LOW = 0x5001,
    SPROTO_ERR_VERSION_TOO_HIGH = 0x5002,
    SPROTO_ERR_CONFLICT = 0x6000,
    SPROTO_ERR_CONFLICT_MAC_ATTR = 0x6001,
    SPROTO_ERR_INTERNAL = 0x7000,
    SPROTO_ERR_DOWNLOAD = 0x8000,
    SPROTO_ERR_DOWNLOAD_NOFILE = 0x8001,
    SPROTO_ERR_UPLOAD = 0x9000,
    SPROTO_ERR_UPLOAD_NOBASE = 0x9001,
    SPROTO_ERR_UPLOAD_BASE_CHANGED = 0x9002,
    SPROTO_ERR_REMOVE = 0xA000,
    SPROTO_ERR_REMOVE_NOFILE = 0xA001,
    SPROTO_ERR_REMOVE_MODIFIED = 0xA002,
    SPROTO_ERR_RESUME = 0xB000,
    SPROTO_ERR_RESUME_NOTOKEN = 0xB001,
};
constexpr uint32_t SPROTO_ERR_CLASS_MASK = 0xF000;

// What every PObject request carries under "_agent": who is asking. The platform is the
// one this client really runs on, so a server can tell a case-sensitive client apart;
// the version is the protocol generation the server knows this client by.
constexpr const char* PROTO_AGENT_PLATFORM = "Linux";
constexpr uint64_t PROTO_AGENT_MAJOR = 2;
constexpr uint64_t PROTO_AGENT_MINOR = 1;
constexpr uint64_t PROTO_AGENT_BUILD = 2570;
