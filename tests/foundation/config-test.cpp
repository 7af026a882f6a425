// The key-value grammar of configuration and level files, and Settings on top of it.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "foundation/config.h"
#include "foundation/settings.h"
#include "support/temp-dir.h"

namespace {

struct LineCase {
    const char* text;
    bool accepted;
    const char* key;  // null: nothing stored
    const char* value;
};

const LineCase kLines[] = {
    {"key = value", true, "key", "value"},
    {"  key\t=\tvalue  ", true, "key", "value"},
    {"key = value # note", true, "key", "value"},
    {"key = value#note", true, "key", "value#note"},  // '#' inside an unquoted value belongs to it
    {"key = 'two words'", true, "key", "two words"},
    {"key = \"it's\"", true, "key", "it's"},
    {"key-1_x = v", true, "key-1_x", "v"},
    {"path = /t\xC3\xA9st", true, "path", "/t\xC3\xA9st"},
    {"=x", true, "", "x"},
    {"key", true, nullptr, nullptr},
    {"key # note", true, nullptr, nullptr},
    {"# comment", true, nullptr, nullptr},
    {"", true, nullptr, nullptr},
    {"key = two words", false, nullptr, nullptr},
    {"key =", false, nullptr, nullptr},
    {"key value", false, nullptr, nullptr},
    {"key.x = v", false, nullptr, nullptr},
    {"key = 'open", false, nullptr, nullptr},
    {"key = 'a\tb'", false, nullptr, nullptr},
};

TEST(ConfigGrammar, EachLineFormIsAcceptedOrRejected) {
    for (const LineCase& c : kLines) {
        SCOPED_TRACE(c.text);
        Config::map_type out;
        std::string text = std::string("before = 1\n") + c.text + "\n";
        int rc = Config::parse(text.data(), text.size(), out);
        if (!c.accepted) {
            EXPECT_EQ(rc, -1);
            EXPECT_TRUE(out.empty()) << "a rejected file keeps nothing";
            continue;
        }
        ASSERT_EQ(rc, 0);
        EXPECT_EQ(out.count("before"), 1u);
        if (c.key == nullptr) {
            EXPECT_EQ(out.size(), 1u);
        } else {
            ASSERT_EQ(out.count(c.key), 1u);
            EXPECT_EQ(out[c.key], ustring(c.value));
        }
    }
}

TEST(ConfigFile, MissingFilesFailAndLaterKeysReplaceEarlier) {
    TempDir dir;
    Config::map_type out;
    EXPECT_EQ(Config::read("", out), -1);
    EXPECT_EQ(Config::read(dir.path() + "/absent", out), -1);
    dir.write("empty", "");
    EXPECT_EQ(Config::read(dir.path() + "/empty", out), 0);
    EXPECT_TRUE(out.empty());
    dir.write("crlf", "a = 1\r\nb = 2\r\na = 3\r\n");
    ASSERT_EQ(Config::read(dir.path() + "/crlf", out), 0);
    EXPECT_EQ(out["a"], ustring("3"));
    EXPECT_EQ(out["b"], ustring("2"));
    EXPECT_EQ(Config::get_int("-7"), -7);
    EXPECT_EQ(Config::get_int("abc"), 0);
    EXPECT_EQ(Config::get_int("12abc"), 12) << "leading decimals only";
}

// Settings is a process singleton, so one test covers load and defaults in order.
TEST(SettingsLoad, SetsPresentKeysAndKeepsFieldsOnFailure) {
    TempDir dir;
    Settings& s = Settings::getInstance();
    EXPECT_FALSE(s.useDeltaRealign());
    dir.write("conf",
              "db_path = /data/db\nworker_count = 5\nuse_ssl = True\nui_port = 4000\n"
              "is_daemon = true\nserver_ip = '10.0.0.1'\ndelta_realign = true\nssl_pin = 0A:FF\n");
    ASSERT_EQ(s.loadConfigSettings(dir.path() + "/conf"), 0);
    EXPECT_EQ(s.getDbPath(), ustring("/data/db"));
    EXPECT_EQ(s.getWorkerCount(), 5u);
    EXPECT_FALSE(s.useSSL());  // only the exact text "true" is true
    EXPECT_TRUE(s.isDaemon());
    EXPECT_EQ(s.getServerIp(), ustring("10.0.0.1"));
    EXPECT_TRUE(s.useDeltaRealign());
    EXPECT_EQ(s.getSslPin(), ustring("0A:FF"));
    EXPECT_EQ(s.getSslCaFile(), ustring());

    dir.write("bad", "db_path = /other\nworker_count = two words\n");
    EXPECT_EQ(s.loadConfigSettings(dir.path() + "/bad"), -1);
    EXPECT_EQ(s.getDbPath(), ustring("/data/db"));

    dir.write("abc", "worker_count = abc\n");
    ASSERT_EQ(s.loadConfigSettings(dir.path() + "/abc"), 0);
    EXPECT_EQ(s.getWorkerCount(), 0u);
}

}  // namespace
