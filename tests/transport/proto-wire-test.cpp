// What the protocol puts on the wire, byte for byte, what it reads back from the same bytes,
// what it refuses to write or read, and the fixed tables beside it.
#include <gtest/gtest.h>

#include <vector>

#include "foundation/error-code.h"
#include "transport/proto-common.h"
#include "transport/proto-test-util.h"

namespace {

using namespace prototest;

TEST(ProtoGoldenWire, SectionsAndRecordsWriteTheirBytesAndReadThemBack) {
    Wired w;
    ASSERT_EQ(ProtoWriteHeader(w.ch, 0x0102, SCMD_RESUME_TRANSFER), 0);
    ASSERT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_RES, uint8_t{0xAB}), 0);
    ASSERT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_PKG_MAJOR_VERSION, uint16_t{0x1234}), 0);
    ASSERT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_SEQID, uint32_t{0xDEADBEEF}), 0);
    ASSERT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_SID, uint64_t{0x0102030405060708}), 0);
    ASSERT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_PATH, ustring("/a/é")), 0);
    ASSERT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_PATCH_TOKEN, ustring()), 0);  // the last id
    ASSERT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_FILEHASH, "\x00\xff\x01", 3), 0);
    ASSERT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_VIEW_NAME, "ab\0\xff", 4), 0);
    ASSERT_EQ(ProtoWriteObjectId(w.ch, ObjectID{5, ustring("/f")}), 0);
    ASSERT_EQ(ProtoWriteView(w.ch, View{0x0100, ustring("v")}), 0);
    ASSERT_EQ(ProtoWriteObjectMetadata(w.ch, ObjectMetadata{0x11223344, 1ull << 40, ustring("h")}),
              0);
    ASSERT_EQ(ProtoWriteCommonAttributeBlock(w.ch, CommonAttributeBlock{7}), 0);
    ASSERT_EQ(ProtoWriteProtocolVersion(w.ch, ProtocolVersion{4, 0, 4294967295u}), 0);
    ASSERT_EQ(ProtoWriteFilterVersion(w.ch, FilterVersion{10, 0, 2570}), 0);
    ASSERT_EQ(ProtoWriteEncSection(w.ch, SPROTO_ID_PASSWD, ustring("secret")), 0);
    ASSERT_EQ(ProtoWriteEncSection(w.ch, SPROTO_ID_PASSWD, ustring()), 0);
    ASSERT_EQ(ProtoWriteEncString(w.ch, ustring("pässwörd-0123456789")), 0);
    const std::string golden =
        bytes({0x25, 0x52, 0x18, 0x14, 60, SCMD_RESUME_TRANSFER, 0x01, 0x02}) +
        bytes({0x01, 0xAB, 0x2F, 0x12, 0x34, 0x0C, 0xDE, 0xAD, 0xBE, 0xEF, 0x09, 1, 2, 3, 4, 5, 6,
               7, 8}) +
        bytes({SPROTO_ID_PATH, 0, 5}) + "/a/é" + bytes({SPROTO_ID_PATCH_TOKEN, 0, 0}) +
        var_section(SPROTO_ID_FILEHASH, std::string("\x00\xff\x01", 3)) +
        var_section(SPROTO_ID_VIEW_NAME, std::string("ab\0\xff", 4)) + bytes({SPROTO_ID_SID}) +
        be(5, 8) + var_section(SPROTO_ID_PATH, "/f") + bytes({SPROTO_ID_VIEW_ID}) + be(0x0100, 8) +
        var_section(SPROTO_ID_VIEW_NAME, "v") + bytes({SPROTO_ID_FILESIZE}) + be(1ull << 40, 8) +
        bytes({SPROTO_ID_FILETIME}) + be(0x11223344, 4) + var_section(SPROTO_ID_FILEHASH, "h") +
        bytes({SPROTO_ID_FILETIME}) + be(7, 4) +
        var_section(SPROTO_IDPROTO_VERSION_2, "4.0.4294967295") +
        var_section(SPROTO_ID_FILTER_VERSION, "10.0.2570") +
        var_section(SPROTO_ID_PASSWD, "rFT8wxzW") + var_section(SPROTO_ID_PASSWD, "") + be(28, 2) +
        "r/I7wgrVUBihlSpWbfVqz86yoYtI";
    EXPECT_EQ(w.sent(golden.size()), golden);
    EXPECT_TRUE(w.nothing_more());

    // The same bytes read back; a section's read gives its size on the wire.
    w.feed(golden + "!");
    uint16_t len = 0, u16 = 0;
    uint8_t cmd = 0, version = 0, u8 = 0;
    uint32_t u32 = 0;
    uint64_t u64 = 0;
    ustring path, token("stale"), name, secret, empty("stale"), text;
    char hash[3];
    size_t hash_len = 0;
    ObjectID id;
    View view;
    ObjectMetadata meta;
    CommonAttributeBlock attr;
    ProtocolVersion pv;
    FilterVersion fv;
    ASSERT_EQ(ProtoReadHeader(w.ch, len, cmd, version), 0);
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_RES, u8), 2);
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_PKG_MAJOR_VERSION, u16), 3);
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_SEQID, u32), 5);
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_SID, u64), 9);
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_PATH, path), 8);
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_PATCH_TOKEN, token), 3);
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_FILEHASH, hash, sizeof hash, hash_len), 6);
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_VIEW_NAME, name), 7);  // text ends at a zero byte
    ASSERT_EQ(ProtoReadObjectId(w.ch, id), 0);
    ASSERT_EQ(ProtoReadView(w.ch, view), 0);
    ASSERT_EQ(ProtoReadObjectMetadata(w.ch, meta), 0);
    ASSERT_EQ(ProtoReadCommonAttributeBlock(w.ch, attr), 0);
    ASSERT_EQ(ProtoReadProtocolVersion(w.ch, pv), 0);
    ASSERT_EQ(ProtoReadFilterVersion(w.ch, fv), 0);
    EXPECT_EQ(ProtoReadDecSection(w.ch, SPROTO_ID_PASSWD, secret), 11);
    EXPECT_EQ(ProtoReadDecSection(w.ch, SPROTO_ID_PASSWD, empty), 3);
    EXPECT_EQ(ProtoReadDecString(w.ch, text), 28);
    EXPECT_EQ(w.unread(1), "!");  // every read took its bytes and no more
    // Numbers and texts each compared as one list, in the order they were written.
    EXPECT_EQ((std::vector<uint64_t>{len, cmd, version, u8, u16, u32, u64, id.sync_id, view.view_id,
                                     meta.mtime, meta.size, attr.mtime, pv.major, pv.build,
                                     fv.major, fv.build}),
              (std::vector<uint64_t>{0x0102, SCMD_RESUME_TRANSFER, 60, 0xAB, 0x1234, 0xDEADBEEF,
                                     0x0102030405060708, 5, 0x0100, 0x11223344, 1ull << 40, 7, 4,
                                     4294967295u, 10, 2570}));
    EXPECT_EQ((std::vector<std::string>{path.str(), token.str(), std::string(hash, hash_len),
                                        name.str(), id.path.str(), view.name.str(), meta.hash.str(),
                                        secret.str(), empty.str(), text.str()}),
              (std::vector<std::string>{"/a/é", "", std::string("\x00\xff\x01", 3), "ab", "/f", "v",
                                        "h", "secret", "", "pässwörd-0123456789"}));
}

