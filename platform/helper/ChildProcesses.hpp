// Child processes of a helper: each leads a process group of its own (so that it can
// be killed with whatever it starts), is killed when the helper dies, and is killed
// and reaped first when the helper is stopped.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace whittle::helper {

struct ChildStreams {
    int input = -1;   // -1: /dev/null
    int output = -1;  // -1: the helper's own standard output
    int errors = -1;  // -1: the helper's own standard error
};

// Starts argv[0] (a full path) with these arguments. Answers its process id, or -1
// with errno set when it could not be started (its program missing, for instance).
pid_t startChild(const std::vector<std::string>& argv, const ChildStreams& streams);

// Waits for the child's end; answers its exit status, or 128 + the signal that ended it.
int waitForChild(pid_t child);

// Kills the child with its process group, and reaps it.
void killChild(pid_t child);

}  // namespace whittle::helper
