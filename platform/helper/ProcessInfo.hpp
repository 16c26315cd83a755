// Telling one process from another over time: a process id is reused once its process
// has ended, but together with the process's start time it names one process only.
#pragma once

#include <sys/types.h>

#include <optional>

namespace whittle::helper {

struct ProcessIdentity {
    pid_t pid = 0;
    unsigned long long startTime = 0;  // clock ticks after boot, as /proc/PID/stat says
    bool operator==(const ProcessIdentity&) const = default;
};

// The identity of a running process; none when there is no such process or it has
// ended and only waits to be reaped.
std::optional<ProcessIdentity> runningProcess(pid_t pid);

// True while that very process runs (not merely one with the same id).
bool isRunning(const ProcessIdentity& identity);

}  // namespace whittle::helper