TEST(ProtoGoldenWire, KeepAliveControlServiceRequestAndAnotherVersionsHeader) {
    Wired w;
    ASSERT_EQ(ProtoWriteKeepAliveControl(w.ch, 300), 0);
    // Flushed by the call itself: read the wire without flushing again.
    EXPECT_EQ(w.sent(23, false), header(SCMD_KEEP_ALIVE) +
                                     bytes({SPROTO_ID_KEEP_ALIVE_OPTION, 0, 0, 0, 0}) +
                                     bytes({SPROTO_ID_KEEP_ALIVE_CONTROL, 0, 0, 0, 1}) +
                                     bytes({SPROTO_ID_ALIVE, 0, 0, 0x01, 0x2C}));
    ASSERT_EQ(ProtoWriteSSLServiceRequest(w.ch), 0);  // the oldest form is only a header
    EXPECT_EQ(w.sent(8, false), header(SCMD_REQUEST_SSL));
    ProtoInit(61);
    ASSERT_EQ(ProtoWriteHeader(w.ch, 0, SCMD_KEEP_ALIVE), 0);
    ProtoInit(PROTO_DEFAULT_VERSION);
    EXPECT_EQ(w.sent(8), header(SCMD_KEEP_ALIVE, 61));
    EXPECT_TRUE(w.nothing_more());
}

