// ours.cpp: driving our daemon through the bench's steps.
#include "ours.h"

#include <cstdio>
#include <optional>
#include <thread>

#include "bench-support.h"
#include "support/files.h"

namespace {

constexpr double kStepSeconds = 3600;

}  // namespace

// The harness's folders go under TMPDIR, which the caller points at the tool's root.
bool OurTool::Start(const std::string&) {
    m_world = std::make_unique<SyncWorld>();
    if (!m_world->ok()) {
        std::fprintf(stderr, "sync-vs-peers: our server or daemon did not start\n");
        return false;
    }
    m_relay = std::make_unique<CountingRelay>(m_world->server().port());
    m_world->LinkThrough(m_relay->port());
    // The harness's daemon logs at debug levels for the tests; a user's logs warnings.
    WriteFile(m_world->daemon().home() + "/levels", "");
    if (!Restart("", nullptr) || m_store.Open(m_world->server().data_dir()) != 0) {
        std::fprintf(stderr, "sync-vs-peers: our daemon did not link\n");
        return false;
    }
    return true;
}

bool OurTool::Restart(const std::string& extra, const std::function<void()>& stopped) {
    return m_world->Restart(false, [&] {
        if (!extra.empty()) WriteFile(m_world->daemon().config(), extra, true);
        if (stopped) stopped();
    });
}

bool OurTool::ServerHolds(const Step& step) {
    std::vector<ServerObject> objects;
    const std::string root = "/" + step.sub;
    if (m_store.ListTree(m_world->server().view_id(), root, objects) < 0) return false;
    Tree held;
    for (const ServerObject& o : objects)
        if (o.path.size() > root.size())
            held[o.path.substr(root.size())] = TreeEntry{o.is_dir, o.is_dir ? 0 : o.size, o.md4};
    return held == step.expect;
}

bool OurTool::WaitDone(const Step& step) {
    const auto done = [&] {
        if (g_interrupted) return true;
        if (step.what != Case::kSmallResync) return ServerHolds(step);
        return m_world->SessionStatus(1)["status"].asString() == ustring("uptodate");
    };
    // Looking costs the machine little next to the work looked at, and the clock is read
    // as soon as it holds.
    return Eventually(
               done, [] { std::this_thread::sleep_for(std::chrono::milliseconds(40)); },
               std::chrono::seconds(static_cast<int64_t>(kStepSeconds))) &&
           !g_interrupted;
}

Figures OurTool::Run(const Step& step) {
    Figures f;
    if (step.what == Case::kInsertRealigned &&
        (!Restart("delta_realign = true\n", nullptr) ||
         !WaitUntil(
             [&] { return m_world->SessionStatus(1)["status"].asString() == ustring("uptodate"); },
             600))) {
        std::fprintf(stderr, "sync-vs-peers: our daemon did not come back realigned\n");
        return f;
    }
    // A first sync meets a folder already filled: the files are put there before the
    // session is added.
    if (step.what == Case::kSmallFirst && !step.change()) {
        std::fprintf(stderr, "sync-vs-peers: ours: the files could not be put in place\n");
        return f;
    }
    const auto wire = [this] { return m_relay->Sent() + m_relay->Received(); };
    uint64_t wire_before = wire();
    ResetPeak(m_world->server().pid());
    ResetPeak(m_world->daemon().pid());
    std::optional<DescendantPeaks> peaks;
    auto start = std::chrono::steady_clock::now();
    bool started = true;
    if (step.what == Case::kSmallResync) {
        // The old daemon's figures are not this step's: the clock and the sampling start
        // when it is gone.
        started = Restart("", [&] {
            wire_before = wire();
            ResetPeak(m_world->server().pid());
            peaks.emplace();
            start = std::chrono::steady_clock::now();
        });
    } else if (step.what == Case::kSmallFirst) {
        peaks.emplace();
        started =
            !m_world->AddSession(1).hasMember("error") && !m_world->Resume(1).hasMember("error");
    } else {
        peaks.emplace();
        started = step.change();
    }
    if (!started || !peaks) {
        std::fprintf(stderr,
                     "sync-vs-peers: ours: the change, the session or the restart "
                     "failed\n");
        return f;
    }
    const bool done = WaitDone(step);
    f.seconds = SecondsSince(start);
    f.peak_kib = peaks->TotalKiB();
    peaks.reset();
    f.wire = SettledBytes(wire) - wire_before;
    if (!done || !ServerHolds(step)) {
        const std::string log = m_world->daemon().Log();
        std::fprintf(stderr, "sync-vs-peers: ours did not finish; the daemon's log ends:\n%s\n",
                     log.substr(log.size() > 4000 ? log.size() - 4000 : 0).c_str());
        return f;
    }
    f.ok = true;
    return f;
}
