// worker-drop.cpp: the barrier between the control thread and the busy workers.
#include "daemon/worker-drop.h"

#include "daemon/app-log.h"
#include "foundation/log.h"
#include "worker/worker.h"

void DropSessionFromWorkers(const std::vector<Worker*>& workers, uint64_t sess_id) {
    std::vector<Worker*> busy;
    for (Worker* w : workers) {
        Worker::ProcessEvent_T info;
        w->GetCurrentProcessEventInfo(info);
        // A walk shows no path in the status, but it works on the session all the same.
        if (info.session_id == 0) info.session_id = w->WalkingSession();
        if (info.session_id == 0 || (sess_id != 0 && info.session_id != sess_id)) continue;
        Logger::LogMsg(Logger::L_INFO, kAppLog, "[INFO] app(%d): pause worker %d\n", __LINE__,
                       w->GetId());
        busy.push_back(w);
    }
    if (!busy.empty()) {
        Worker::PauseType_T barrier(static_cast<uint32_t>(busy.size()));
        {
            // Held from before the first abort, so no worker's signal can be missed.
            MutexLock lock(barrier.pause_mutex);
            for (Worker* w : busy) {
                w->setPauseInstance(&barrier);
                Logger::LogMsg(Logger::L_INFO, kAppLog, "[INFO] app(%d): abort worker %d\n",
                               __LINE__, w->GetId());
                w->SetAbort(true);
            }
            Logger::LogMsg(Logger::L_INFO, kAppLog, "[INFO] app(%d): wait for worker drop ...\n",
                           __LINE__);
            barrier.WaitForAll();
            Logger::LogMsg(Logger::L_INFO, kAppLog,
                           "[INFO] app(%d): worker drop session done, continue\n", __LINE__);
        }
        for (Worker* w : busy) w->SetAbort(false);
    }
    Logger::LogMsg(Logger::L_INFO, kAppLog, "[INFO] app(%d): drop session %llu done\n", __LINE__,
                   static_cast<unsigned long long>(sess_id));
}