TEST(ProtoRefusedWrites, WrongWidthKindOrLengthQueuesNothing) {
    Wired w;
    EXPECT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_SID, uint32_t{1}), ERR_PROTO);
    EXPECT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_RES, uint64_t{1}), ERR_PROTO);
    EXPECT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_SID, ustring("x")), ERR_PROTO);
    EXPECT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_PATH, uint8_t{1}), ERR_PROTO);
    EXPECT_EQ(ProtoWriteSection(w.ch, 0, uint8_t{1}), ERR_PROTO);
    EXPECT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_LAST + 1, ustring("x")), ERR_PROTO);
    std::string too_long(PROTO_VAR_MAX + 1, 'x');
    EXPECT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_PATH, too_long.data(), too_long.size()), ERR_INVAL);
    EXPECT_EQ(ProtoWriteVarData(w.ch, nullptr, 1), ERR_INVAL);
    EXPECT_EQ(ProtoWriteVarData(w.ch, "x", -1), ERR_INVAL);
    EXPECT_EQ(ProtoWriteEncSection(w.ch, SPROTO_ID_SID, ustring("secret")), ERR_PROTO);
    // Too long to encipher: refused before the section's id is queued.
    EXPECT_EQ(ProtoWriteEncSection(w.ch, SPROTO_ID_PASSWD, ustring(std::string(2305, 'x'))),
              ERR_INVAL);
    EXPECT_TRUE(w.nothing_more());
}

TEST(ProtoRefusedReads, MalformedOrOverlongInputConsumesOnlyWhatItMust) {
    Wired w;
    w.feed(bytes({0x25, 0x52, 0x18, 0x15, 60, 9, 0, 0}) + header(7) +
           var_section(SPROTO_ID_PATH, "0123456789") + var_section(SPROTO_ID_PATH, "0123456789") +
           be(PROTO_STRING_MAX, 2) + std::string(PROTO_STRING_MAX, 'x') +
           be(PROTO_STRING_MAX + 1, 2) + var_section(SPROTO_IDPROTO_VERSION_2, "1.x.3") +
           var_section(SPROTO_ID_FILTER_VERSION, "7.8") +
           var_section(SPROTO_ID_PASSWD, "not base64!") + bytes({SPROTO_ID_PATH, 0x00, 0x09}) +
           "abc");
    w.hang_up();
    // A wrong width, kind, id or buffer fails before the connection is touched.
    uint32_t narrow = 0;
    ustring text("kept");
    char buf[4];
    size_t len = 3;
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_SID, narrow), ERR_PROTO);
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_SID, text), ERR_PROTO);
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_SID, buf, sizeof(buf), len), ERR_PROTO);
    EXPECT_EQ(ProtoReadSection(w.ch, 0, narrow), ERR_PROTO);
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_LAST + 1, text), ERR_PROTO);
    EXPECT_EQ(ProtoReadVarData(w.ch, nullptr, 4), ERR_INVAL);
    EXPECT_EQ(ProtoReadVarData(w.ch, buf, 0), ERR_INVAL);
    // A wrong magic consumes the whole header; the outputs are set only on success.
    uint16_t hlen = 0xFFFF;
    uint8_t cmd = 0xFF, version = 0xFF;
    EXPECT_EQ(ProtoReadHeader(w.ch, hlen, cmd, version), ERR_PROTO);
    EXPECT_EQ(cmd, 0xFF);
    ASSERT_EQ(ProtoReadHeader(w.ch, hlen, cmd, version), 0);
    EXPECT_EQ(cmd, 7);
    // Another section's id: only the id byte is taken, never a section skipped.
    uint64_t sid = 0;
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_SID, sid), ERR_PROTO);
    EXPECT_EQ(sid, 0u);
    EXPECT_EQ(w.unread(12), be(10, 2) + "0123456789");
    // Data longer than the buffer stays unread.
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_PATH, buf, sizeof(buf), len), ERR_PROTO);
    EXPECT_EQ(len, 3u);
    EXPECT_EQ(w.unread(10), "0123456789");
    std::string longest;
    EXPECT_EQ(ProtoReadString(w.ch, longest), static_cast<int>(PROTO_STRING_MAX));
    EXPECT_EQ(longest.size(), PROTO_STRING_MAX);
    std::u16string wide;
    EXPECT_EQ(ProtoReadString(w.ch, wide), ERR_PROTO);
    ProtocolVersion pv{9, 9, 9};
    FilterVersion fv;
    EXPECT_EQ(ProtoReadProtocolVersion(w.ch, pv), ERR_SYS);
    EXPECT_EQ(pv.major, 9u);
    EXPECT_EQ(ProtoReadFilterVersion(w.ch, fv), ERR_SYS);
    EXPECT_EQ(ProtoReadDecSection(w.ch, SPROTO_ID_PASSWD, text), ERR_PROTO);
    EXPECT_EQ(text, ustring("kept"));
    // Data cut short by the peer hanging up.
    EXPECT_EQ(ProtoReadSection(w.ch, SPROTO_ID_PATH, text), ERR_IO);
}

