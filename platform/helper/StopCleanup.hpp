// How a helper tool stops. It never outlives the program that started it, and when
// SIGINT, SIGTERM or SIGHUP stops it half-way (or its caller dies, which sends it
// SIGTERM), it first kills its child processes with their process groups and reaps
// them, so that none can still write, then removes the partial output registered
// here, and then dies of that signal. Nothing that existed before the helper started
// is registered, so nothing of that kind is removed.
//
// The stop runs in a signal handler on the main thread: everything registered is
// kept in storage that the handler reads without allocating, and is changed only with
// the stop signals blocked.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <string>

namespace whittle::helper {

// The first call of a helper's main(): arranges to receive SIGTERM when the caller
// dies, installs the stop handler (a SIGINT or SIGHUP that the caller chose to ignore
// stays ignored), and stops at once if the caller is already gone.
void tieToCaller();

// The process that started this helper (its parent when tieToCaller() ran).
pid_t callerPid();

// Blocks the stop signals on this thread while it lives, so that creating an output
// and registering it (or starting a child and registering it) is one step for a stop.
class StopSignalsBlocked {
public:
    StopSignalsBlocked();
    ~StopSignalsBlocked();
    StopSignalsBlocked(const StopSignalsBlocked&) = delete;
    StopSignalsBlocked& operator=(const StopSignalsBlocked&) = delete;

private:
    sigset_t previous_;
};

// A file, link or folder (with everything in it) that this helper made at path: its
// parent folder is found as usual, the item itself is never followed if a link.
void removeOnStop(const std::string& path);
// Finished (or taken care of otherwise): no longer removed by a stop.
void keepOnStop(const std::string& path);
// Removes such an item at once (after a failure) and forgets it. Answers the error
// number of what could not be removed, or 0.
int removeNow(const std::string& path);

// The same for an item below an open folder of the output: every component of
// relativePath is opened without following links, so a stop cannot be led outside
// that folder. The descriptor must stay open until keepEverythingBelow() or
// removeEverythingBelowNow() has been called for it.
void removeOnStopBelow(int folderFd, const std::string& relativePath);
void keepEverythingBelow(int folderFd);
// Removes the items registered below that folder now (after a failure), and forgets
// them. Answers the error number of the first item that could not be removed, or 0.
int removeEverythingBelowNow(int folderFd);

// A child process leading a process group of its own: a stop kills the group.
void killOnStop(pid_t child);
void forgetOnStop(pid_t child);

}  // namespace whittle::helper
