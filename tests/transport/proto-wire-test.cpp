// What the protocol puts on the wire, byte for byte, and the fixed tables beside it.
#include <gtest/gtest.h>

#include <cstdio>

#include "foundation/error-code.h"
#include "support/temp-dir.h"
#include "transport/proto-common.h"
#include "transport/proto-test-util.h"

namespace {

using prototest::be;
using prototest::bytes;
using prototest::var_section;
using prototest::Wired;

TEST(ProtoHeaderEncoding, MagicVersionCommandAndLength) {
    Wired w;
    ASSERT_EQ(ProtoWriteHeader(w.ch, 0, SCMD_EVT_PULL), 0);
    EXPECT_EQ(w.sent(8), bytes({0x25, 0x52, 0x18, 0x14, 60, 6, 0, 0}));
    ASSERT_EQ(ProtoWriteHeader(w.ch, 0x0102, SCMD_RESUME_TRANSFER), 0);
    EXPECT_EQ(w.sent(8), bytes({0x25, 0x52, 0x18, 0x14, 60, 27, 1, 2}));

    ProtoInit(61);
    ASSERT_EQ(ProtoWriteHeader(w.ch, 0, SCMD_KEEP_ALIVE), 0);
    ProtoInit(PROTO_DEFAULT_VERSION);
    EXPECT_EQ(w.sent(8), bytes({0x25, 0x52, 0x18, 0x14, 61, 2, 0, 0}));
    EXPECT_TRUE(w.nothing_more());
}

TEST(ProtoSectionEncoding, EachFixedWidth) {
    Wired w;
    ASSERT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_RES, uint8_t{0xAB}), 0);
    ASSERT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_PKG_MAJOR_VERSION, uint16_t{0x1234}), 0);
    ASSERT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_SEQID, uint32_t{0x01020304}), 0);
    ASSERT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_SID, uint64_t{0x0102030405060708}), 0);
    EXPECT_EQ(w.sent(2 + 3 + 5 + 9), bytes({0x01, 0xAB,                    //
                                            0x2F, 0x12, 0x34,              //
                                            0x0C, 0x01, 0x02, 0x03, 0x04,  //
                                            0x09, 1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(ProtoSectionEncoding, VariableSectionsFromBytesAndText) {
    Wired w;
    ASSERT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_PATH, ustring("/a/b")), 0);
    ASSERT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_FILEHASH, "\x00\xff", 2), 0);
    ASSERT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_USER, ustring()), 0);
    EXPECT_EQ(w.sent(7 + 5 + 3), bytes({0x07, 0x00, 0x04, '/', 'a', '/', 'b',  //
                                        0x10, 0x00, 0x02, 0x00, 0xFF,          //
                                        0x03, 0x00, 0x00}));
}

TEST(ProtoSectionEncoding, WrongWidthOrKindQueuesNothing) {
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
    ASSERT_EQ(ProtoWriteSection(w.ch, SPROTO_ID_RES, uint8_t{1}), 0);
    EXPECT_EQ(w.sent(2), bytes({0x01, 0x01}));
    EXPECT_TRUE(w.nothing_more());
}

TEST(ProtoRecordEncoding, VersionsAsText) {
    Wired w;
    ASSERT_EQ(ProtoWriteProtocolVersion(w.ch, ProtocolVersion{1, 2, 3}), 0);
    ASSERT_EQ(ProtoWriteFilterVersion(w.ch, FilterVersion{10, 0, 2570}), 0);
    EXPECT_EQ(w.sent(8 + 12), var_section(SPROTO_IDPROTO_VERSION_2, "1.2.3") +
                                  var_section(SPROTO_ID_FILTER_VERSION, "10.0.2570"));
}

