// Uploads, downloads and removals over the wire: whole and delta, the checks on bases and
// hashes, dedup through the dry run, and transfers resumed after a broken connection.
#include <gtest/gtest.h>

#include <filesystem>

#include "delta-ops.h"
#include "server-harness.h"

namespace {

std::string Md4(const std::string& path) {
    std::string md4;
    EXPECT_EQ(delta_ops::HashFile(path, md4), 0);
    return md4;
}

class TransferFixture : public ::testing::Test {
  protected:
    TransferFixture() { std::filesystem::create_directories(h.dir / "recv"); }

    // An upload of `local` (whole, or a delta file whose result is `result`).
    PObject Upload(const std::string& path, uint64_t base, const std::string& local,
                   const std::string& result, bool is_delta, const char* action = "upload") {
        PObject req = h.Request(action);
        req["path"] = path.c_str();
        req["sync_id"] = base;
        req["max_id"] = base;
        req["is_dir"] = false;
        req["common_attribute"]["mtime"] = static_cast<uint64_t>(1234);
        req["mtime"]["refer"] = false;
        req["mtime"]["mtime"] = static_cast<uint64_t>(1234);
        req["exec_bit"]["refer"] = true;
        req["mac_attribute"]["refer"] = true;
        PObject& file = req["file"];
        file["hash"] = Md4(result).c_str();
        file["size"] = static_cast<uint64_t>(std::filesystem::file_size(result));
        file["refer"] = false;
        file["is_delta"] = is_delta;
        PObject::binary_type data;
        data.path = local.c_str();
        data.length = std::filesystem::file_size(local);
        file["data"] = data;
        return req;
    }
    PObject Call(uint8_t cmd, const PObject& req) {
        PObject reply;
        EXPECT_EQ(client.Call(cmd, req, reply), 0);
        return reply;
    }
    // The bytes the server holds for a path now.
    std::string Stored(const std::string& path) {
        ServerObject obj;
        EXPECT_EQ(h.store.GetObject(h.user.view_id, path, obj), 1) << path;
        return ReadFile(h.store.contents().PathOf(obj.content_id));
    }
    PObject Download(const std::string& path, uint64_t base, uint64_t target,
                     const std::string& token = std::string(), uint64_t offset = 0) {
        PObject req = h.Request("resume_download");
        req["path"] = path.c_str();
        req["sync_id"] = base;
        req["max_id"] = base;
        req["target_sync_id"] = target;
        req["file"]["ignore"] = false;
        req["file"]["offset"] = offset;
        req["mtime"]["ignore"] = false;
        req["force_current_version"] = false;
        if (!token.empty()) req["_resume_token"] = token.c_str();
        return Call(SCMD_RESUME_TRANSFER, req);
    }
    std::string Token() {
        PObject reply = Call(SCMD_RESUME_TRANSFER, h.Request("resume_get_token"));
        EXPECT_EQ(WireClient::Code(reply), 0u);
        return reply["resume_token"].asString().str();
    }

