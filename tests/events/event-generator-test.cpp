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

    // A synchronised file's row.
    void Known(const std::string& path, uint64_t sync_id) {
        ClientFileEventInfo info;
        info.path = path.c_str();
        info.isExist = 1;
        info.syncID = sync_id;
        info.fileSize = 11;
        info.fileModTime = 1650000000;
        info.fileCheckSum = "0123abcd";
        info.macHash = "feed";
        info.execBit = 1;
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

// "server dir EV_REMOVE 70/75": side, kind, type, sync id and max id ("max" for
// MAX_SYNC_ID).
std::string Summary(const Event& e) {
    auto id = [](uint64_t v) { return v == MAX_SYNC_ID ? std::string("max") : std::to_string(v); };
    return std::string(e.isServerEvent() ? "server " : "local ") + (e.isDir() ? "dir " : "file ") +
           Event::TypeText(e.m_type) + " " + id(e.m_sync_id) + "/" + id(e.m_max_id);
}

// ---------------------------------------------------------------------------------------
// A server record, key by key.

TEST_F(EventGenerator, EveryKeyOfAServerRecordReachesItsFieldOrFallsBack) {
    PObject ref = Record("/docs/report.txt", 12);
    ref["max_id"] = uint64_t{15};
    ref["file"] = Map({{"hash", "9f8e"}, {"size", uint64_t{42}}});
    ref["common_attribute"] = Map({{"mtime", uint64_t{100}}});
    ref["mtime"] = Map({{"mtime", uint64_t{200}}});
    ref["mac_attribute"] = Map({{"hash", "ea5e"}, {"size", uint64_t{7}}});
    ref["exec_bit"] = uint64_t{1};
    EXPECT_EQ(PushEvent(entry, ref), 1);
    PObject plain = Record("/plain", 30, false, true);
    plain["common_attribute"] = Map({{"mtime", uint64_t{123}}});
    EXPECT_EQ(PushEvent(entry, plain), 1);

    const auto events = Pulled();
    ASSERT_EQ(events.size(), 2u);
    const Event& e = events.at("/docs/report.txt");
    EXPECT_EQ(Summary(e), "server file EV_ADD 12/15");
    EXPECT_EQ(e.m_data_hash, ustring("9f8e"));
    EXPECT_EQ(e.m_data_size, 42u);
    EXPECT_EQ(e.m_time, 200u);  // "mtime" wins over "common_attribute"
    EXPECT_EQ(e.m_mac_attr_hash, ustring("ea5e"));
    EXPECT_EQ(e.m_mac_attr_size, 7u);
    EXPECT_EQ(e.m_exec_bit, 1u);
    const Event& p = events.at("/plain");
    EXPECT_EQ(Summary(p), "server dir EV_ADD 30/30");  // no "max_id": the sync id
    EXPECT_EQ(p.m_time, 123u);
    EXPECT_TRUE(p.m_data_hash.empty());
    EXPECT_EQ(p.m_data_size + p.m_exec_bit, 0u);
}

TEST_F(EventGenerator, ServerRecordWithAnUnusablePathIsDropped) {
    for (const char* path : {"", "relative", "/a/../../etc", "/a//b", "/a/", "/.", "/x/..",
                             "/a\\..\\b", "/C:", "/C:/x", "//server/share"}) {
        EXPECT_EQ(PushEvent(entry, Record(path, 40)), 0) << path;
    }
    EXPECT_TRUE(Pulled().empty());
    // Names that merely contain dots are ordinary.
    EXPECT_EQ(PushEvent(entry, Record("/..hidden/a.b", 42)), 1);
    EXPECT_EQ(Pulled().count("/..hidden/a.b"), 1u);
    EXPECT_TRUE(IsUsableServerPath("/a/C:"));
}

// ---------------------------------------------------------------------------------------
// The echo test: the client's own work coming back costs nothing, but a lost file
// or a later change is news.

TEST_F(EventGenerator, OwnChangeComingBackIsDroppedWhileTheFileIsThere) {
    Known("/mine", 20);
    Known("/lost", 20);
    std::ofstream(root / "mine") << "uploaded";
    EXPECT_EQ(PushEvent(entry, Record("/mine", 20)), 0);
    EXPECT_EQ(PushEvent(entry, Record("/mine", 19)), 0);
    EXPECT_EQ(PushEvent(entry, Record("/mine", 19, true)), 0);
    EXPECT_EQ(PushEvent(entry, Record("/never-here", 50, true)), 0);
    EXPECT_TRUE(Pulled().empty());

    EXPECT_EQ(PushEvent(entry, Record("/mine", 21)), 1);
    EXPECT_EQ(PushEvent(entry, Record("/lost", 20)), 1);
    EXPECT_EQ(PushEvent(entry, Record("/brand-new", 51)), 1);
    const auto events = Pulled();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events.at("/mine").m_sync_id, 21u);
    EXPECT_EQ(PushEvent(entry, Record("/lost", 50, true)), 1);
    EXPECT_EQ(Pulled().at("/lost").m_type, Event::EV_REMOVE);
}

// ---------------------------------------------------------------------------------------
// Events that don't come from a server record: forced transfers and removals, and
// local changes a filter held back (an upload when the path is there, a download
// otherwise).

TEST_F(EventGenerator, ForcedEventsHaveTheirSidesIdsAndWhatTheDatabaseKnows) {
    Known("/known", 7);
    EXPECT_EQ(PushDownloadEvent(entry, "/known", false), 1);
    EXPECT_EQ(PushDownloadEvent(entry, "/unknown-dir", true), 1);
    EXPECT_EQ(PushUploadEvent(entry, "/up", false), 1);
    EXPECT_EQ(PushLocalRemoveEvent(entry, "/gone-dir", true), 1);
    EXPECT_EQ(PushServerRemoveEvent(entry, "/server-gone", false, 70, 75), 1);
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
    std::map<std::string, std::string> summaries;
    for (const auto& [path, e] : events) summaries[path] = Summary(e);
    EXPECT_EQ(summaries, (std::map<std::string, std::string>{
                             {"/known", "server file EV_MODIFY max/max"},
                             {"/unknown-dir", "server dir EV_MODIFY max/max"},
                             {"/up", "local file EV_MODIFY 0/0"},
                             {"/gone-dir", "local dir EV_REMOVE 0/0"},
                             {"/server-gone", "server file EV_REMOVE 70/75"},
                             {"/kept", "local file EV_MODIFY 0/0"},
                             {"/filtered-dir", "server dir EV_MODIFY max/max"},
                         }));
    const Event& known = events.at("/known");
    EXPECT_EQ(known.m_time, 1650000000u);
    EXPECT_EQ(known.m_data_size, 11u);
    EXPECT_EQ(known.m_data_hash, ustring("0123abcd"));
    EXPECT_EQ(known.m_mac_attr_hash, ustring("feed"));
    EXPECT_EQ(known.m_exec_bit, 1u);
    EXPECT_TRUE(events.at("/unknown-dir").m_data_hash.empty());
}
