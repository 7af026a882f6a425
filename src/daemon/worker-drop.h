// worker-drop.h: the drop barrier of a pause, as the control thread runs it: every worker
// busy with the paused session is aborted, and the control thread waits until each has
// let go of its event. Used by the "pause" command.
#pragma once

#include <cstdint>
#include <vector>

class Worker;

// Returns once none of `workers` is busy with session `sess_id` (with any session for 0).
// Workers busy with other sessions are left alone. Every worker must be running its
// loop, since each counts itself off the barrier there.
void DropSessionFromWorkers(const std::vector<Worker*>& workers, uint64_t sess_id);
