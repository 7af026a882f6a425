// Sessions and the connection as the controlling process drives them, against the real
// daemon and server: what the actions refuse, a session from its adding to its removal,
// what a pause keeps, and what unlink and stop leave behind.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "harness/sync-world.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;

const ustring kAck("{\"ack\": \"ok\"}");

std::string ErrorOf(const PObject& reply) {
    EXPECT_EQ(reply["ack"].asString(), ustring("ok")) << reply.toString().c_str_utf8();
    return reply["error"].asString().str();
}

PObject With(PObject request, const char* key, const PObject& value) {
    request[key] = value;
    return request;
}

PObject Without(PObject request, const char* key) {
    request.asMap().erase(ustring(key));
    return request;
}

size_t Threads(pid_t pid) {
    size_t n = 0;
    for ([[maybe_unused]] const auto& entry :
         fs::directory_iterator("/proc/" + std::to_string(pid) + "/task"))
        ++n;
    return n;
}

size_t CountMatching(const std::vector<std::string>& items, const std::string& part) {
    size_t n = 0;
    for (const std::string& item : items) n += item.find(part) != std::string::npos ? 1 : 0;
    return n;
}

TEST(SessionCommands, RefusalsGiveAnErrorChangeNothingAndTheDaemonServesOn) {
    SyncWorld world;
    ASSERT_TRUE(world.ok());
    DaemonProcess& daemon = world.daemon();
    PObject reply;

    // Nothing linked: the status is the bare "ack"; connections and sessions need a link.
    EXPECT_EQ(daemon.Ask("get_status").toString(), kAck);
    ASSERT_TRUE(daemon.Ask(world.ConnectionRequest(), reply));
    EXPECT_EQ(ErrorOf(reply), "Not linked.");
    EXPECT_EQ(ErrorOf(world.AddSession(1)), "Not linked.");
    EXPECT_EQ(ErrorOf(daemon.Ask("link")), "");
    EXPECT_EQ(ErrorOf(daemon.Ask("link")), "Already linked.");
    PObject reload = world.ConnectionRequest();
    reload["action"] = "reload_connection";
    ASSERT_TRUE(daemon.Ask(reload, reply));
    EXPECT_EQ(ErrorOf(reply), "No connection linked.");

    // Connection keys missing or of the wrong kind.
    for (const PObject& bad : {Without(world.ConnectionRequest(), "session"),
                               Without(world.ConnectionRequest(), "connection_id"),
                               With(world.ConnectionRequest(), "server_port", "7620"),
                               With(world.ConnectionRequest(), "server_port", uint64_t{70000}),
                               With(world.ConnectionRequest(), "server_ip", "")}) {
        ASSERT_TRUE(daemon.Ask(bad, reply));
        EXPECT_EQ(ErrorOf(reply), "Invalid parameters") << bad.toString().c_str_utf8();
    }
    EXPECT_EQ(daemon.Ask("get_status").toString(), kAck);
    ASSERT_TRUE(daemon.Ask(world.ConnectionRequest(), reply));
    EXPECT_EQ(ErrorOf(reply), "");
    ASSERT_TRUE(daemon.Ask(world.ConnectionRequest(), reply));
    EXPECT_EQ(ErrorOf(reply), "Connection already linked.");

    // Session keys missing or of the wrong kind add nothing.
    ASSERT_EQ(ErrorOf(world.AddSession(1)), "");
    world.PrepareSession(2);
    for (const PObject& bad : {Without(world.SessionRequest(2), "sync_folder"),
                               Without(world.SessionRequest(2), "connection_id"),
                               With(world.SessionRequest(2), "session_id", "2"),
                               With(world.SessionRequest(2), "session_id", uint64_t{0}),
                               With(world.SessionRequest(2), "config_path", uint64_t{5}),
                               With(world.SessionRequest(2), "recursive", "yes")}) {
        ASSERT_TRUE(daemon.Ask(bad, reply));
        EXPECT_EQ(ErrorOf(reply), "Invalid parameters.") << bad.toString().c_str_utf8();
    }
    EXPECT_EQ(ErrorOf(world.AddSession(1)), "Session already exists.");
    for (const char* action : {"pause", "resume", "remove_session"}) {
        PObject bad;
        bad["action"] = action;
        bad["session_id"] = "1";
        ASSERT_TRUE(daemon.Ask(bad, reply));
        EXPECT_EQ(ErrorOf(reply), "Invalid parameters.") << action;
    }

    // Folders that can't carry a session: the sync folder or the config folder missing or
    // a file, a config folder inside the sync folder, one whose database folder can't be
    // made. Nothing of the user's is touched.
    world.WriteLocal(1, "/a-file", "keep me");
    const std::string file = world.Folder(1) + "/a-file";
    WriteFile(world.ConfigFolder(2) + "/db", "not a folder");
    fs::create_directories(world.Folder(1) + "/inner");
    for (const PObject& bad :
         {With(world.SessionRequest(2), "sync_folder", file.c_str()),
          With(world.SessionRequest(2), "sync_folder", (world.Folder(1) + "/inner").c_str()),
          With(world.SessionRequest(2), "sync_folder", "/nonexistent/x"),
          With(world.SessionRequest(2), "config_path", file.c_str()),
          With(world.SessionRequest(2), "config_path", (world.Folder(2) + "/").c_str()),
          world.SessionRequest(2)}) {
        ASSERT_TRUE(daemon.Ask(bad, reply));
        EXPECT_EQ(ErrorOf(reply), "Failed to create registry entry.")
            << bad.toString().c_str_utf8();
    }
    EXPECT_EQ(ReadFile(file), "keep me");
    EXPECT_EQ(ReadFile(world.ConfigFolder(2) + "/db"), "not a folder");

    const PObject status = daemon.Ask("get_status");
    ASSERT_EQ(status["session_list"].asArray().size(), 1u) << status.toString().c_str_utf8();
    EXPECT_EQ(status["session_list"][0]["session_id"].asUInt64(), 1u);
    EXPECT_EQ(status["connection_list"][0]["connection_id"].asUInt64(), SyncWorld::kConnectionId);
    EXPECT_EQ(daemon.Stop(), 0);
    const std::string log = daemon.Log();
    for (const char* text : {"the daemon is already linked", "local watch folder (",
                             "local config folder (", "lies in the sync folder",
                             "Failed to create folder ", "overlaps the folder of session 1"})
        EXPECT_NE(log.find(text), std::string::npos) << text;
}

