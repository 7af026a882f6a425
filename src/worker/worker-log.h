// worker-log.h: the log of the worker's source files, every line under the component
// "worker_debug".
#pragma once

#include "foundation/log.h"

void WorkerLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
// True when a line of `level` would be written: skip building costly arguments otherwise.
bool WorkerLogOn(int level);
