// Random pushes, pops, dones and redos against a flat model of what must be pending.
// The model keeps one entry per (path, kind) and merges by the table of pending and
// arriving events, written here independently of the tree. After every step the tree
// must agree with it: the same events with the same states, the right counters and
// held counts, no step left that leads nowhere; and nothing comes out before its
// parent, twice at once, or not at all.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "event-builders.h"
#include "events/event-list2.h"

using namespace evtest;

namespace {

// Marks the tree adds when it hands out a removal; advisory, so not modelled.
constexpr uint32_t kStatBits =
    Event::F_LOCAL_SUBDIR_RESCAN_STAT | Event::F_SERVER_SUBDIR_RESCAN_STAT;

using Key = std::pair<std::string, bool>;  // path, is a directory

struct Entry {
    Event ev;
    EventList2::Status st = EventList2::WAITING;  // held is PROCESSING
};

bool IsBelow(const std::string& path, const std::string& dir) {
    return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 &&
           path[dir.size()] == '/';
}

// A local file event that survives a server removal carries the removal with it.
Event Absorb(Event local, const Event& removal) {
    local.m_mode |= Event::F_SERVER_REMOVED;
    local.m_sync_id = removal.m_sync_id;
    local.m_max_id = removal.m_max_id;
    return local;
}

// The table of pending against arriving events, row by row.
Event ModelMerge(const Event& p, const Event& a) {
    const bool dir = a.isDir();
    const bool p_server = p.isServerEvent(), a_server = a.isServerEvent();
    const bool p_remove = p.m_type == Event::EV_REMOVE, a_remove = a.m_type == Event::EV_REMOVE;
    Event out;
    if (!p_server && !a_server) {
        out = p.hasServerRemoval() && !a_remove && !a.hasServerRemoval() ? Absorb(a, p) : a;
    } else if (p_server && a_server) {
        out = (p.m_sync_id < a.m_sync_id || p.m_sync_id == MAX_SYNC_ID) ? a : p;
    } else if (!p_server) {  // local pending, server arriving
        if (p_remove)
            out = a;
        else if (a_remove)
            out = dir ? a : Absorb(p, a);
        else {
            out = a;
            if (!dir) out.setConflict();
        }
    } else {  // server pending, local arriving
        if (p_remove && !a_remove)
            out = dir ? a : Absorb(a, p);
        else if (a_remove)
            out = dir ? a : p;
        else if (dir)
            out = a;
        else {
            out = p;
            out.setConflict();
        }
    }
    if (dir && p_remove && out.m_type != Event::EV_REMOVE) {
        if (p_server)
            out.setServerSubDirRescan();
        else
            out.setLocalSubDirRescan();
    }
    return out;
}

struct Model {
    void Push(const Event& e) {
        const Key key{e.m_path.str(), e.isDir()};
        auto it = entries.find(key);
        if (it == entries.end()) {
            it = entries.emplace(key, Entry{e, EventList2::WAITING}).first;
        } else {
            it->second.ev = ModelMerge(it->second.ev, e);
            if (it->second.st == EventList2::PROCESSING) it->second.st = EventList2::RETRY;
        }
        const Event& now = it->second.ev;
        if (!key.second || now.m_type != Event::EV_REMOVE) return;
        // A directory removal supersedes waiting events of its side below it; a server
        // removal only those older than itself.
        for (auto below = entries.begin(); below != entries.end();) {
            const Entry& b = below->second;
            const bool drop = IsBelow(below->first.first, key.first) &&
                              b.st == EventList2::WAITING &&
                              b.ev.isServerEvent() == now.isServerEvent() &&
                              (now.isLocalEvent() || b.ev.m_sync_id < now.m_sync_id);
            below = drop ? entries.erase(below) : std::next(below);
        }
    }

    bool HasPendingAncestor(const std::string& path) const {
        for (const auto& [key, entry] : entries)
            if (key.second && IsBelow(path, key.first)) return true;
        return false;
    }
    bool HasHeldBelow(const std::string& path) const {
        for (const auto& [key, entry] : entries)
            if (entry.st == EventList2::PROCESSING && IsBelow(key.first, path)) return true;
        return false;
    }
    std::map<Key, Entry> entries;
};

void ExpectSameEvent(const Event& tree, const Event& model) {
    EXPECT_EQ(tree.m_type, model.m_type);
    EXPECT_EQ(tree.m_mode & ~kStatBits, model.m_mode);
    EXPECT_EQ(tree.m_sync_id, model.m_sync_id);
    EXPECT_EQ(tree.m_data_hash, model.m_data_hash);
}

class Simulation {
  public:
    explicit Simulation(unsigned seed) : m_rng(seed), m_held(3) {}

    void Step() {
        const unsigned roll = m_rng() % 100;
        if (roll < 50)
            PushRandom();
        else if (roll < 75)
            PopAny();
        else if (roll < 95)
            FinishOne(false);
        else
            FinishOne(true);
    }

    // Workers finish everything they hold and take whatever is left, until nothing is.
    void Drain() {
        for (int round = 0; round < 10000 && !m_model.entries.empty(); ++round) {
            const bool any_held = std::any_of(m_held.begin(), m_held.end(),
                                              [](const auto& h) { return h.has_value(); });
            if (!PopAny() && !any_held) {
                ADD_FAILURE() << "events pending, none held, none handed out";
                return;
            }
            FinishOne(false);
        }
        EXPECT_TRUE(m_model.entries.empty());
        EXPECT_TRUE(m_tree.IsEmpty());  // the counters are Check's
    }

