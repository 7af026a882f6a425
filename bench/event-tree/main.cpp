// What the event pipeline costs per event: merging a burst into one node, walking a
// large tree in order, and a push through the manager with its status row and notice.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "events/event-list2.h"
#include "events/event-manager.h"
#include "foundation/log.h"
#include "foundation/settings.h"
#include "runtime/registry.h"
#include "state/file-status-db.h"

namespace {

Event LocalModify(const std::string& path) {
    Event e;
    e.m_type = Event::EV_MODIFY;
    e.m_path = path.c_str();
    e.m_sess_id = 1;
    return e;
}

// Many saves of one file: each is a walk to the node and a merge, no growth.
void BM_BurstOnOnePath(benchmark::State& state) {
    EventList2 tree;
    const Event e = LocalModify("/projects/report/draft.odt");
    for (auto _ : state) benchmark::DoNotOptimize(tree.Push(e));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BurstOnOnePath);

// A tree of `files` pending files in folders of 100, pushed, then popped and retired
// in order by one worker.
void BM_PushPopDone(benchmark::State& state) {
    const int files = static_cast<int>(state.range(0));
    for (auto _ : state) {
        EventList2 tree;
        for (int i = 0; i < files; ++i)
            tree.Push(LocalModify("/d" + std::to_string(i / 100) + "/f" + std::to_string(i)));
        Event e;
        while (tree.Pop(e) == 0) tree.DoneEvent(e);
    }
    state.SetItemsProcessed(state.iterations() * files);
}
BENCHMARK(BM_PushPopDone)->Arg(1000)->Arg(10000);

// One push through the manager: task table, registry, tree, status row, refused notice.
void BM_ManagerPush(benchmark::State& state) {
    char dir[] = "/tmp/event-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) return;
    const std::string root = dir;
    Logger::Initialize(Logger::FILE_LOGGER, (root + "/log").c_str(), "", 2);
    FileStatusDB::initialize((root + "/fstat.sqlite").c_str());
    {
        std::ofstream conf(root + "/conf");
        conf << "ui_port = 1\n";  // nobody listens: the notice is refused at once
    }
    Settings::getInstance().loadConfigSettings((root + "/conf").c_str());
    Registry registry;
    Registry::Entry entry;
    entry.sess_id = 1;
    entry.local_path = (root + "/sync").c_str();
    registry.Set(entry);
    EventManager mgr(registry);
    int i = 0;
    for (auto _ : state) mgr.PushLocalEvent(LocalModify("/f" + std::to_string(i++ % 1000)));
    state.SetItemsProcessed(state.iterations());
    FileStatusDB::destroy();
    Logger::Destroy();
    for (const char* name :
         {"/log", "/fstat.sqlite", "/fstat.sqlite-wal", "/fstat.sqlite-shm", "/conf"})
        unlink((root + name).c_str());
    rmdir(dir);
}
BENCHMARK(BM_ManagerPush);

}  // namespace

BENCHMARK_MAIN();
