// Uploads, downloads and removals over the wire: whole and delta, the checks on bases and
// hashes, dedup through the dry run, and transfers resumed after a broken connection.
#include <gtest/gtest.h>

#include <filesystem>

#include "server-harness.h"

namespace {

namespace fs = std::filesystem;

class TransferFixture : public ::testing::Test {
  protected:
    TransferFixture() { fs::create_directories(h.dir / "recv"); }

    // An upload of `local`; for a delta, `result` is the file it must make.
    uint32_t Upload(const std::string& path, uint64_t base, const std::string& local,
                    PObject* reply = nullptr, const std::string& result = std::string()) {
        PObject r = client.Ask(SCMD_EVT_RECV_4,
                               UploadRequest(h.user, path, base, local, result, !result.empty()));
        if (reply) *reply = r;
        return WireClient::Code(r);
    }
    PObject Download(const std::string& path, uint64_t base, uint64_t target,
                     const std::string& token = std::string(), uint64_t offset = 0) {
        PObject req = h.Request("resume_download");
        req["path"] = path.c_str();
        req["sync_id"] = base;
        req["max_id"] = base;
        req["target_sync_id"] = target;
        req["file"]["offset"] = offset;
        if (!token.empty()) req["_resume_token"] = token.c_str();
        return client.Ask(SCMD_RESUME_TRANSFER, req);
    }
    static std::string Payload(const PObject& reply) {
        return ReadFile(reply["file"]["data"].asBinary().path.str());
    }
    std::string Token() {
        PObject reply = client.Ask(SCMD_RESUME_TRANSFER, h.Request("resume_get_token"));
        EXPECT_EQ(WireClient::Code(reply), 0u);
        return reply["resume_token"].asString().str();
    }