    ServerHarness h;
    WireClient client{h.port(), h.dir / "recv"};
};

TEST_F(TransferFixture, WholeUploadThenADeltaAgainstTheKeptBase) {
    std::string v1 = h.LocalFile("v1", RandomBytes(200000, 1));
    std::string v2_bytes = ReadFile(v1);
    v2_bytes.replace(1000, 50, "a change in the middle of the file, fifty bytes..");
    std::string v2 = h.LocalFile("v2", v2_bytes);
    PObject r1 = Call(SCMD_EVT_RECV_4, Upload("/f.bin", 0, v1, v1, false));
    ASSERT_EQ(WireClient::Code(r1), 0u);
    uint64_t id1 = r1["sync_id"].asUInt64();
    EXPECT_EQ(r1["max_id"].asUInt64(), id1);
    EXPECT_FALSE(r1["is_dir"].asBool());
    EXPECT_TRUE(Stored("/f.bin") == ReadFile(v1));

    ASSERT_EQ(delta_ops::MakeDelta(v1, v2, h.dir / "sig", h.dir / "delta"), 0);
    ASSERT_LT(std::filesystem::file_size(h.dir / "delta"), 10000u);
    PObject r2 = Call(SCMD_EVT_RECV_4, Upload("/f.bin", id1, h.dir / "delta", v2, true));
    ASSERT_EQ(WireClient::Code(r2), 0u);
    EXPECT_GT(r2["sync_id"].asUInt64(), id1);
    EXPECT_TRUE(Stored("/f.bin") == v2_bytes);

    // A base older than the present version is refused, and so is a new file over it.
    EXPECT_EQ(WireClient::Code(Call(SCMD_EVT_RECV_4, Upload("/f.bin", id1, v1, v1, false))),
              static_cast<uint32_t>(SPROTO_ERR_UPLOAD_BASE_CHANGED));
    // Content the server holds already is no conflict, whatever the base: a retry of an
    // upload whose answer was lost gets the present ids.
    PObject again = Call(SCMD_EVT_RECV_4, Upload("/f.bin", 0, v2, v2, false));
    EXPECT_EQ(WireClient::Code(again), 0u);
    EXPECT_EQ(again["sync_id"].asUInt64(), r2["sync_id"].asUInt64());
    std::string v3 = h.LocalFile("v3", RandomBytes(1000, 3));
    EXPECT_EQ(WireClient::Code(Call(SCMD_EVT_RECV_4, Upload("/f.bin", id1, v3, v3, false))),
              static_cast<uint32_t>(SPROTO_ERR_UPLOAD_BASE_CHANGED));
    EXPECT_EQ(WireClient::Code(Call(SCMD_EVT_RECV_4, Upload("/f.bin", 0, v3, v3, false))),
              static_cast<uint32_t>(SPROTO_ERR_CONFLICT));
}

TEST_F(TransferFixture, ADeltaWhoseResultHashesWrongStoresNothing) {
    std::string base = RandomBytes(50000, 4);
    std::string v1 = h.LocalFile("v1", base);
    // The client's idea of the base differs from the server's in the middle, so a delta
    // that copies from there applies cleanly and makes the wrong file.
    base.replace(10000, 10000, RandomBytes(10000, 5));
    std::string other = h.LocalFile("other", base);
    base.replace(40000, 10, "0123456789");
    std::string v2 = h.LocalFile("v2", base);
    PObject r1 = Call(SCMD_EVT_RECV_4, Upload("/f", 0, v1, v1, false));
    ASSERT_EQ(WireClient::Code(r1), 0u);
    ASSERT_EQ(delta_ops::MakeDelta(other, v2, h.dir / "sig", h.dir / "delta"), 0);
    uint64_t contents_before = std::distance(
        std::filesystem::recursive_directory_iterator(h.options.data_dir + "/content"),
        std::filesystem::recursive_directory_iterator());
    PObject bad =
        Call(SCMD_EVT_RECV_4, Upload("/f", r1["sync_id"].asUInt64(), h.dir / "delta", v2, true));
    EXPECT_EQ(WireClient::Code(bad), static_cast<uint32_t>(SPROTO_ERR_UPLOAD_NOBASE));
    EXPECT_TRUE(Stored("/f") == ReadFile(v1));
    EXPECT_EQ(h.store.LastSyncId(h.user.view_id), static_cast<int64_t>(r1["sync_id"].asUInt64()));
    uint64_t contents_after = std::distance(
        std::filesystem::recursive_directory_iterator(h.options.data_dir + "/content"),
        std::filesystem::recursive_directory_iterator());
    EXPECT_EQ(contents_after, contents_before);
    EXPECT_TRUE(std::filesystem::is_empty(h.options.data_dir + "/spool"));
    // Whole content that doesn't match its hash is refused too.
    PObject lie = Upload("/g", 0, v1, v2, false);
    lie["file"]["size"] = static_cast<uint64_t>(50000);
    EXPECT_EQ(WireClient::Code(Call(SCMD_EVT_RECV_4, lie)),
              static_cast<uint32_t>(SPROTO_ERR_UPLOAD));
    ServerObject none;
    EXPECT_EQ(h.store.GetObject(h.user.view_id, "/g", none), 0);
    // A delta for a path with nothing to apply it to.
    EXPECT_EQ(WireClient::Code(Call(SCMD_EVT_RECV_4, Upload("/h", 7, h.dir / "delta", v2, true))),
              static_cast<uint32_t>(SPROTO_ERR_UPLOAD_NOBASE));
}

TEST_F(TransferFixture, DirectoriesParentsAndTypeClashes) {
    std::string f = h.LocalFile("f", "file");
    PObject deep = Call(SCMD_EVT_RECV_4, Upload("/p/q/r.txt", 0, f, f, false));
    ASSERT_EQ(WireClient::Code(deep), 0u);
    ServerObject p, q;
    ASSERT_EQ(h.store.GetObject(h.user.view_id, "/p", p), 1);
    ASSERT_EQ(h.store.GetObject(h.user.view_id, "/p/q", q), 1);
    EXPECT_TRUE(p.is_dir && q.is_dir);
    EXPECT_EQ(p.max_id, deep["sync_id"].asUInt64());

    PObject dir = h.Request("upload");
    dir["path"] = "/p";
    dir["is_dir"] = true;
    dir["common_attribute"]["mtime"] = static_cast<uint64_t>(5);
    PObject same = Call(SCMD_EVT_RECV_4, dir);
    EXPECT_EQ(WireClient::Code(same), 0u);
    EXPECT_EQ(same["sync_id"].asUInt64(), p.sync_id);
    EXPECT_EQ(same["max_id"].asUInt64(), p.max_id);
    EXPECT_TRUE(same["is_dir"].asBool());
    dir["path"] = "/p/q/r.txt";
    EXPECT_EQ(WireClient::Code(Call(SCMD_EVT_RECV_4, dir)),
              static_cast<uint32_t>(SPROTO_ERR_CONFLICT));
    EXPECT_EQ(WireClient::Code(Call(SCMD_EVT_RECV_4, Upload("/p/q", 0, f, f, false))),
              static_cast<uint32_t>(SPROTO_ERR_CONFLICT));
    EXPECT_EQ(WireClient::Code(Call(SCMD_EVT_RECV_4, Upload("/p/q/r.txt/x", 0, f, f, false))),
              static_cast<uint32_t>(SPROTO_ERR_CONFLICT));
    EXPECT_EQ(WireClient::Code(Call(SCMD_EVT_RECV_4, Upload("/p/../etc", 0, f, f, false))),
              static_cast<uint32_t>(SPROTO_ERR_VIEW_INVALID_PATH));
}

TEST_F(TransferFixture, DryRunFindsStoredContentAndAReferUploadTakesIt) {
    std::string a = h.LocalFile("a", RandomBytes(30000, 7));
    ASSERT_EQ(WireClient::Code(Call(SCMD_EVT_RECV_4, Upload("/a", 0, a, a, false))), 0u);
    PObject dry = Upload("/copy/b", 0, a, a, false);
    dry["dry_run"] = true;
    dry["file"].asMap().erase("data");
    PObject answer = Call(SCMD_EVT_RECV_4, dry);
    ASSERT_EQ(WireClient::Code(answer), 0u);
    uint64_t file_id = answer["file"]["file_id"].asUInt64();
    ASSERT_NE(file_id, 0u);
    ServerObject none;
    EXPECT_EQ(h.store.GetObject(h.user.view_id, "/copy/b", none), 0) << "a dry run changes nothing";

    PObject refer = dry;
    refer.asMap().erase("dry_run");
    refer["file"]["refer"] = true;
    refer["file"]["file_id"] = file_id;
    PObject done = Call(SCMD_EVT_RECV_4, refer);
    ASSERT_EQ(WireClient::Code(done), 0u);
    EXPECT_TRUE(done["file"]["refer"].asBool());
    EXPECT_EQ(done["file"]["file_id"].asUInt64(), file_id);
    EXPECT_TRUE(Stored("/copy/b") == ReadFile(a));

    std::string fresh = h.LocalFile("fresh", RandomBytes(100, 8));
    PObject unknown = Upload("/c", 0, fresh, fresh, false);
    unknown["dry_run"] = true;
    unknown["file"].asMap().erase("data");
    EXPECT_EQ(Call(SCMD_EVT_RECV_4, unknown)["file"]["file_id"].asUInt64(), 0u);
    refer["path"] = "/d";
    refer["file"]["file_id"] = static_cast<uint64_t>(99999);
    EXPECT_EQ(WireClient::Code(Call(SCMD_EVT_RECV_4, refer)),
              static_cast<uint32_t>(SPROTO_ERR_UPLOAD_NOBASE));
}

TEST_F(TransferFixture, ResumableUploadContinuesAfterTheConnectionBrokeMidBinary) {
    std::string big = h.LocalFile("big", RandomBytes(600000, 9));
    std::string token = Token();
    h.WriteFaults("close-after resume_upload 250000 times=1\n");
    PObject req = Upload("/big.bin", 0, big, big, false, "resume_upload");
    req["_resume_token"] = token.c_str();
    PObject reply;
    {
        WireClient doomed(h.port());
        EXPECT_LT(doomed.Call(SCMD_RESUME_TRANSFER, req, reply), 0);
    }
    PObject status = h.Request("resume_get_status");
    status["_resume_token"] = token.c_str();
    PObject st = Call(SCMD_RESUME_TRANSFER, status);
    ASSERT_EQ(WireClient::Code(st), 0u);
    uint64_t offset = st["file"]["offset"].asUInt64();
    EXPECT_GT(offset, 200000u);
    EXPECT_LT(offset, 250000u);
    ServerObject none;
    EXPECT_EQ(h.store.GetObject(h.user.view_id, "/big.bin", none), 0);

    PObject::binary_type& data = req["file"]["data"].asBinary();
    data.offset = offset;
    data.length -= offset;
    PObject done = Call(SCMD_RESUME_TRANSFER, req);
    ASSERT_EQ(WireClient::Code(done), 0u);
    EXPECT_TRUE(Stored("/big.bin") == ReadFile(big));
    // The token is spent with its upload.
    EXPECT_EQ(WireClient::Code(Call(SCMD_RESUME_TRANSFER, status)),
              static_cast<uint32_t>(SPROTO_ERR_RESUME_NOTOKEN));
}

TEST_F(TransferFixture, DownloadWholeAsDeltaAndResumedFromAnOffset) {
    std::string v1_bytes = RandomBytes(300000, 10);
    std::string v2_bytes = v1_bytes;
    v2_bytes.replace(150000, 20, "twenty changed bytes");
    ServerObject o1, o2;
    ASSERT_EQ(admin::Put(h.store, h.user.view_id, h.LocalFile("v1", v1_bytes), "/d/f", 77, o1), 0);
    ASSERT_EQ(admin::Put(h.store, h.user.view_id, h.LocalFile("v2", v2_bytes), "/d/f", 88, o2), 0);

    PObject whole = Download("/d/f", 0, o2.sync_id);
    ASSERT_EQ(WireClient::Code(whole), 0u);
    EXPECT_EQ(whole["sync_id"].asUInt64(), o2.sync_id);
    EXPECT_FALSE(whole["file"]["is_delta"].asBool());
    EXPECT_EQ(whole["file"]["hash"].asString().str(), o2.md4);
    EXPECT_EQ(whole["file"]["size"].asUInt64(), v2_bytes.size());
    EXPECT_EQ(whole["mtime"]["mtime"].asUInt32(), 88u);
    EXPECT_TRUE(ReadFile(whole["file"]["data"].asBinary().path.str()) == v2_bytes);

    PObject delta = Download("/d/f", o1.sync_id, o2.sync_id);
    ASSERT_EQ(WireClient::Code(delta), 0u);
    ASSERT_TRUE(delta["file"]["is_delta"].asBool());
    std::string delta_file = delta["file"]["data"].asBinary().path.str();
    EXPECT_LT(std::filesystem::file_size(delta_file), 20000u);
    std::string md4;
    ASSERT_EQ(delta_ops::Patch(delta_file, h.dir / "v1", h.dir / "patched", md4), 0);
    EXPECT_EQ(md4, delta["file"]["hash"].asString().str());
    EXPECT_TRUE(ReadFile(h.dir / "patched") == v2_bytes);

    // The version asked for while it is kept; refer when the client has it already.
    PObject old = Download("/d/f", 0, o1.sync_id);
    EXPECT_EQ(old["sync_id"].asUInt64(), o1.sync_id);
    EXPECT_EQ(old["file"]["hash"].asString().str(), o1.md4);
    PObject current = Download("/d/f", o2.sync_id, o2.sync_id);
    EXPECT_TRUE(current["file"]["refer"].asBool());
    EXPECT_FALSE(current["file"].hasMember("data"));

    // A token pins the payload; an offset gives the tail of the very same bytes.
    std::string token = Token();
    PObject first = Download("/d/f", o1.sync_id, o2.sync_id, token);
    std::string payload = ReadFile(first["file"]["data"].asBinary().path.str());
    ASSERT_GT(payload.size(), 100u);
    PObject tail = Download("/d/f", o1.sync_id, o2.sync_id, token, 100);
    ASSERT_EQ(WireClient::Code(tail), 0u);
    EXPECT_TRUE(ReadFile(tail["file"]["data"].asBinary().path.str()) == payload.substr(100));
    EXPECT_TRUE(tail["file"]["is_delta"].asBool());

    EXPECT_EQ(WireClient::Code(Download("/d/f", 0, o2.sync_id, Token(), 5)),
              static_cast<uint32_t>(SPROTO_ERR_RESUME));
    EXPECT_EQ(WireClient::Code(Download("/d/f", 0, 0, "no-such-token")),
              static_cast<uint32_t>(SPROTO_ERR_RESUME_NOTOKEN));
    EXPECT_EQ(WireClient::Code(Download("/d/gone", 0, 9)),
              static_cast<uint32_t>(SPROTO_ERR_DOWNLOAD_NOFILE));
    PObject dir = Download("/d", 0, 0);
    EXPECT_TRUE(dir["is_dir"].asBool());
    EXPECT_FALSE(dir.hasMember("file"));
}

TEST_F(TransferFixture, RemovalRefusesWhatTheClientHasNotSeen) {
    ServerObject f, g;
    ASSERT_EQ(admin::Put(h.store, h.user.view_id, h.LocalFile("x", "1"), "/d/f", 1, f), 0);
    ASSERT_EQ(admin::Put(h.store, h.user.view_id, h.LocalFile("x", "2"), "/d/g", 1, g), 0);
    ServerObject d;
    ASSERT_EQ(h.store.GetObject(h.user.view_id, "/d", d), 1);
    auto remove = [&](const char* path, uint64_t sync_id, uint64_t max_id) {
        PObject req = h.Request("remove");
        req["path"] = path;
        req["sync_id"] = sync_id;
        req["max_id"] = max_id;
        return WireClient::Code(Call(SCMD_EVT_REMOVE, req));
    };
    EXPECT_EQ(remove("/d/f", f.sync_id - 1, f.sync_id - 1),
              static_cast<uint32_t>(SPROTO_ERR_REMOVE_MODIFIED));
    // The client knew the directory only up to f: g is news to it.
    EXPECT_EQ(remove("/d", d.sync_id, f.sync_id),
              static_cast<uint32_t>(SPROTO_ERR_REMOVE_MODIFIED));
    EXPECT_EQ(remove("/d/g", g.sync_id, g.sync_id), 0u);
    EXPECT_EQ(remove("/d/g", g.sync_id, g.sync_id),
              static_cast<uint32_t>(SPROTO_ERR_REMOVE_NOFILE));
    // With g gone the directory holds nothing the client hasn't seen.
    EXPECT_EQ(remove("/d", d.sync_id, f.sync_id), 0u);
    ServerObject none;
    EXPECT_EQ(h.store.GetObject(h.user.view_id, "/d/f", none), 0);
}

}  // namespace
