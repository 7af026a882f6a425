// Notifications to the controlling process, received by a real listener socket; and a
// missing listener, which must cost the caller nothing but a -1.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "event-builders.h"
#include "events/ui-ipc.h"
#include "foundation/error-code.h"
#include "ui-listener.h"

using namespace evtest;

namespace {

class UINotice : public ::testing::Test {
  protected:
    void SetUp() override { SetUIPort(listener.port()); }
    UIListener listener;
};

TEST_F(UINotice, EachReportIsOneMapWithItsKeys) {
    Event dir = Make(Event::EV_CREATE, "/photos/2024", LOCAL, DIR_NODE);
    dir.m_sess_id = 42;
    ASSERT_EQ(UI_IPC::ReportFileSyncingEventToUI(dir), 0);
    PObject got = listener.Next();
    EXPECT_EQ(got["notify"].asString(), ustring("syncing_file"));
    EXPECT_EQ(got["session_id"].asUInt64(), 42u);
    EXPECT_EQ(got["path"].asString(), ustring("/photos/2024"));
    EXPECT_EQ(got["is_dir"].asUInt64(), 1u);
    EXPECT_EQ(got["event_type"].asUInt64(), static_cast<uint64_t>(Event::EV_CREATE));

    const Event file = Make(Event::EV_REMOVE, "/notes.txt", SERVER, FILE_NODE, 9);
    ASSERT_EQ(UI_IPC::ReportFileEventToUI(file), 0);
    got = listener.Next();
    EXPECT_EQ(got["notify"].asString(), ustring("recent_file"));
    EXPECT_EQ(got["is_dir"].asUInt64(), 0u);
    EXPECT_EQ(got["event_type"].asUInt64(), static_cast<uint64_t>(Event::EV_REMOVE));

    ASSERT_EQ(UI_IPC::ReportFileLockedEventToUI(file, ERR_LOCKED_FILE), 0);
    got = listener.Next();
    EXPECT_EQ(got["notify"].asString(), ustring("locked_file"));
    EXPECT_EQ(got["path"].asString(), ustring("/notes.txt"));
    EXPECT_EQ(got["error"]["reason"].asString(), ustring("file locked"));
    EXPECT_EQ(got["error"]["code"].asInt64(), ERR_LOCKED_FILE);

    ASSERT_EQ(UI_IPC::ReportSessionErrorToUI(7, ERR_QUOTA), 0);
    got = listener.Next();
    EXPECT_EQ(got["notify"].asString(), ustring("error"));
    EXPECT_EQ(got["session_id"].asUInt64(), 7u);
    EXPECT_EQ(got["error_type"].asInt64(), ERR_QUOTA);
    EXPECT_FALSE(got.hasMember("connection_id"));

    ASSERT_EQ(UI_IPC::ReportConnectionErrorToUI(-5, ERR_TIMEOUT), 0);
    got = listener.Next();
    EXPECT_EQ(got["connection_id"].asInt64(), -5);  // sign-extended
    EXPECT_EQ(got["error_type"].asInt64(), ERR_TIMEOUT);

    ASSERT_EQ(UI_IPC::LastBreath(), 0);
    EXPECT_EQ(listener.Next()["action"].asString(), ustring("connection_terminate"));
}

TEST(UINoticeUnheard, NobodyListeningGivesMinusOneAtOnce) {
    int port;
    {
        UIListener gone;
        port = gone.port();
    }
    SetUIPort(port);
    const Event e = Make(Event::EV_MODIFY, "/x", LOCAL);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(UI_IPC::ReportFileSyncingEventToUI(e), -1);
        EXPECT_EQ(UI_IPC::ReportSessionErrorToUI(1, ERR_IO), -1);
    }
    // A refused loopback connect returns at once; a stall would be a second or more.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

}  // namespace
