// The event manager under concurrent workers and producers: no path is ever held
// twice, and a change that lands while a path is held goes back to the same worker, so
// the newest version is always the one carried out last. (Turns between sessions are
// checked with one thread in event-manager-test.cpp.)
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "manager-fixture.h"

using namespace evtest;

namespace {

using EventManagerConcurrency = ManagerFixture;

TEST_F(EventManagerConcurrency, ChangesWhileHeldComeBackToTheSameWorkerNewestLast) {
    constexpr int kPaths = 12;
    constexpr int kVersions = 25;
    std::atomic<bool> producing{true};
    std::mutex result_mutex;
    std::set<std::string> held;                       // paths some worker holds now
    std::map<std::string, std::vector<int>> carried;  // versions carried out per path
    std::atomic<int> doubles{0};
    std::atomic<int> handed_back{0};
    std::array<std::atomic<int>, kPaths> pushed{};  // the last version pushed per path

    auto version_of = [](const Event& e) { return std::stoi(e.m_data_hash.str()); };
    auto pending = [&] { return mgr.GetAllPendingEventCount(1) + mgr.GetAllPendingEventCount(2); };
    // Events the manager strands would keep the workers polling forever: fail instead.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    std::vector<std::thread> workers;
    for (int w = 0; w < 3; ++w) {
        workers.emplace_back([&] {
            RecordingTask self;
            Event e;
            for (;;) {
                if (mgr.PullEvent(&self, e) != 0) {
                    if (!producing.load() && pending() == 0) return;
                    if (std::chrono::steady_clock::now() > deadline) {
                        ADD_FAILURE() << pending() << " events never came out";
                        return;
                    }
                    std::this_thread::yield();
                    continue;
                }
                for (bool first = true;; first = false) {
                    {
                        std::lock_guard<std::mutex> lock(result_mutex);
                        if (first && !held.insert(e.m_path.str()).second) ++doubles;
                        carried[e.m_path.str()].push_back(version_of(e));
                    }
                    // Hold the path until a newer save lands (or a little while), so that
                    // changes meet held paths whatever the machine's load.
                    const int index = std::stoi(e.m_path.str().substr(2));
                    for (int spin = 0; spin < 500 && pushed[index].load() <= version_of(e) &&
                                       pushed[index].load() < kVersions;
                         ++spin)
                        std::this_thread::sleep_for(std::chrono::microseconds(100));
                    const ustring path = e.m_path;
                    if (mgr.DoneEvent(&self, e) == 0) break;
                    ++handed_back;
                    EXPECT_EQ(e.m_path, path);
                }
                std::lock_guard<std::mutex> lock(result_mutex);
                held.erase(e.m_path.str());
            }
        });
    }
    std::vector<std::thread> producers;
    for (int p = 0; p < 2; ++p) {
        producers.emplace_back([&, p] {
            for (int v = 1; v <= kVersions; ++v) {
                for (int i = p; i < kPaths; i += 2) {
                    mgr.PushLocalEvent(
                        In(1 + i % 2, Make(Event::EV_MODIFY, "/p" + std::to_string(i), LOCAL,
                                           FILE_NODE, 0, std::to_string(v))));
                    pushed[i] = v;
                }
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
        });
    }
    for (std::thread& t : producers) t.join();
    producing = false;
    for (std::thread& t : workers) t.join();

    EXPECT_EQ(doubles.load(), 0);
    EXPECT_GT(handed_back.load(), 0);
    EXPECT_EQ(pending(), 0);
    ASSERT_EQ(carried.size(), static_cast<size_t>(kPaths));
    for (const auto& [path, versions] : carried) {
        SCOPED_TRACE(path);
        EXPECT_EQ(versions.back(), kVersions);  // nothing lost: the last save is carried out
        for (size_t i = 1; i < versions.size(); ++i)
            EXPECT_LT(versions[i - 1], versions[i]);  // never an older version after a newer
    }
}

}  // namespace
