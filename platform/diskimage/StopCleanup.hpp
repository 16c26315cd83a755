// What to undo when SIGINT, SIGTERM or SIGHUP stops the tool half-way: child processes
// are killed (and reaped, so that none can still create a file), then temporary files
// are removed. Everything here is safe to call from a signal handler's point of view:
// fixed storage, no allocation.
#pragma once

#include <sys/types.h>

#include <string>

namespace whittle::diskimage {

// Blocks the stopping signals while it lives, so that a file can be created and
// registered (or a child started and registered) as one step.
class StopSignalsBlocked {
public:
    StopSignalsBlocked();
    ~StopSignalsBlocked();
    StopSignalsBlocked(const StopSignalsBlocked&) = delete;
    StopSignalsBlocked& operator=(const StopSignalsBlocked&) = delete;

private:
    unsigned long long previous_[16];  // storage for the previous sigset_t
};

void removeOnStop(const std::string& path);
void keepOnStop(const std::string& path);
void killOnStop(pid_t child);
void forgetOnStop(pid_t child);

}  // namespace whittle::diskimage
