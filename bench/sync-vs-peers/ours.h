// ours.h: our daemon and the reference server as processes (the end-to-end harness), the
// daemon linked through a counting relay and logging at its default levels. The first
// sync is a session added and resumed on a filled folder; later changes are picked up by
// the running daemon; the no-change resync is a restart of the daemon, whose start rescans
// the folder; the realigned insert restarts it with `delta_realign = true` first.
#pragma once

#include <memory>
#include <string>

#include "harness/counting-relay.h"
#include "harness/sync-world.h"
#include "server-store.h"
#include "tool.h"

class OurTool : public Tool {
  public:
    const char* Name() const override { return "ours"; }
    bool Start(const std::string& root) override;
    std::string Source() const override { return m_world->Folder(1); }
    Figures Run(const Step& step) override;

  private:
    // Restarts the daemon on its configuration, `extra` appended to it; `stopped` runs
    // once the old daemon is gone. False when it did not come back.
    bool Restart(const std::string& extra, const std::function<void()>& stopped);
    // Waits until the server holds `step.expect` under `step.sub`, or the session reports
    // nothing pending for kSmallResync.
    bool WaitDone(const Step& step);
    bool ServerHolds(const Step& step);

    std::unique_ptr<SyncWorld> m_world;
    std::unique_ptr<CountingRelay> m_relay;
    ServerStore m_store;
};