TEST(SessionCommands, ASessionStartsPausedOnAFreshWorkingDirectoryAndLeavesOnlyWhenPaused) {
    SyncWorld world;
    ASSERT_TRUE(world.ok());
    ASSERT_TRUE(world.Connect().isNull());
    DaemonProcess& daemon = world.daemon();
    // What a crash left in the working directory and the bin goes; a link put there
    // instead of the folder is refused, and what it points at stays.
    const std::string working = world.Folder(3) + "/.ZephanorWorkingDirectory";
    fs::create_directories(working + "/#ZephRecycle/old");
    WriteFile(working + "/#ZephRecycle/old/file", "recycled");
    WriteFile(working + "/partial", "scratch");
    ASSERT_EQ(ErrorOf(world.AddSession(3)), "");
    EXPECT_TRUE(fs::is_empty(working + "/#ZephRecycle"));
    EXPECT_FALSE(Exists(working + "/partial"));
    EXPECT_TRUE(fs::is_directory(world.ConfigFolder(3) + "/db/sign"));

    world.PrepareSession(4);
    fs::create_directories(world.Folder(3) + "-elsewhere");
    WriteFile(world.Folder(3) + "-elsewhere/mine", "mine");
    fs::create_directory_symlink(world.Folder(3) + "-elsewhere",
                                 world.Folder(4) + "/.ZephanorWorkingDirectory");
    PObject reply;
    ASSERT_TRUE(daemon.Ask(world.SessionRequest(4), reply));
    EXPECT_EQ(ErrorOf(reply), "Failed to create registry entry.");
    EXPECT_EQ(ReadFile(world.Folder(3) + "-elsewhere/mine"), "mine");
    EXPECT_FALSE(Exists(world.Folder(3) + "-elsewhere/#ZephRecycle"));

    // Added paused: it can be removed at once, and once added again it waits for "resume".
    EXPECT_EQ(ErrorOf(daemon.Ask("remove_session", 3)), "");
    ASSERT_EQ(ErrorOf(world.AddSession(3)), "");
    EXPECT_EQ(daemon.Ask("pause", 99).toString(), kAck);  // unknown ids do nothing
    EXPECT_EQ(daemon.Ask("resume", 99).toString(), kAck);
    EXPECT_EQ(ErrorOf(world.Resume(3)), "");
    EXPECT_EQ(ErrorOf(daemon.Ask("remove_session", 3)), "Remove session without puase");
    EXPECT_EQ(ErrorOf(daemon.Ask("remove_session")), "Remove session without puase");
    EXPECT_EQ(ErrorOf(daemon.Ask("unlink_connection")), "Remove session without puase");
    EXPECT_EQ(ErrorOf(daemon.Ask("remove_session", 99)), "Invalid session.");
    EXPECT_FALSE(world.SessionStatus(3).isNull());

    // Paused, it goes; its folders stay for the controlling process to deal with, and the
    // id can be used again.
    EXPECT_EQ(ErrorOf(world.Pause(3)), "");
    EXPECT_EQ(ErrorOf(daemon.Ask("remove_session", 3)), "");
    EXPECT_TRUE(world.SessionStatus(3).isNull());
    EXPECT_TRUE(Exists(world.ConfigFolder(3) + "/db/event-db.sqlite"));
    ASSERT_EQ(ErrorOf(world.AddSession(3)), "");
    PObject sync_mode = world.SessionRequest(5);
    sync_mode["sync_mode"] = true;
    sync_mode["node_id"] = uint64_t{9};
    world.PrepareSession(5);
    ASSERT_TRUE(daemon.Ask(sync_mode, reply));
    EXPECT_EQ(ErrorOf(reply), "");
    EXPECT_EQ(daemon.Ask("get_status")["session_list"].asArray().size(), 2u);

    // "unlink_connection" takes every paused session away and keeps the connection.
    EXPECT_EQ(ErrorOf(daemon.Ask("pause")), "");
    EXPECT_EQ(ErrorOf(daemon.Ask("unlink_connection")), "");
    const PObject status = daemon.Ask("get_status");
    EXPECT_FALSE(status.hasMember("session_list")) << status.toString().c_str_utf8();
    EXPECT_TRUE(status.hasMember("connection_list"));
    const std::string log = daemon.Log();
    EXPECT_NE(log.find("rescan syncfolder for session '5' do_merge[0]."), std::string::npos);
    EXPECT_NE(log.find("Failed to create recycle bin directory."), std::string::npos);
}