TEST(ProtoRecordEncoding, ObjectIdViewAndMetadataInOrder) {
    Wired w;
    ASSERT_EQ(ProtoWriteObjectId(w.ch, ObjectID{5, ustring("/f")}), 0);
    ASSERT_EQ(ProtoWriteView(w.ch, View{0x0100, ustring("v")}), 0);
    ASSERT_EQ(ProtoWriteObjectMetadata(w.ch, ObjectMetadata{0x11223344, 9, ustring("h")}), 0);
    ASSERT_EQ(ProtoWriteCommonAttributeBlock(w.ch, CommonAttributeBlock{7}), 0);
    std::string expected =
        bytes({SPROTO_ID_SID}) + be(5, 8) + var_section(SPROTO_ID_PATH, "/f") +
        bytes({SPROTO_ID_VIEW_ID}) + be(0x0100, 8) + var_section(SPROTO_ID_VIEW_NAME, "v") +
        bytes({SPROTO_ID_FILESIZE}) + be(9, 8) + bytes({SPROTO_ID_FILETIME}) + be(0x11223344, 4) +
        var_section(SPROTO_ID_FILEHASH, "h") + bytes({SPROTO_ID_FILETIME}) + be(7, 4);
    EXPECT_EQ(w.sent(expected.size()), expected);
}

TEST(ProtoRecordEncoding, KeepAliveControl) {
    Wired w;
    ASSERT_EQ(ProtoWriteKeepAliveControl(w.ch, 300), 0);
    // Flushed by the call itself: read the wire without flushing again.
    EXPECT_EQ(loopback::read_some(w.peer, 23, 2000),
              bytes({0x25, 0x52, 0x18, 0x14, 60, SCMD_KEEP_ALIVE, 0, 0}) +
                  bytes({SPROTO_ID_KEEP_ALIVE_OPTION, 0, 0, 0, 0}) +
                  bytes({SPROTO_ID_KEEP_ALIVE_CONTROL, 0, 0, 0, 1}) +
                  bytes({SPROTO_ID_ALIVE, 0, 0, 0x01, 0x2C}));
}

TEST(ProtoSecretEncoding, EncipheredTextOfAKnownSecret) {
    Wired w;
    ASSERT_EQ(ProtoWriteEncSection(w.ch, SPROTO_ID_PASSWD, ustring("secret")), 0);
    ASSERT_EQ(ProtoWriteEncString(w.ch, ustring("pässwörd-0123456789")), 0);
    ASSERT_EQ(ProtoWriteEncSection(w.ch, SPROTO_ID_PASSWD, ustring()), 0);
    EXPECT_EQ(ProtoWriteEncSection(w.ch, SPROTO_ID_SID, ustring("secret")), ERR_PROTO);
    // Too long to encipher: refused before the section's id is queued.
    EXPECT_EQ(ProtoWriteEncSection(w.ch, SPROTO_ID_PASSWD, ustring(std::string(2305, 'x'))),
              ERR_INVAL);
    EXPECT_EQ(w.sent_all(), var_section(SPROTO_ID_PASSWD, "rFT8wxzW") + be(28, 2) +
                                "r/I7wgrVUBihlSpWbfVqz86yoYtI" + var_section(SPROTO_ID_PASSWD, ""));
}

// ---- files ----

struct FileWire {
    TempDir dir;
    Wired w;
    std::string path(const std::string& name) const { return dir / name; }
};

std::string file_head(int is_delta, uint64_t length) {
    return bytes({SPROTO_ID_DELTATYPE, is_delta, SPROTO_ID_DELTALEN}) + be(length, 8);
}

std::string block(uint32_t id, const std::string& data) {
    return bytes({SPROTO_ID_DELTAID}) + be(id, 4) + var_section(SPROTO_ID_DELTADATA, data);
}

TEST(ProtoFileEncoding, EmptyFileIsTwoSectionsAndNoBlock) {
    FileWire f;
    f.dir.write("empty", "");
    ASSERT_EQ(ProtoWriteFile(f.w.ch, 1, ustring(f.path("empty"))), 0);
    EXPECT_EQ(loopback::read_some(f.w.peer, 11, 2000), file_head(1, 0));
    ASSERT_EQ(ProtoWriteFile2(f.w.ch, 0, ustring(f.path("empty")), 0), 0);
    EXPECT_EQ(loopback::read_some(f.w.peer, 11, 2000), file_head(0, 0));
    EXPECT_TRUE(f.w.nothing_more());
}

