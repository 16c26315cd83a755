// Helpers for the tests that stop the helper tools half-way: programs run in the
// background, a stand-in caller that can be killed, the process tree under a
// program, folders watched for new entries, and runs inside a private mount namespace
// with a read-only or a small file system.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "TestSupport.hpp"

namespace whittle::test {

using Milliseconds = std::chrono::milliseconds;

// A program running in the background: standard input from /dev/null, standard
// output and standard error kept in memory files (so it never blocks on them).
class BackgroundProgram {
public:
    explicit BackgroundProgram(const std::vector<std::string>& argv);
    ~BackgroundProgram();  // a program still running is killed and reaped
    BackgroundProgram(const BackgroundProgram&) = delete;
    BackgroundProgram& operator=(const BackgroundProgram&) = delete;

    pid_t pid() const { return pid_; }
    bool hasEnded();
    // Waits for its end; answers its status (exit status, or 128 + signal), or none if
    // it still runs after the limit.
    std::optional<int> waitForEnd(Milliseconds limit);
    std::string output() const;
    std::string errors() const;

private:
    pid_t pid_ = -1;
    std::optional<int> status_;
    int outputFd_ = -1;
    int errorsFd_ = -1;
};

// Makes this test process the reaper of orphans below it while it lives, so that a
// helper whose caller was killed can be waited for here.
class OrphanReaper {
public:
    OrphanReaper();
    ~OrphanReaper();
    OrphanReaper(const OrphanReaper&) = delete;
    OrphanReaper& operator=(const OrphanReaper&) = delete;
};

// A stand-in for the helper's caller: a process that starts the helper and then only
// waits, to be killed with SIGKILL.
class StandInCaller {
public:
    explicit StandInCaller(const std::vector<std::string>& argv);
    ~StandInCaller();
    StandInCaller(const StandInCaller&) = delete;
    StandInCaller& operator=(const StandInCaller&) = delete;

    pid_t callerPid() const { return caller_; }
    pid_t helperPid() const { return helper_; }
    void killCaller();

private:
    pid_t caller_ = -1;
    pid_t helper_ = -1;
};

// Every process below pid (children, their children, ...), from /proc.
std::vector<pid_t> descendantsOf(pid_t pid);
// The processes of these process groups, from /proc.
std::vector<pid_t> membersOfGroups(const std::vector<pid_t>& groups);
// True while pid names a process that has not ended (an unreaped one has ended).
bool isAlive(pid_t pid);
// Waits until none of these processes is alive (reaping any that are children of this
// process); answers those still alive after the limit.
std::vector<pid_t> stillAliveAfter(const std::vector<pid_t>& pids, Milliseconds limit);

// What stopping a running program with a signal came to.
struct StopOutcome {
    std::optional<int> status;          // none: still running after the limit
    Milliseconds took{0};               // from the signal to the end
    std::vector<pid_t> childrenBefore;  // the processes below it when the signal was sent
    std::vector<pid_t> leftBehind;      // of those, and of their process groups, the ones still alive
};
StopOutcome stopWithSignal(BackgroundProgram& program, int signalNumber, Milliseconds limit);

// Waits for a new entry in a folder, by inotify: set up before the program starts.
class FolderWatch {
public:
    explicit FolderWatch(const std::string& folder);
    ~FolderWatch();
    FolderWatch(const FolderWatch&) = delete;
    FolderWatch& operator=(const FolderWatch&) = delete;
    // The name of the first entry made after the watch began that matches; none if
    // nothing matched within the limit.
    std::optional<std::string> waitForEntry(const std::function<bool(const std::string&)>& matches, Milliseconds limit);

private:
    int fd_ = -1;
};

// Polls until the condition holds; false if it did not within the limit.
bool waitUntil(const std::function<bool()>& condition, Milliseconds limit);

// Everything below a folder ("name", "name/inner", ...), links not followed; empty
// for a missing folder.
std::vector<std::string> entriesBelow(const std::string& folder);

// Runs a program inside a private mount namespace (a user namespace too when this
// process is not root), where folder is either bind-mounted read-only onto itself or
// covered by an empty tmpfs of tmpfsBytes. Answers none, with the reason in
// whyNot, when the system does not allow that.
enum class PrivateMount { readOnly, smallTmpfs };
struct PrivateMountRun {
    ProgramResult result;
    std::vector<std::string> leftInFolder;  // entriesBelow(folder) inside the namespace, after the run
};
std::optional<PrivateMountRun> runWithPrivateMount(const std::vector<std::string>& argv, const std::string& folder,
                                                   PrivateMount kind, std::string& whyNot,
                                                   std::size_t tmpfsBytes = std::size_t{1} << 20);

// A file that reads as size zero bytes and takes no disk space.
void makeSparseFile(const std::string& path, unsigned long long size);

// The names of the files in a folder that begin with prefix.
std::vector<std::string> namesStartingWith(const std::string& folder, const std::string& prefix);

// The signals that stop a helper.
inline constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

// A file's size, or 0 when it is not there.
std::uintmax_t sizeOr0(const std::string& path);

// A helper's failure: status 1 and one line on standard error that begins with the
// tool's name and holds `needle` (the path as quoted) and the reason.
void expectOneFailureLine(const ProgramResult& result, const std::string& tool, const std::string& needle,
                          const std::string& reason);

}  // namespace whittle::test