    void Check() {
        // Per side, the events pending; per directory, held events below it by side,
        // and whether anything is below.
        int pending[2] = {0, 0};
        std::map<std::string, std::pair<int, int>> held_below;
        std::map<std::string, bool> leads_somewhere;
        for (const auto& [key, entry] : m_model.entries) {
            ++pending[entry.ev.isServerEvent()];
            for (size_t cut = key.first.rfind('/'); cut != 0 && cut != std::string::npos;
                 cut = key.first.rfind('/', cut - 1)) {
                const std::string dir = key.first.substr(0, cut);
                leads_somewhere[dir] = true;
                if (entry.st != EventList2::PROCESSING) continue;
                auto& counts = held_below[dir];
                ++(entry.ev.isServerEvent() ? counts.first : counts.second);
            }
        }
        EXPECT_EQ(m_tree.GetLocalEventCount(), pending[0]);
        EXPECT_EQ(m_tree.GetServerEventCount(), pending[1]);
        size_t with_event = 0;
        for (const EventList2::NodeView& n : m_tree.Snapshot()) {
            const std::string path = n.path.str();
            SCOPED_TRACE(path);
            if (n.is_dir) {
                EXPECT_EQ(n.refServerCount, held_below[path].first);
                EXPECT_EQ(n.refLocalCount, held_below[path].second);
            }
            if (n.status == EventList2::DONE) {
                EXPECT_TRUE(leads_somewhere[path]) << "a step that leads nowhere";
                continue;
            }
            ++with_event;
            auto it = m_model.entries.find(Key{path, n.is_dir});
            if (it == m_model.entries.end()) {
                ADD_FAILURE() << "tree holds an event the model dropped";
                continue;
            }
            EXPECT_EQ(n.status, it->second.st);
            ExpectSameEvent(n.event, it->second.ev);
        }
        EXPECT_EQ(with_event, m_model.entries.size());
    }

  private:
    Event RandomEvent() {
        static const char* const kNames[] = {"a", "b", "c"};
        std::string path;
        const unsigned depth = 1 + m_rng() % 3;
        for (unsigned i = 0; i < depth; ++i) path += std::string("/") + kNames[m_rng() % 3];
        static const Event::Type kTypes[] = {Event::EV_CREATE, Event::EV_MODIFY, Event::EV_REMOVE};
        const Side side = m_rng() % 2 ? SERVER : LOCAL;
        uint64_t sync_id = 0;
        if (side == SERVER) sync_id = m_rng() % 10 == 0 ? MAX_SYNC_ID : 1 + m_rng() % 200;
        return Make(kTypes[m_rng() % 3], path, side, m_rng() % 3 == 0 ? DIR_NODE : FILE_NODE,
                    sync_id, "h" + std::to_string(++m_serial));
    }

    void PushRandom() {
        const Event e = RandomEvent();
        ASSERT_EQ(m_tree.Push(e), 0);
        m_model.Push(e);
    }

    bool PopAny() {
        for (auto& slot : m_held) {
            if (slot) continue;
            Event e;
            if (m_tree.Pop(e) != 0) return false;
            const std::string path = e.m_path.str();
            SCOPED_TRACE("popped " + path);
            auto it = m_model.entries.find(Key{path, e.isDir()});
            if (it == m_model.entries.end()) {
                ADD_FAILURE() << "handed out an event the model does not hold";
                return false;
            }
            EXPECT_EQ(it->second.st, EventList2::WAITING) << "a second hand-out of one path";
            ExpectSameEvent(e, it->second.ev);
            EXPECT_FALSE(m_model.HasPendingAncestor(path)) << "a child before its parent";
            if (e.isDir()) {
                EXPECT_FALSE(m_model.HasHeldBelow(path));
            }
            it->second.st = EventList2::PROCESSING;
            slot = e;
            return true;
        }
        return false;
    }

    void FinishOne(bool give_back) {
        std::vector<size_t> busy;
        for (size_t i = 0; i < m_held.size(); ++i)
            if (m_held[i]) busy.push_back(i);
        if (busy.empty()) return;
        std::optional<Event>& slot = m_held[busy[m_rng() % busy.size()]];
        const Event held = *slot;
        slot.reset();
        auto it = m_model.entries.find(Key{held.m_path.str(), held.isDir()});
        ASSERT_NE(it, m_model.entries.end()) << "a held event vanished";
        if (give_back) {
            ASSERT_EQ(m_tree.Redo(held.m_path, held.isDir()), 0);
            it->second.st = EventList2::WAITING;
            return;
        }
        const int done = m_tree.DoneEvent(held);
        if (it->second.st == EventList2::PROCESSING) {
            EXPECT_EQ(done, 0);
            m_model.entries.erase(it);
            return;
        }
        // Changed while held: refused, and the newer event goes back to the same worker.
        EXPECT_EQ(done, -1);
        Event newer;
        ASSERT_EQ(m_tree.Pop(held.m_path, held.isDir(), newer), 0);
        EXPECT_EQ(newer.isDir(), held.isDir());
        ExpectSameEvent(newer, it->second.ev);
        it->second.st = EventList2::PROCESSING;
        slot = newer;
    }

    std::mt19937 m_rng;
    EventList2 m_tree;
    Model m_model;
    std::vector<std::optional<Event>> m_held;
    unsigned m_serial = 0;
};

TEST(TreeProperty, RandomPushesAgreeWithTheModel) {
    for (unsigned seed : {1u, 2u, 3u, 4u, 5u, 6u}) {
        SCOPED_TRACE(seed);
        Simulation sim(seed);
        for (int step = 0; step < 2500; ++step) {
            sim.Step();
            sim.Check();
            if (::testing::Test::HasFailure()) return;
        }
        sim.Drain();
        sim.Check();
        if (::testing::Test::HasFailure()) return;
    }
}

}  // namespace