TEST(ProtoFileEncoding, ExactlyOneBlockHasNoEmptyBlockBehind) {
    FileWire f;
    std::string data = prototest::pattern(PROTO_FILE_BLOCK);
    f.dir.write("one", data);
    ASSERT_EQ(ProtoWriteFile(f.w.ch, 0, ustring(f.path("one"))), 0);
    std::string expected = file_head(0, data.size()) + block(0, data);
    EXPECT_EQ(loopback::read_some(f.w.peer, expected.size(), 2000), expected);
    EXPECT_TRUE(f.w.nothing_more());
}

TEST(ProtoFileEncoding, OneBlockAndOneByteMakeTwoBlocks) {
    FileWire f;
    std::string data = prototest::pattern(PROTO_FILE_BLOCK + 1);
    f.dir.write("more", data);
    ASSERT_EQ(ProtoWriteFile(f.w.ch, 0, ustring(f.path("more"))), 0);
    std::string expected = file_head(0, data.size()) + block(0, data.substr(0, PROTO_FILE_BLOCK)) +
                           block(1, data.substr(PROTO_FILE_BLOCK));
    EXPECT_EQ(loopback::read_some(f.w.peer, expected.size(), 2000), expected);
    EXPECT_TRUE(f.w.nothing_more());
}

TEST(ProtoFileEncoding, SecondFormResumesAtItsOffsetInLargerBlocks) {
    FileWire f;
    std::string data = prototest::pattern(PROTO_FILE_BLOCK2 + 10);
    f.dir.write("big", data);
    ASSERT_EQ(ProtoWriteFile2(f.w.ch, 1, ustring(f.path("big")), 5), 0);
    // The length announced is the whole file's; the blocks carry what follows the offset.
    std::string expected = file_head(1, data.size()) + block(0, data.substr(5, PROTO_FILE_BLOCK2)) +
                           block(1, data.substr(5 + PROTO_FILE_BLOCK2));
    EXPECT_EQ(loopback::read_some(f.w.peer, expected.size(), 2000), expected);
    EXPECT_TRUE(f.w.nothing_more());
}

TEST(ProtoFileEncoding, ResumeAtTheEndSendsNoBlock) {
    FileWire f;
    f.dir.write("done", "abc");
    ASSERT_EQ(ProtoWriteFile2(f.w.ch, 0, ustring(f.path("done")), 3), 0);
    EXPECT_EQ(loopback::read_some(f.w.peer, 11, 2000), file_head(0, 3));
    EXPECT_TRUE(f.w.nothing_more());
}

TEST(ProtoFileEncoding, OffsetPastTheEndOrMissingFileFails) {
    FileWire f;
    f.dir.write("short", "abc");
    EXPECT_EQ(ProtoWriteFile2(f.w.ch, 0, ustring(f.path("short")), 4), ERR_SYS);
    EXPECT_EQ(f.w.sent(11), file_head(0, 3));  // already queued: the caller drops the connection
    EXPECT_EQ(ProtoWriteFile(f.w.ch, 0, ustring(f.path("absent"))), ERR_SYS);
    EXPECT_EQ(ProtoWriteFile(f.w.ch, 0, static_cast<FILE*>(nullptr)), ERR_INVAL);
    EXPECT_TRUE(f.w.nothing_more());
}

TEST(ProtoFileEncoding, SendsFromAnOpenStreamWhateverItsPosition) {
    FileWire f;
    f.dir.write("open", "hello");
    FILE* fp = std::fopen(f.path("open").c_str(), "rb");
    ASSERT_NE(fp, nullptr);
    std::fgetc(fp);
    ASSERT_EQ(ProtoWriteFile(f.w.ch, 0, fp), 0);
    std::fclose(fp);
    std::string expected = file_head(0, 5) + block(0, "hello");
    EXPECT_EQ(loopback::read_some(f.w.peer, expected.size(), 2000), expected);
}

