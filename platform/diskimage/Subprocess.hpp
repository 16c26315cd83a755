// Running the external programs (7zz): started by full path, standard input
// from /dev/null, their messages captured in memory. Each runs in a process group of
// its own and dies with the tool (see platform/helper/ChildProcesses.hpp).
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/diskimage/FileIo.hpp"

namespace whittle::diskimage {

class ChildProcess {
public:
    // Starts argv[0]. Standard output goes to outputFd when one is given, otherwise it
    // is captured together with standard error.
    explicit ChildProcess(const std::vector<std::string>& argv, int outputFd = -1);
    // A child still running is killed and reaped.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Waits for the end; the exit status, or 128 + the signal that ended it.
    int wait();
    // What the child printed (after wait()).
    std::string capturedText() const;
    // The last lines of that, for a message.
    std::string messageTail() const;
    // One line for a message: the system's reason for the failure when the child's
    // messages name one, otherwise the child's last line.
    std::string failureReason() const;
    const std::string& programName() const { return programName_; }

private:
    pid_t pid_ = -1;
    int status_ = -1;
    UniqueDescriptor capture_;
    std::string programName_;
};

// Runs a program to its end.
struct ProcessResult {
    int status;
    std::string text;
};
ProcessResult runToCompletion(const std::vector<std::string>& argv);

}  // namespace whittle::diskimage
