// Server events and forced transfers: every key of a server record, the echo
// test against the database and the disk, and the events that don't come from
// the server.
#include "events/event-generator.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <string>

#include "events/event-manager.h"
#include "runtime/registry.h"
#include "runtime/task.h"
#include "state/file-event-db.h"
#include "support/temp-dir.h"

namespace {

constexpr uint64_t kSess = 23;

PObject Map(std::initializer_list<std::pair<const char*, PObject>> members) {
    PObject obj;
    for (const auto& [key, value] : members) obj[key] = value;
    return obj;
}

PObject Record(const char* path, uint64_t sync_id, bool removed = false, bool is_dir = false) {
    return Map({{"path", path},
                {"sync_id", sync_id},
                {"is_removed", PObject(uint64_t{removed ? 1u : 0u})},
                {"is_dir", PObject(uint64_t{is_dir ? 1u : 0u})}});
}

class EventGenerator : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(db.initialize((dbdir / "event-db.sqlite").c_str()), 0);
        entry.sess_id = kSess;
        entry.local_path = root.path().c_str();
        entry.event_db = &db;
        Registry::getInstance().Set(entry);
    }
    void TearDown() override {
        EventManager::getInstance().Clear();
        Registry::getInstance().Remove(kSess);
        db.destroy();
    }

    void Known(const std::string& path, uint64_t sync_id, bool is_dir = false) {
        ClientFileEventInfo info;
        info.path = path.c_str();
        info.fileType = is_dir ? 1 : 0;
        info.isExist = 1;
        info.syncID = sync_id;
        info.maxSyncID = sync_id;
        info.fileSize = 11;
        info.fileModTime = 1650000000;
        info.fileCheckSum = "0123abcd";
        info.macHash = "feed";
        info.execBit = 1;
        info.updateClient = "client";
        ASSERT_EQ(db.setEventInfo(info), 0);
    }

    // Every event the session now has, by path, as a worker would take them.
    std::map<std::string, Event> Pulled() {
        std::map<std::string, Event> out;
        Task worker;
        Event e;
        while (EventManager::getInstance().PullEvent(&worker, e) == 0) {
            EXPECT_EQ(e.m_sess_id, kSess);
            out[e.m_path.str()] = e;
            EXPECT_EQ(EventManager::getInstance().DoneEvent(&worker, e), 0);
        }
        return out;
    }

    TempDir root;
    TempDir dbdir;
    FileEventDB db;
    Registry::Entry entry;
};

}  // namespace

// ---------------------------------------------------------------------------------------
// A server record, key by key.

TEST_F(EventGenerator, EveryKeyOfAServerRecordReachesItsField) {
    PObject ref = Record("/docs/report.txt", 12);
    ref["max_id"] = uint64_t{15};
    ref["file"] = Map({{"hash", "9f8e"}, {"size", uint64_t{42}}});
    ref["common_attribute"] = Map({{"mtime", uint64_t{100}}});
    ref["mtime"] = Map({{"mtime", uint64_t{200}}});
    ref["mac_attribute"] = Map({{"hash", "ea5e"}, {"size", uint64_t{7}}});
    ref["exec_bit"] = uint64_t{1};
    EXPECT_EQ(PushEvent(entry, ref), 1);

    const auto events = Pulled();
    ASSERT_EQ(events.count("/docs/report.txt"), 1u);
    const Event& e = events.at("/docs/report.txt");
    EXPECT_EQ(e.m_type, Event::EV_CREATE);
    EXPECT_TRUE(e.isServerEvent());
    EXPECT_TRUE(e.isFile());
    EXPECT_EQ(e.m_sync_id, 12u);
    EXPECT_EQ(e.m_max_id, 15u);
    EXPECT_EQ(e.m_data_hash, ustring("9f8e"));
    EXPECT_EQ(e.m_data_size, 42u);
    EXPECT_EQ(e.m_time, 200u);  // "mtime" wins over "common_attribute"
    EXPECT_EQ(e.m_mac_attr_hash, ustring("ea5e"));
    EXPECT_EQ(e.m_mac_attr_size, 7u);
    EXPECT_EQ(e.m_exec_bit, 1u);
}

TEST_F(EventGenerator, OptionalKeysFallBack) {
    PObject ref = Record("/plain", 30);
    ref["common_attribute"] = Map({{"mtime", uint64_t{123}}});
    EXPECT_EQ(PushEvent(entry, ref), 1);
    EXPECT_EQ(PushEvent(entry, Record("/dir", 31, false, true)), 1);

    const auto events = Pulled();
    ASSERT_EQ(events.size(), 2u);
    const Event& plain = events.at("/plain");
    EXPECT_EQ(plain.m_max_id, 30u);  // no "max_id": the sync id
    EXPECT_EQ(plain.m_time, 123u);
    EXPECT_TRUE(plain.m_data_hash.empty());
    EXPECT_EQ(plain.m_data_size, 0u);
    EXPECT_EQ(plain.m_exec_bit, 0u);
    EXPECT_TRUE(events.at("/dir").isDir());
    EXPECT_TRUE(events.at("/dir").isServerEvent());
}