// ---- tables ----

TEST(ProtoTables, SectionTableIsIndexedById) {
    EXPECT_EQ(ProtoGetSecAttr(0), nullptr);
    EXPECT_EQ(ProtoGetSecAttr(54), nullptr);
    EXPECT_EQ(ProtoGetSecAttr(255), nullptr);
    int variable = 0;
    for (int id = 1; id <= 53; ++id) {
        const SYNC_SECTION_ATTR* attr = ProtoGetSecAttr(static_cast<uint8_t>(id));
        ASSERT_NE(attr, nullptr) << id;
        EXPECT_EQ(attr->id, id);
        EXPECT_EQ(attr->headLen, attr->hasLen ? 3 : 1) << attr->name;
        EXPECT_EQ(attr->len == 0, attr->hasLen) << attr->name;
        if (!attr->hasLen) {
            EXPECT_TRUE(attr->len == 1 || attr->len == 2 || attr->len == 4 || attr->len == 8);
        }
        variable += attr->hasLen;
    }
    EXPECT_EQ(variable, 17);
    EXPECT_STREQ(ProtoGetSecAttr(SPROTO_ID_PATCH_TOKEN)->name, "SPROTO_ID_PATCH_TOKEN");
    EXPECT_EQ(ProtoGetSecAttr(SPROTO_ID_FILE_OFFSET)->len, 8);
    EXPECT_EQ(ProtoGetSecAttr(SPROTO_ID_PKG_MINOR_VERSION)->len, 2);
}

TEST(ProtoTables, ServerVersionCompatibility) {
    EXPECT_EQ(ProtoCheck(60), PV_MATCH_SUPPORT);
    EXPECT_EQ(ProtoCheck(61), PV_UNMATCH_SUPPORT);
    EXPECT_EQ(ProtoCheck(69), PV_UNMATCH_SUPPORT);
    EXPECT_EQ(ProtoCheck(70), PV_UNSUPPORT_OLD_CLIENT);
    EXPECT_EQ(ProtoCheck(79), PV_UNSUPPORT_OLD_CLIENT);
    EXPECT_EQ(ProtoCheck(59), PV_UNSUPPORT_OLD_SERVER);
    EXPECT_EQ(ProtoCheck(0), PV_UNSUPPORT_OLD_SERVER);
}

TEST(ProtoTables, CommandNamesFollowTheLogTable) {
    EXPECT_STREQ(ProtoCmd2String(0), "Unknown command");
    EXPECT_STREQ(ProtoCmd2String(SCMD_REQUEST), "SCMD_REQUEST");
    EXPECT_STREQ(ProtoCmd2String(SCMD_REQUEST_CONNECT), "SCMD_REQUEST_CONNECT");
    EXPECT_STREQ(ProtoCmd2String(SCMD_REQUEST_SSL_2), "SCMD_REQUEST_SSL_2");
    EXPECT_STREQ(ProtoCmd2String(23), "SCMD_PKG_VER_QUERY");
    EXPECT_STREQ(ProtoCmd2String(24), "SCMD_GET_FOLDER_LIST");
    EXPECT_STREQ(ProtoCmd2String(SCMD_RESUME_TRANSFER), "Unknown command");
    EXPECT_STREQ(ProtoCmd2String(-1), "Unknown command");
}

TEST(ProtoTables, ProtocolOutcomeTexts) {
    EXPECT_STREQ(ProtoGetErroString(0), "Protocol finished successfully");
    EXPECT_STREQ(ProtoGetErroString(3), "Protocol aborted due to authentication failure");
    EXPECT_STREQ(ProtoGetErroString(4), "Protocol aborted due to invalid argument");
    EXPECT_STREQ(ProtoGetErroString(5), "Unknown protocol error");
}

