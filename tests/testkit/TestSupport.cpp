#include "TestSupport.hpp"

#include "support/LogObject.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace whittle::test {

TempDir::TempDir() {
    char pattern[] = "/tmp/whittle-test-XXXXXX";
    if (!mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() { removeTree(path_); }

void writeFile(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

bool pathExists(const std::string& path) {
    std::error_code error;
    return std::filesystem::symlink_status(path, error).type() != std::filesystem::file_type::not_found;
}

void removeTree(const std::string& path) {
    std::error_code error;
    std::filesystem::remove_all(path, error);
}

namespace {

[[noreturn]] void execChild(const std::vector<std::string>& argv, const RunOptions& options, int outFd, int errFd) {
    int devNull = ::open("/dev/null", O_RDONLY);
    ::dup2(devNull, 0);
    ::dup2(outFd, 1);
    ::dup2(errFd, 2);
    if (!options.workingDirectory.empty() && ::chdir(options.workingDirectory.c_str()) != 0) _exit(126);
    for (const auto& [name, value] : options.environment) ::setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> args;
    for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    _exit(127);
}

}  // namespace

void appendAvailable(int fd, std::string& sink, bool& open) {
    char buffer[65536];
    ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got > 0) {
        sink.append(buffer, static_cast<std::size_t>(got));
    } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
        open = false;
    }
}

ProgramResult runProgram(const std::vector<std::string>& argv, const RunOptions& options) {
    int outPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    int errRead = -1, errWrite = -1;
    if (options.stderrOnTerminal) {
        // A raw terminal passes bytes through unchanged (no "\n" to "\r\n").
        termios raw{};
        ::cfmakeraw(&raw);
        if (::openpty(&errRead, &errWrite, nullptr, &raw, nullptr) != 0) throw std::runtime_error("openpty failed");
        ::fcntl(errRead, F_SETFD, FD_CLOEXEC);
        ::fcntl(errWrite, F_SETFD, FD_CLOEXEC);
    } else {
        int errPipe[2];
        if (::pipe2(errPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
        errRead = errPipe[0];
        errWrite = errPipe[1];
    }

    pid_t child = ::fork();
    if (child == 0) {
        if (options.signalProcessGroup) ::setpgid(0, 0);
        execChild(argv, options, outPipe[1], errWrite);
    }
    if (options.signalProcessGroup) ::setpgid(child, child);
    auto started = std::chrono::steady_clock::now();
    bool signalled = options.signalNumber == 0;
    ::close(outPipe[1]);
    ::close(errWrite);

    ProgramResult result;
    bool outOpen = true, errOpen = true;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options.timeoutSeconds);
    while (outOpen || errOpen) {
        pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errRead, POLLIN, 0}};
        ::poll(fds, 2, signalled ? 100 : 5);
        bool pathReady = options.signalWhenPathExists.empty() || pathExists(options.signalWhenPathExists);
        bool outputReady = options.signalWhenOutputContains.empty() ||
                           (result.out + result.err).find(options.signalWhenOutputContains) != std::string::npos;
        if (!signalled && pathReady && outputReady &&
            std::chrono::steady_clock::now() - started >= std::chrono::milliseconds(options.signalAfterMilliseconds)) {
            ::kill(options.signalProcessGroup ? -child : child, options.signalNumber);
            signalled = true;
        }
        if (outOpen && (fds[0].revents & (POLLIN | POLLHUP | POLLERR))) appendAvailable(outPipe[0], result.out, outOpen);
        if (errOpen && (fds[1].revents & (POLLIN | POLLHUP | POLLERR))) appendAvailable(errRead, result.err, errOpen);
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(child, SIGKILL);
            break;
        }
    }
    ::close(outPipe[0]);
    ::close(errRead);
    int status = 0;
    ::waitpid(child, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

std::string whittleBinary() { return WHITTLE_BINARY; }

namespace {

// Under CTest a test that runs alone holds every slot of the whittle_runs resource, and
// every other test that runs whittle holds one. Run by hand, a test program runs alone.
void expectTheLogToItself() {
    if (!std::getenv("CTEST_RESOURCE_GROUP_COUNT")) return;
    const char* held = std::getenv("CTEST_RESOURCE_GROUP_0_WHITTLE_RUNS");
    std::string allSlots = "slots:" + std::to_string(WHITTLE_TEST_RUN_SLOTS);
    if (!held || std::string(held).find(allSlots) == std::string::npos) {
        ADD_FAILURE() << "this test uses " << kWhittleLogFile
                      << " while other tests may run whittle: name it among the tests of its program that run alone (ALONE in tests/CMakeLists.txt)";
    }
}

}  // namespace

std::string readWhittleLog() {
    expectTheLogToItself();
    return readFile(kWhittleLogFile);
}

bool whittleLogExists() {
    expectTheLogToItself();
    return pathExists(kWhittleLogFile);
}

void writeWhittleLog(const std::string& content) {
    expectTheLogToItself();
    writeFile(kWhittleLogFile, content);
}

void removeWhittleLog() {
    expectTheLogToItself();
    removeTree(kWhittleLogFile);
}

ProgramResult runWhittle(const std::vector<std::string>& arguments, const RunOptions& options) {
    std::vector<std::string> argv{whittleBinary()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return runProgram(argv, options);
}

std::set<std::string> folderTree(const std::string& root) {
    std::set<std::string> paths;
    for (auto it = std::filesystem::recursive_directory_iterator(root); it != std::filesystem::recursive_directory_iterator(); ++it) {
        paths.insert(it->path().lexically_relative(root).string());
    }
    return paths;
}

std::set<std::string> withParentFolders(const std::set<std::string>& paths) {
    std::set<std::string> all;
    for (auto path : paths) {
        while (!path.empty()) {
            all.insert(path);
            auto slash = path.find_last_of('/');
            path = slash == std::string::npos ? std::string() : path.substr(0, slash);
        }
    }
    return all;
}

DryRunLists dryRunListsOf(const std::string& output) {
    DryRunLists lists;
    bool inCreated = false;
    for (const auto& line : linesOf(output)) {
        if (line == "Files to be created:") inCreated = true;
        if (line.size() < 2 || line[0] != '\t') continue;
        std::string path = line.substr(1, line.find('\t', 1) - 1);
        (inCreated ? lists.created : lists.copied).insert(path);
    }
    return lists;
}

std::vector<std::string> drawnLines(const std::string& terminal) {
    const std::string erase = kTerminalLineErase;
    std::vector<std::string> lines;
    for (std::size_t at = terminal.find(erase); at != std::string::npos;) {
        std::size_t start = at + erase.size();
        std::size_t next = terminal.find(erase, start);
        std::string text = terminal.substr(start, next == std::string::npos ? std::string::npos : next - start);
        if (!text.empty()) lines.push_back(text);
        at = next;
    }
    return lines;
}

std::string loggedDuring(const std::function<void()>& action) {
    std::string before = LogObject::sharedLogger().historicalLog();
    testing::internal::CaptureStdout();
    action();
    testing::internal::GetCapturedStdout();
    return LogObject::sharedLogger().historicalLog().substr(before.size());
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::string::size_type start = 0;
    while (start < text.size()) {
        auto end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(line);
        start = end + 1;
    }
    return lines;
}

}  // namespace whittle::test