    ServerHarness h;
    WireClient client{h.port(), h.dir / "recv"};
};

TEST_F(TransferFixture, WholeThenDeltaUploadsAndTheChecksOnBasesAndHashes) {
    std::string v1_bytes = RandomBytes(200000, 1);
    std::string v2_bytes = v1_bytes;
    v2_bytes.replace(1000, 50, "a change in the middle of the file, fifty bytes..");
    std::string v1 = h.LocalFile("v1", v1_bytes), v2 = h.LocalFile("v2", v2_bytes);
    PObject r1, r2;
    ASSERT_EQ(Upload("/f.bin", 0, v1, &r1), 0u);
    uint64_t id1 = r1["sync_id"].asUInt64();
    EXPECT_EQ(r1["max_id"].asUInt64(), id1);
    EXPECT_FALSE(r1["is_dir"].asBool());
    EXPECT_TRUE(h.Stored("/f.bin") == v1_bytes);

    ASSERT_EQ(delta_ops::MakeDelta(v1, v2, h.dir / "sig", h.dir / "delta"), 0);
    ASSERT_LT(fs::file_size(h.dir / "delta"), 10000u);
    ASSERT_EQ(Upload("/f.bin", id1, h.dir / "delta", &r2, v2), 0u);
    uint64_t id2 = r2["sync_id"].asUInt64();
    EXPECT_GT(id2, id1);
    EXPECT_TRUE(h.Stored("/f.bin") == v2_bytes);

    // A base older than the present version is refused, and so is a new file over it; but
    // content the server holds already is no conflict whatever the base: a retry of an
    // upload whose answer was lost gets the present ids.
    PObject again;
    EXPECT_EQ(Upload("/f.bin", 0, v2, &again), 0u);
    EXPECT_EQ(again["sync_id"].asUInt64(), id2);
    std::string v3 = h.LocalFile("v3", RandomBytes(1000, 3));
    EXPECT_EQ(Upload("/f.bin", id1, v3), SPROTO_ERR_UPLOAD_BASE_CHANGED);
    EXPECT_EQ(Upload("/f.bin", 0, v3), SPROTO_ERR_CONFLICT);

    // A delta made against v1 but sent over v2 copies v1's changed stretch from v2: it
    // applies cleanly and makes the wrong file, so nothing is stored.
    v1_bytes.replace(150000, 10, "0123456789");
    std::string wanted = h.LocalFile("wanted", v1_bytes);
    ASSERT_EQ(delta_ops::MakeDelta(v1, wanted, h.dir / "sig", h.dir / "delta"), 0);
    fs::recursive_directory_iterator contents(h.options.data_dir + "/content");
    size_t contents_before = std::distance(contents, {});
    EXPECT_EQ(Upload("/f.bin", id2, h.dir / "delta", nullptr, wanted), SPROTO_ERR_UPLOAD_NOBASE);
    EXPECT_TRUE(h.Stored("/f.bin") == v2_bytes);
    EXPECT_EQ(h.store.LastSyncId(h.user.view_id), static_cast<int64_t>(id2));
    contents = fs::recursive_directory_iterator(h.options.data_dir + "/content");
    EXPECT_EQ(std::distance(contents, {}), contents_before);
    EXPECT_TRUE(fs::is_empty(h.options.data_dir + "/spool"));
}

TEST_F(TransferFixture, DirectoriesParentsAndTypeClashes) {
    std::string f = h.LocalFile("f", "file");
    PObject deep;
    ASSERT_EQ(Upload("/p/q/r.txt", 0, f, &deep), 0u);
    // The parent made for the file answers a directory upload with its ids.
    PObject dir = h.Request("upload");
    dir["path"] = "/p";
    dir["is_dir"] = true;
    PObject same = client.Ask(SCMD_EVT_RECV_4, dir);
    EXPECT_EQ(WireClient::Code(same), 0u);
    EXPECT_LT(same["sync_id"].asUInt64(), deep["sync_id"].asUInt64());
    EXPECT_EQ(same["max_id"].asUInt64(), deep["sync_id"].asUInt64());
    EXPECT_TRUE(same["is_dir"].asBool());
    dir["path"] = "/p/q/r.txt";
    EXPECT_EQ(client.CodeOf(SCMD_EVT_RECV_4, dir), SPROTO_ERR_CONFLICT);
    EXPECT_EQ(Upload("/p/q", 0, f), SPROTO_ERR_CONFLICT);
}

TEST_F(TransferFixture, DryRunFindsOnlyStoredContentAndAReferMustNameIt) {
    std::string a = h.LocalFile("a", RandomBytes(30000, 7));
    ASSERT_EQ(Upload("/a", 0, a), 0u);
    PObject dry = UploadRequest(h.user, "/copy/b", 0, a);
    dry["dry_run"] = true;
    dry["file"].asMap().erase("data");
    PObject answer = client.Ask(SCMD_EVT_RECV_4, dry);
    ASSERT_EQ(WireClient::Code(answer), 0u);
    uint64_t file_id = answer["file"]["file_id"].asUInt64();
    ASSERT_NE(file_id, 0u);
    EXPECT_FALSE(h.Exists("/copy/b")) << "a dry run changes nothing";

    // (A refer naming what the dry run found is what the end-to-end copies send.)
    PObject refer = dry;
    refer.asMap().erase("dry_run");
    refer["file"]["refer"] = true;

    // Content of another size is not the stored one.
    dry["path"] = "/c";
    dry["file"]["size"] = uint64_t{29999};
    EXPECT_EQ(client.Ask(SCMD_EVT_RECV_4, dry)["file"]["file_id"].asUInt64(), 0u);
    refer["path"] = "/d";
    refer["file"]["file_id"] = uint64_t{99999};
    EXPECT_EQ(client.CodeOf(SCMD_EVT_RECV_4, refer), SPROTO_ERR_UPLOAD_NOBASE);
}

TEST_F(TransferFixture, ResumableUploadContinuesAfterTheConnectionBrokeMidBinary) {
    std::string big = h.LocalFile("big", RandomBytes(600000, 9));
    std::string token = Token();
    h.WriteFaults("close-after resume_upload 250000 times=1\n");
    PObject req = UploadRequest(h.user, "/big.bin", 0, big, big, false, "resume_upload");
    req["_resume_token"] = token.c_str();
    PObject reply;
    EXPECT_LT(WireClient(h.port()).Call(SCMD_RESUME_TRANSFER, req, reply), 0);
    PObject status = h.Request("resume_get_status");
    status["_resume_token"] = token.c_str();
    PObject st = client.Ask(SCMD_RESUME_TRANSFER, status);
    ASSERT_EQ(WireClient::Code(st), 0u);
    uint64_t offset = st["file"]["offset"].asUInt64();
    EXPECT_GT(offset, 200000u);
    EXPECT_LT(offset, 250000u);
    EXPECT_FALSE(h.Exists("/big.bin"));

    PObject::binary_type& data = req["file"]["data"].asBinary();
    data.offset = offset;
    data.length -= offset;
    ASSERT_EQ(client.CodeOf(SCMD_RESUME_TRANSFER, req), 0u);
    EXPECT_TRUE(h.Stored("/big.bin") == ReadFile(big));
    // The token is spent with its upload.
    EXPECT_EQ(client.CodeOf(SCMD_RESUME_TRANSFER, status), SPROTO_ERR_RESUME_NOTOKEN);
}

TEST_F(TransferFixture, DownloadOfAnOlderVersionByReferenceAndResumedFromAnOffset) {
    std::string v1_bytes = RandomBytes(300000, 10);
    std::string v2_bytes = v1_bytes;
    v2_bytes.replace(150000, 20, "twenty changed bytes");
    ServerObject o1, o2;
    ASSERT_EQ(admin::Put(h.store, h.user.view_id, h.LocalFile("v1", v1_bytes), "/d/f", 77, o1), 0);
    ASSERT_EQ(admin::Put(h.store, h.user.view_id, h.LocalFile("v2", v2_bytes), "/d/f", 88, o2), 0);

    // (The newest version, whole or as a delta, is what every end-to-end download asks for.)
    // The version asked for while it is kept; refer when the client has it already.
    PObject old = Download("/d/f", 0, o1.sync_id);
    EXPECT_EQ(old["sync_id"].asUInt64(), o1.sync_id);
    EXPECT_EQ(old["file"]["hash"].asString().str(), o1.md4);
    PObject current = Download("/d/f", o2.sync_id, o2.sync_id);
    EXPECT_TRUE(current["file"]["refer"].asBool());
    EXPECT_FALSE(current["file"].hasMember("data"));
    PObject dir = Download("/d", 0, 0);
    EXPECT_TRUE(dir["is_dir"].asBool());
    EXPECT_FALSE(dir.hasMember("file"));

    // A token pins the payload; an offset gives the tail of the very same bytes.
    std::string token = Token();
    std::string payload = Payload(Download("/d/f", o1.sync_id, o2.sync_id, token));
    ASSERT_GT(payload.size(), 100u);
    PObject tail = Download("/d/f", o1.sync_id, o2.sync_id, token, 100);
    ASSERT_EQ(WireClient::Code(tail), 0u);
    EXPECT_TRUE(Payload(tail) == payload.substr(100));
    EXPECT_TRUE(tail["file"]["is_delta"].asBool());
    // Not for another base than the pinned one.
    EXPECT_EQ(WireClient::Code(Download("/d/f", 0, o2.sync_id, token, 100)), SPROTO_ERR_RESUME);
}

TEST_F(TransferFixture, DownloadAfterAnInsertAtTheFrontIsASmallDelta) {
    std::string v1_bytes = RandomBytes(16 << 20, 12);
    ServerObject o1, o2;
    ASSERT_EQ(admin::Put(h.store, h.user.view_id, h.LocalFile("v1", v1_bytes), "/big", 1, o1), 0);
    ASSERT_EQ(admin::Put(h.store, h.user.view_id, h.LocalFile("v2", "!" + v1_bytes), "/big", 2, o2),
              0);
    PObject reply = Download("/big", o1.sync_id, o2.sync_id);
    ASSERT_EQ(WireClient::Code(reply), 0u);
    ASSERT_TRUE(reply["file"]["is_delta"].asBool());
    std::string delta_file = reply["file"]["data"].asBinary().path.str();
    EXPECT_LT(fs::file_size(delta_file), v1_bytes.size() / 20);
    std::string md4;
    ASSERT_EQ(delta_ops::Patch(delta_file, h.dir / "v1", h.dir / "patched", md4), 0);
    EXPECT_EQ(md4, o2.md4);
}

TEST_F(TransferFixture, RemovalRefusesWhatTheClientHasNotSeen) {
    ServerObject f, g, d;
    ASSERT_EQ(admin::Put(h.store, h.user.view_id, h.LocalFile("x", "1"), "/d/f", 1, f), 0);
    ASSERT_EQ(admin::Put(h.store, h.user.view_id, h.LocalFile("x", "2"), "/d/g", 1, g), 0);
    ASSERT_EQ(h.store.GetObject(h.user.view_id, "/d", d), 1);
    auto remove = [&](const char* path, uint64_t sync_id, uint64_t max_id) {
        PObject req = h.Request("remove");
        req["path"] = path;
        req["sync_id"] = sync_id;
        req["max_id"] = max_id;
        return client.CodeOf(SCMD_EVT_REMOVE, req);
    };
    EXPECT_EQ(remove("/d/f", f.sync_id - 1, f.sync_id - 1), SPROTO_ERR_REMOVE_MODIFIED);
    // The client knew the directory only up to f: g is news to it.
    EXPECT_EQ(remove("/d", d.sync_id, f.sync_id), SPROTO_ERR_REMOVE_MODIFIED);
    EXPECT_EQ(remove("/d/g", g.sync_id, g.sync_id), 0u);
    // With g gone the directory holds nothing the client hasn't seen.
    EXPECT_EQ(remove("/d", d.sync_id, f.sync_id), 0u);
    EXPECT_FALSE(h.Exists("/d/f"));
}

}  // namespace