TEST(ProtoTables, ServerErrorsAsDaemonCodes) {
    for (ProtoRespCaller caller :
         {PROTO_RESP_SYNCER, PROTO_RESP_PROGRESS_SYNCER, PROTO_RESP_WORKER}) {
        SCOPED_TRACE(caller);
        EXPECT_EQ(ProtoResp2ErrorCode(SPROTO_ERR_ACCESS_DENY, caller), ERR_PERMISS);
        EXPECT_EQ(ProtoResp2ErrorCode(SPROTO_ERR_QUOTA, caller), ERR_QUOTA);
        EXPECT_EQ(ProtoResp2ErrorCode(SPROTO_ERR_DISKFULL, caller), ERR_DISKFULL);
        EXPECT_EQ(ProtoResp2ErrorCode(SPROTO_ERR_VIEW_INVALID_PATH, caller), ERR_VIEW_PATH);
        EXPECT_EQ(ProtoResp2ErrorCode(SPROTO_ERR_USER_PASSWD, caller), ERR_AUTH);
        EXPECT_EQ(ProtoResp2ErrorCode(SPROTO_ERR_SESSION_MISS, caller), ERR_AUTH);
        EXPECT_EQ(ProtoResp2ErrorCode(SPROTO_ERR_INVALID_VIEW_ID, caller), ERR_VIEW);
        EXPECT_EQ(ProtoResp2ErrorCode(SPROTO_ERR_VERSION_TOO_LOW, caller), ERR_VERSION);
        // Settled by the callers: success as far as the mapping goes.
        EXPECT_EQ(ProtoResp2ErrorCode(SPROTO_ERR_INTERNAL, caller), ERR_OK);
        EXPECT_EQ(ProtoResp2ErrorCode(SPROTO_ERR_SYSTEM, caller), ERR_OK);
        EXPECT_EQ(ProtoResp2ErrorCode(SPROTO_ERR_CONFLICT, caller), ERR_OK);
        EXPECT_EQ(ProtoResp2ErrorCode(SPROTO_ERR_ERR, caller), ERR_OK);
        EXPECT_EQ(ProtoResp2ErrorCode(SPROTO_ERR_RESUME_NOTOKEN, caller), ERR_OK);
    }
    // Only a worker knows what a failed transfer or removal means.
    EXPECT_EQ(ProtoResp2ErrorCode(SPROTO_ERR_DOWNLOAD_NOFILE, PROTO_RESP_WORKER), ERR_INT);
    EXPECT_EQ(ProtoResp2ErrorCode(SPROTO_ERR_UPLOAD_NOBASE, PROTO_RESP_WORKER), ERR_INT);
    EXPECT_EQ(ProtoResp2ErrorCode(SPROTO_ERR_REMOVE_MODIFIED, PROTO_RESP_WORKER), ERR_INT);
    EXPECT_EQ(ProtoResp2ErrorCode(SPROTO_ERR_DOWNLOAD_NOFILE, PROTO_RESP_SYNCER), ERR_OK);
    EXPECT_EQ(ProtoResp2ErrorCode(SPROTO_ERR_REMOVE, PROTO_RESP_PROGRESS_SYNCER), ERR_OK);
}

TEST(ProtoTables, ServiceRefusalsAsDaemonCodes) {
    EXPECT_EQ(ProtoSSLResult(SPROTO_RES_ERR), ERR_SERVER);
    EXPECT_EQ(ProtoSSLResult(SPROTO_RES_INVALID), ERR_SYS);
    EXPECT_EQ(ProtoSSLResult(SPROTO_RES_CONFLICT), ERR_SYS);
    EXPECT_EQ(ProtoSSLResult(SPROTO_RES_UPGRADE), ERR_VERSION);
    EXPECT_EQ(ProtoSSLResult(SPROTO_RES_OK), ERR_SYS);
    EXPECT_EQ(ProtoSSLResult(0x7000), ERR_SYS);
}

}  // namespace
