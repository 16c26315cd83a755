// A stand-in platform tool for the process-runner tests.
//   tool_probe                      prints "no arguments"
//   tool_probe silent               prints nothing
//   tool_probe late MS TEXT         sleeps MS milliseconds, then prints TEXT on both streams
//   tool_probe flood BYTES          writes BYTES bytes to standard output and to standard error, interleaved
//   tool_probe exit N               exits with status N after a line on each stream
//   tool_probe pwd                  prints the working directory
//   tool_probe stdin                reads standard input and prints how many bytes it got
//   tool_probe crash                kills itself with SIGKILL
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

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
    if (mode == "crash") {
        std::fflush(stdout);
        kill(getpid(), SIGKILL);
    }
    return 3;
}