TEST(ProtoRefusedReads, ASilentPeerGivesTheChannelsTimeOut) {
    Wired w;
    w.ch.SetTimeout(1);
    uint16_t len;
    uint8_t cmd, version;
    EXPECT_EQ(ProtoReadHeader(w.ch, len, cmd, version), ERR_TIMEOUT);
}

TEST(ProtoTables, VersionOutcomesAndOutOfRangeCommands) {
    const std::pair<uint32_t, int> versions[] = {
        {60, PV_MATCH_SUPPORT},        {61, PV_UNMATCH_SUPPORT},      {69, PV_UNMATCH_SUPPORT},
        {70, PV_UNSUPPORT_OLD_CLIENT}, {79, PV_UNSUPPORT_OLD_CLIENT}, {59, PV_UNSUPPORT_OLD_SERVER},
        {0, PV_UNSUPPORT_OLD_SERVER}};
    for (auto [version, expected] : versions) EXPECT_EQ(ProtoCheck(version), expected) << version;
    // Names for log lines only; an index out of the table must not read past it.
    for (int unknown : {-1, 25}) EXPECT_STREQ(ProtoCmd2String(unknown), "Unknown command");
}

TEST(ProtoTables, ServerErrorsAsDaemonCodes) {
    // The server's code; what the syncers make of it; what a worker makes of it.
    const std::tuple<uint32_t, int, int> cases[] = {
        {SPROTO_ERR_ACCESS_DENY, ERR_PERMISS, ERR_PERMISS},
        {SPROTO_ERR_QUOTA, ERR_QUOTA, ERR_QUOTA},
        {SPROTO_ERR_DISKFULL, ERR_DISKFULL, ERR_DISKFULL},
        {SPROTO_ERR_VIEW_INVALID_PATH, ERR_VIEW_PATH, ERR_VIEW_PATH},
        {SPROTO_ERR_USER_PASSWD, ERR_AUTH, ERR_AUTH},
        {SPROTO_ERR_SESSION_MISS, ERR_AUTH, ERR_AUTH},
        {SPROTO_ERR_INVALID_VIEW_ID, ERR_VIEW, ERR_VIEW},
        {SPROTO_ERR_VERSION_TOO_LOW, ERR_VERSION, ERR_VERSION},
        // Settled by the callers: success as far as the mapping goes.
        {SPROTO_ERR_INTERNAL, ERR_OK, ERR_OK},
        {SPROTO_ERR_CONFLICT, ERR_OK, ERR_OK},
        // Only a worker knows what a failed transfer or removal means.
        {SPROTO_ERR_DOWNLOAD_NOFILE, ERR_OK, ERR_INT},
        {SPROTO_ERR_UPLOAD_NOBASE, ERR_OK, ERR_INT},
        {SPROTO_ERR_REMOVE_MODIFIED, ERR_OK, ERR_INT},
    };
    for (auto [code, syncer, worker] : cases) {
        SCOPED_TRACE(code);
        EXPECT_EQ(ProtoResp2ErrorCode(code, PROTO_RESP_SYNCER), syncer);
        EXPECT_EQ(ProtoResp2ErrorCode(code, PROTO_RESP_PROGRESS_SYNCER), syncer);
        EXPECT_EQ(ProtoResp2ErrorCode(code, PROTO_RESP_WORKER), worker);
    }
    const std::pair<uint32_t, int> refusals[] = {
        {SPROTO_RES_ERR, ERR_SERVER},   {SPROTO_RES_INVALID, ERR_SYS},
        {SPROTO_RES_CONFLICT, ERR_SYS}, {SPROTO_RES_UPGRADE, ERR_VERSION},
        {SPROTO_RES_OK, ERR_SYS},       {0x7000, ERR_SYS}};
    for (auto [code, expected] : refusals) EXPECT_EQ(ProtoSSLResult(code), expected) << code;
}

}  // namespace