// The server's TLS identity comes with the connection request: a pin that does not match
// keeps the pool from logging in, and a reload with the right one lets the session sync.
TEST(ConnectionCommands, TheRequestsPinChecksTheServerAndAReloadChangesIt) {
    SyncWorld world;
    ASSERT_TRUE(world.ok());
    DaemonProcess& daemon = world.daemon();
    auto connection = [&] {
        const PObject status = daemon.Ask("get_status");
        return status["connection_list"][0]["status"].asString().str();
    };
    PObject request = world.ConnectionRequest();
    auto send = [&] {
        PObject reply;
        daemon.Ask(request, reply);
        return ErrorOf(reply);
    };
    ASSERT_EQ(ErrorOf(daemon.Ask("link")), "");
    request["use_ssl"] = true;
    request["ssl_pin"] = std::string(64, '0').c_str();
    ASSERT_EQ(send(), "");
    ASSERT_EQ(ErrorOf(world.AddSession(1)), "");
    ASSERT_EQ(ErrorOf(world.Resume(1)), "");
    EXPECT_TRUE(WaitUntil(
        [&] { return daemon.Log().find("does not match ssl_pin") != std::string::npos; }));
    EXPECT_EQ(connection(), "disconnected");

    request["action"] = "reload_connection";
    request["ssl_pin"] = world.server().pin().c_str();
    ASSERT_EQ(send(), "");
    EXPECT_TRUE(WaitUntil([&] { return connection() == "connected"; })) << daemon.Log();
    request["ssl_pin"] = uint64_t{5};
    EXPECT_EQ(send(), "Invalid parameters");
}

