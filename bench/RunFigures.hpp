// Running a program for a benchmark: its time, peak memory and status, its output
// thrown away.
#pragma once

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace whittle::bench {

struct RunFigures {
    double seconds = 0;
    long peakKilobytes = 0;
    int status = -1;
};

inline RunFigures runQuietly(const std::vector<std::string>& argv) {
    using Clock = std::chrono::steady_clock;
    std::fflush(stdout);
    auto start = Clock::now();
    pid_t child = fork();
    if (child == 0) {
        if (!freopen("/dev/null", "w", stdout) || !freopen("/dev/null", "w", stderr)) _exit(126);
        std::vector<char*> args;
        for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    RunFigures figures;
    figures.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    figures.peakKilobytes = usage.ru_maxrss;
    figures.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return figures;
}

}  // namespace whittle::bench
