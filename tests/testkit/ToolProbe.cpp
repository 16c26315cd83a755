// A stand-in platform tool for the process-runner tests.
//   tool_probe                      prints "no arguments"
//   tool_probe silent               prints nothing
//   tool_probe late MS TEXT         sleeps MS milliseconds, then prints TEXT on both streams
//   tool_probe flood BYTES          writes BYTES bytes to standard output and to standard error, interleaved
//   tool_probe exit N               exits with status N after a line on each stream
//   tool_probe pwd                  prints the working directory
//   tool_probe stdin                reads standard input and prints how many bytes it got
//   tool_probe crash                kills itself with SIGKILL
//   tool_probe lines COUNT MS       prints COUNT lines "line N", each at once, MS milliseconds apart
//   tool_probe halves MS            prints one line in two writes, MS milliseconds apart
//   tool_probe channel              prints the progress channel's variable ("none" without it)
//                                   and whether the descriptor it names is open
//   tool_probe report COUNT MS      like lines, and reports each line as a file of 1000 bytes
//                                   done on the progress channel
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

void pause(const char* milliseconds) { std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(milliseconds))); }

void printLines(int count, const char* milliseconds, int channel) {
    for (int line = 1; line <= count; ++line) {
        if (line > 1) pause(milliseconds);
        std::printf("line %d\n", line);
        std::fflush(stdout);
        if (channel >= 0) dprintf(channel, "done %d %d\n", line, line * 1000);
    }
}

int progressChannel() {
    const char* value = std::getenv("WHITTLE_PROGRESS_FD");
    return value ? std::atoi(value) : -1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::puts("no arguments");
        return 0;
    }
    std::string mode = argv[1];
    if (mode == "silent") return 0;
    if (mode == "late" && argc >= 4) {
        std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(argv[2])));
        std::fprintf(stdout, "%s", argv[3]);
        std::fprintf(stderr, "%s", argv[3]);
        return 0;
    }
    if (mode == "flood" && argc >= 3) {
        long total = std::atol(argv[2]);
        std::string block(4096, 'o');
        std::string errors(4096, 'e');
        for (long written = 0; written < total; written += 4096) {
            std::size_t size = static_cast<std::size_t>(std::min<long>(4096, total - written));
            std::fwrite(block.data(), 1, size, stdout);
            std::fwrite(errors.data(), 1, size, stderr);
        }
        return 0;
    }
    if (mode == "exit" && argc >= 3) {
        std::puts("out");
        std::fputs("err\n", stderr);
        return std::atoi(argv[2]);
    }
    if (mode == "pwd") {
        char folder[4096];
        std::puts(getcwd(folder, sizeof folder));
        return 0;
    }
    if (mode == "stdin") {
        char buffer[256];
        std::size_t total = 0, got;
        while ((got = std::fread(buffer, 1, sizeof buffer, stdin)) > 0) total += got;
        std::printf("%zu\n", total);
        return 0;
    }
    if (mode == "lines" && argc >= 4) {
        printLines(std::atoi(argv[2]), argv[3], -1);
        return 0;
    }
    if (mode == "halves" && argc >= 3) {
        std::fputs("first half, ", stdout);
        std::fflush(stdout);
        pause(argv[2]);
        std::fputs("second half\n", stdout);
        return 0;
    }
    if (mode == "channel") {
        const char* value = std::getenv("WHITTLE_PROGRESS_FD");
        if (!value) {
            std::puts("none");
            return 0;
        }
        std::printf("%s %s\n", value, ::fcntl(std::atoi(value), F_GETFD) >= 0 ? "open" : "closed");
        return 0;
    }
    if (mode == "report" && argc >= 4) {
        int count = std::atoi(argv[2]);
        int channel = progressChannel();
        if (channel >= 0) dprintf(channel, "total %d %d copying\n", count, count * 1000);
        printLines(count, argv[3], channel);
        return 0;
    }
    if (mode == "crash") {
        std::fflush(stdout);
        kill(getpid(), SIGKILL);
    }
    return 3;
}