TEST_F(EventGenerator, ServerRecordWithAnUnusablePathIsDropped) {
    for (const char* path : {"", "relative", "/a/../../etc", "/a//b", "/a/", "/.", "/x/.."}) {
        EXPECT_EQ(PushEvent(entry, Record(path, 40)), 0) << path;
    }
    EXPECT_EQ(PushEvent(entry, Map({{"sync_id", uint64_t{41}}})), 0);
    EXPECT_TRUE(Pulled().empty());
    // Names that merely contain dots are ordinary.
    EXPECT_EQ(PushEvent(entry, Record("/..hidden/a.b", 42)), 1);
    EXPECT_EQ(Pulled().count("/..hidden/a.b"), 1u);
}

// ---------------------------------------------------------------------------------------
// The echo test: the client's own work coming back costs nothing.

TEST_F(EventGenerator, OwnChangeComingBackIsDroppedWhileTheFileIsThere) {
    Known("/mine", 20);
    std::ofstream(root / "mine") << "uploaded";
    EXPECT_EQ(PushEvent(entry, Record("/mine", 20)), 0);
    EXPECT_EQ(PushEvent(entry, Record("/mine", 19)), 0);
    EXPECT_EQ(PushEvent(entry, Record("/mine", 19, true)), 0);
    EXPECT_TRUE(Pulled().empty());
    // A later change of the server is news.
    EXPECT_EQ(PushEvent(entry, Record("/mine", 21)), 1);
    EXPECT_EQ(Pulled().at("/mine").m_sync_id, 21u);
}

TEST_F(EventGenerator, KnownChangeOfAMissingFileIsFetchedAgain) {
    Known("/lost", 20);
    EXPECT_EQ(PushEvent(entry, Record("/lost", 20)), 1);
    EXPECT_EQ(Pulled().count("/lost"), 1u);
}

TEST_F(EventGenerator, RemovalOfAnUnknownPathIsDropped) {
    EXPECT_EQ(PushEvent(entry, Record("/never-here", 50, true)), 0);
    EXPECT_TRUE(Pulled().empty());
    Known("/here", 10);
    EXPECT_EQ(PushEvent(entry, Record("/here", 50, true)), 1);
    EXPECT_EQ(Pulled().at("/here").m_type, Event::EV_REMOVE);
    // A creation of an unknown path is what a new server file looks like.
    EXPECT_EQ(PushEvent(entry, Record("/brand-new", 51)), 1);
}

// ---------------------------------------------------------------------------------------
// Events that don't come from a server record.

TEST_F(EventGenerator, ForcedDownloadCarriesWhatTheDatabaseKnows) {
    Known("/known", 7);
    EXPECT_EQ(PushDownloadEvent(entry, "/known", false), 1);
    EXPECT_EQ(PushDownloadEvent(entry, "/unknown-dir", true), 1);
    const auto events = Pulled();
    const Event& known = events.at("/known");
    EXPECT_EQ(known.m_type, Event::EV_MODIFY);
    EXPECT_TRUE(known.isServerEvent());
    EXPECT_EQ(known.m_sync_id, MAX_SYNC_ID);
    EXPECT_EQ(known.m_max_id, MAX_SYNC_ID);
    EXPECT_EQ(known.m_time, 1650000000u);
    EXPECT_EQ(known.m_data_size, 11u);
    EXPECT_EQ(known.m_data_hash, ustring("0123abcd"));
    EXPECT_EQ(known.m_mac_attr_hash, ustring("feed"));
    EXPECT_EQ(known.m_exec_bit, 1u);
    const Event& unknown = events.at("/unknown-dir");
    EXPECT_TRUE(unknown.isDir());
    EXPECT_TRUE(unknown.m_data_hash.empty());
    EXPECT_EQ(unknown.m_sync_id, MAX_SYNC_ID);
}

TEST_F(EventGenerator, UploadRemovalAndServerRemovalHaveTheirSidesAndIds) {
    EXPECT_EQ(PushUploadEvent(entry, "/up", false), 1);
    EXPECT_EQ(PushLocalRemoveEvent(entry, "/gone-dir", true), 1);
    EXPECT_EQ(PushServerRemoveEvent(entry, "/server-gone", false, 70, 75), 1);
    const auto events = Pulled();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events.at("/up").m_type, Event::EV_MODIFY);
    EXPECT_TRUE(events.at("/up").isLocalEvent());
    EXPECT_EQ(events.at("/gone-dir").m_type, Event::EV_REMOVE);
    EXPECT_TRUE(events.at("/gone-dir").isLocalEvent());
    EXPECT_TRUE(events.at("/gone-dir").isDir());
    const Event& server = events.at("/server-gone");
    EXPECT_EQ(server.m_type, Event::EV_REMOVE);
    EXPECT_TRUE(server.isServerEvent());
    EXPECT_EQ(server.m_sync_id, 70u);
    EXPECT_EQ(server.m_max_id, 75u);
}

TEST_F(EventGenerator, HeldBackLocalChangeBecomesUploadOrDownload) {
    FilterLocalEvent present;
    present.path = "/kept";
    present.is_exist = 1;
    FilterLocalEvent absent;
    absent.path = "/filtered-dir";
    absent.file_type = 1;
    absent.is_exist = 0;
    EXPECT_EQ(PushEvent(entry, present), 1);
    EXPECT_EQ(PushEvent(entry, absent), 1);
    const auto events = Pulled();
    EXPECT_TRUE(events.at("/kept").isLocalEvent());
    EXPECT_TRUE(events.at("/kept").isFile());
    EXPECT_TRUE(events.at("/filtered-dir").isServerEvent());
    EXPECT_TRUE(events.at("/filtered-dir").isDir());
    EXPECT_EQ(events.at("/filtered-dir").m_sync_id, MAX_SYNC_ID);
}