TEST(SessionCommands, AWorkerCountTheDaemonCannotRunWithFailsTheLinkAndLinksNothing) {
    for (int count : {0, 1000}) {
        SyncWorld world(count);
        ASSERT_TRUE(world.ok());
        const PObject reply = world.Connect();
        EXPECT_EQ(ErrorOf(reply), "Failed to initialize members") << count;
        // Not half linked: the next "link" fails the same way, not as a second link.
        EXPECT_EQ(ErrorOf(world.daemon().Ask("link")), "Failed to initialize members");
        EXPECT_EQ(world.daemon().Ask("get_status").toString(), kAck);
        EXPECT_EQ(world.daemon().Stop(), 0);
        EXPECT_NE(
            world.daemon().Log().find("worker_count " + std::to_string(count) + " is out of range"),
            std::string::npos);
    }
}

// The harness itself: changes made through the server's command line show in its
// listing, and the tree comparison sees a missing path and a changed content.
TEST(Harness, ServerSideChangesShowInTheListingAndTheComparison) {
    SyncWorld world;
    ASSERT_TRUE(world.ok());
    ASSERT_TRUE(world.Connect().isNull());
    ASSERT_EQ(ErrorOf(world.AddSession(1)), "");
    ASSERT_EQ(ErrorOf(world.Resume(1)), "");
    // An empty folder and an empty view: the root's rescan is done and nothing else waits.
    EXPECT_TRUE(WaitUntil(
        [&] { return world.SessionStatus(1)["status"].asString() == ustring("uptodate"); }));
    EXPECT_EQ(world.CompareTrees(1), "");

    ASSERT_TRUE(world.server().Put("/a/b.txt", "hello"));
    ASSERT_TRUE(world.server().Put("/c", "x"));
    ASSERT_TRUE(world.server().Mv("/a", "/z"));
    ASSERT_TRUE(world.server().Rm("/c"));
    EXPECT_FALSE(world.server().Rm("/nothing"));
    EXPECT_EQ(world.CompareTrees(1), "only on the server: /z\nonly on the server: /z/b.txt\n");
    // The local edits below are the comparison's to see, not the daemon's to upload.
    ASSERT_EQ(ErrorOf(world.Pause(1)), "");
    ASSERT_TRUE(world.MkdirLocal(1, "/z"));
    ASSERT_TRUE(world.WriteLocal(1, "/z/b.txt", "hellO"));
    EXPECT_EQ(world.CompareTrees(1), "differs: /z/b.txt local f 5 " +
                                         Md4OfFile(world.Folder(1) + "/z/b.txt") +
                                         " server f 5 866437cb7a794bce2b727acc0362ee27\n");
    ASSERT_TRUE(world.WriteLocal(1, "/z/b.txt", "hello"));
    EXPECT_EQ(world.CompareTrees(1), "");
}

TEST(SessionLifecycle, APauseWhileTheSyncerWaitsForWorkersLeavesTheSyncIdAsItWas) {
    SyncWorld world;
    ASSERT_TRUE(world.ok());
    ASSERT_TRUE(world.server().Put("/f.txt", "server file"));
    ASSERT_TRUE(world.Connect().isNull());
    ASSERT_EQ(ErrorOf(world.AddSession(1)), "");
    ASSERT_EQ(ErrorOf(world.Resume(1)), "");
    // The server's file is pulled and waits to be carried out; the syncer waits with it.
    ASSERT_TRUE(WaitUntil([&] {
        return world.daemon().Log().find("Wait for workers") != std::string::npos;
    })) << world.daemon().Log();
    ASSERT_EQ(ErrorOf(world.Pause(1)), "");
    EXPECT_TRUE(WaitUntil([&] {
        return world.daemon().Log().find("session 1 is paused while there are events") !=
               std::string::npos;
    }));
    EXPECT_EQ(world.StoredSyncId(1), 0);
    EXPECT_EQ(world.SessionStatus(1)["status"].asString(), ustring("syncing"));
}

TEST(SessionLifecycle, UnlinkLeavesNoTaskDatabaseOrConnectionAndStopExitsCleanly) {
    SyncWorld world;
    ASSERT_TRUE(world.ok());
    DaemonProcess& daemon = world.daemon();
    const size_t idle_threads = Threads(daemon.pid());
    const size_t idle_sockets = CountMatching(daemon.OpenFiles(), "socket:");
    ASSERT_TRUE(world.Connect().isNull());
    ASSERT_EQ(ErrorOf(world.AddSession(1)), "");
    ASSERT_EQ(ErrorOf(world.AddSession(2)), "");
    ASSERT_EQ(ErrorOf(world.Resume(1)), "");
    // The syncer logs in and pulls: the connection is open while linked.
    ASSERT_TRUE(WaitUntil([&] {
        const PObject status = world.daemon().Ask("get_status");
        return status["connection_list"][0]["status"].asString() == ustring("connected");
    }));
    const std::vector<std::string> linked = daemon.OpenFiles();
    EXPECT_GE(CountMatching(linked, "event-db.sqlite"), 2u);
    EXPECT_GT(Threads(daemon.pid()), idle_threads);

    EXPECT_EQ(daemon.Ask("unlink").toString(), kAck);
    const std::vector<std::string> unlinked = daemon.OpenFiles();
    EXPECT_EQ(CountMatching(unlinked, ".sqlite"), 0u);
    EXPECT_EQ(CountMatching(unlinked, "inotify"), 0u);
    EXPECT_EQ(CountMatching(unlinked, "socket:"), idle_sockets);
    EXPECT_EQ(Threads(daemon.pid()), idle_threads);
    EXPECT_EQ(daemon.Ask("get_status").toString(), kAck);

    // Linked again in the same process, the sessions come back from their databases.
    ASSERT_TRUE(world.Connect().isNull());
    EXPECT_EQ(ErrorOf(world.AddSession(1)), "");
    EXPECT_EQ(daemon.Stop(), 0);
}

TEST(SessionLifecycle, AKilledDaemonComesBackOnItsConfigurationWithItsSessions) {
    SyncWorld world;
    ASSERT_TRUE(world.ok());
    ASSERT_TRUE(world.Connect().isNull());
    ASSERT_EQ(ErrorOf(world.AddSession(1)), "");
    ASSERT_EQ(ErrorOf(world.AddSession(2)), "");
    ASSERT_EQ(ErrorOf(world.Resume(2)), "");
    const pid_t first = world.daemon().pid();
    ASSERT_TRUE(world.Restart());
    EXPECT_NE(world.daemon().pid(), first);
    EXPECT_EQ(world.daemon().Ask("get_status")["session_list"].asArray().size(), 2u);
    // Session 2 runs again: a new local file is seen and told to the user interface.
    world.WriteLocal(2, "/new.txt", "new");
    EXPECT_TRUE(WaitUntil([&] {
        return world.notifications().Count([](const PObject& n) {
            return n["notify"].asString() == ustring("syncing_file") &&
                   n["session_id"].asUInt64() == 2 && n["path"].asString() == ustring("/new.txt");
        }) > 0;
    }));
    EXPECT_TRUE(world.Restart(false));
}

}  // namespace
