#include "HelperProcesses.hpp"

#include "support/FileSystem.hpp"

#include <dirent.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

namespace whittle::test {

namespace {

namespace fs = std::filesystem;

// Set in the namespace child when the namespace or the mount could not be made.
constexpr int kNoNamespace = 250;

int statusOf(int raw) { return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw); }

int memoryFile(const char* name) {
    int fd = ::memfd_create(name, MFD_CLOEXEC);
    if (fd < 0) throw std::runtime_error(std::string("memfd_create failed: ") + std::strerror(errno));
    return fd;
}

std::string contentOf(int fd) {
    std::string text;
    char buffer[65536];
    for (off_t offset = 0;;) {
        ssize_t got = ::pread(fd, buffer, sizeof buffer, offset);
        if (got <= 0) break;
        text.append(buffer, static_cast<std::size_t>(got));
        offset += got;
    }
    return text;
}

std::vector<char*> argumentPointers(const std::vector<std::string>& argv) {
    std::vector<char*> pointers;
    for (const auto& argument : argv) pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

// Between fork and exec: system calls only.
[[noreturn]] void execWith(char* const* argv, int input, int output, int errors) {
    if (input < 0) input = ::open("/dev/null", O_RDONLY);
    ::dup2(input, 0);
    ::dup2(output, 1);
    ::dup2(errors, 2);
    ::execv(argv[0], argv);
    ::_exit(127);
}

pid_t startProgram(const std::vector<std::string>& argv, int output, int errors) {
    std::vector<char*> pointers = argumentPointers(argv);
    pid_t child = ::fork();
    if (child < 0) throw std::runtime_error("fork failed");
    if (child == 0) execWith(pointers.data(), -1, output, errors);
    return child;
}

struct ProcessLinks {
    pid_t parent = 0;
    pid_t group = 0;
    char state = '?';
};

// Fields 3 to 5 of /proc/PID/stat, read after the program name in parentheses.
std::optional<ProcessLinks> linksOf(pid_t pid) {
    // A process that ends between the open and the read is simply not listed.
    std::string line = readWholeFile("/proc/" + std::to_string(pid) + "/stat").value_or("");
    auto nameEnd = line.rfind(')');
    if (nameEnd == std::string::npos) return std::nullopt;
    ProcessLinks links;
    char state = '?';
    long parent = 0, group = 0;
    if (std::sscanf(line.c_str() + nameEnd + 1, " %c %ld %ld", &state, &parent, &group) != 3) return std::nullopt;
    links.state = state;
    links.parent = static_cast<pid_t>(parent);
    links.group = static_cast<pid_t>(group);
    return links;
}

std::vector<std::pair<pid_t, ProcessLinks>> allProcesses() {
    std::vector<std::pair<pid_t, ProcessLinks>> processes;
    DIR* proc = ::opendir("/proc");
    if (!proc) return processes;
    while (dirent* entry = ::readdir(proc)) {
        char* end = nullptr;
        long pid = std::strtol(entry->d_name, &end, 10);
        if (pid <= 0 || *end != '\0') continue;
        if (auto links = linksOf(static_cast<pid_t>(pid))) processes.emplace_back(static_cast<pid_t>(pid), *links);
    }
    ::closedir(proc);
    return processes;
}

void writeText(const std::string& path, const std::string& text) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return;
    ssize_t ignored = ::write(fd, text.data(), text.size());
    (void)ignored;
    ::close(fd);
}

// In the forked child: a mount namespace of its own, with the folder read-only or
// under a small tmpfs. Answers the reason when that cannot be made.
std::optional<std::string> enterPrivateMount(const std::string& folder, PrivateMount kind, std::size_t tmpfsBytes) {
    uid_t user = ::geteuid();
    gid_t group = ::getegid();
    if (user == 0) {
        if (::unshare(CLONE_NEWNS) != 0) return std::string("unshare(CLONE_NEWNS): ") + std::strerror(errno);
    } else {
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            return std::string("unshare(CLONE_NEWUSER | CLONE_NEWNS): ") + std::strerror(errno);
        writeText("/proc/self/setgroups", "deny");
        writeText("/proc/self/uid_map", std::to_string(user) + " " + std::to_string(user) + " 1");
        writeText("/proc/self/gid_map", std::to_string(group) + " " + std::to_string(group) + " 1");
    }
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return std::string("making mounts private: ") + std::strerror(errno);
    if (kind == PrivateMount::readOnly) {
        if (::mount(folder.c_str(), folder.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
            ::mount(nullptr, folder.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0)
            return std::string("read-only bind mount: ") + std::strerror(errno);
    } else {
        std::string options = "size=" + std::to_string(tmpfsBytes) + ",mode=0777";
        if (::mount("tmpfs", folder.c_str(), "tmpfs", 0, options.c_str()) != 0)
            return std::string("tmpfs mount: ") + std::strerror(errno);
    }
    return std::nullopt;
}

}  // namespace

// ---- BackgroundProgram ----

BackgroundProgram::BackgroundProgram(const std::vector<std::string>& argv) {
    outputFd_ = memoryFile("background-output");
    errorsFd_ = memoryFile("background-errors");
    pid_ = startProgram(argv, outputFd_, errorsFd_);
}

BackgroundProgram::~BackgroundProgram() {
    if (!status_) {
        ::kill(pid_, SIGKILL);
        waitForEnd(Milliseconds(10000));
    }
    ::close(outputFd_);
    ::close(errorsFd_);
}

bool BackgroundProgram::hasEnded() {
    if (status_) return true;
    int raw = 0;
    if (::waitpid(pid_, &raw, WNOHANG) == pid_) status_ = statusOf(raw);
    return status_.has_value();
}

std::optional<int> BackgroundProgram::waitForEnd(Milliseconds limit) {
    waitUntil([this] { return hasEnded(); }, limit);
    return status_;
}

std::string BackgroundProgram::output() const { return contentOf(outputFd_); }
std::string BackgroundProgram::errors() const { return contentOf(errorsFd_); }

// ---- OrphanReaper ----

OrphanReaper::OrphanReaper() {
    if (::prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) throw std::runtime_error("PR_SET_CHILD_SUBREAPER failed");
}

OrphanReaper::~OrphanReaper() { ::prctl(PR_SET_CHILD_SUBREAPER, 0); }

// ---- StandInCaller ----

StandInCaller::StandInCaller(const std::vector<std::string>& argv) {
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    std::vector<char*> pointers = argumentPointers(argv);
    caller_ = ::fork();
    if (caller_ < 0) throw std::runtime_error("fork failed");
    if (caller_ == 0) {
        int devNull = ::open("/dev/null", O_WRONLY);
        pid_t helper = ::fork();
        if (helper == 0) execWith(pointers.data(), -1, devNull, devNull);
        ssize_t written = ::write(report[1], &helper, sizeof helper);
        (void)written;
        for (;;) ::pause();
    }
    ::close(report[1]);
    ssize_t got = ::read(report[0], &helper_, sizeof helper_);
    ::close(report[0]);
    if (got != static_cast<ssize_t>(sizeof helper_) || helper_ <= 0) throw std::runtime_error("the stand-in caller failed");
}

StandInCaller::~StandInCaller() {
    killCaller();
    if (helper_ > 0 && isAlive(helper_)) ::kill(helper_, SIGKILL);
    stillAliveAfter({helper_}, Milliseconds(10000));
}

void StandInCaller::killCaller() {
    if (caller_ <= 0) return;
    ::kill(caller_, SIGKILL);
    ::waitpid(caller_, nullptr, 0);
    caller_ = -1;
}

// ---- processes ----

std::vector<pid_t> descendantsOf(pid_t pid) {
    auto processes = allProcesses();
    std::vector<pid_t> found{pid};
    for (std::size_t next = 0; next < found.size(); ++next) {
        for (const auto& [candidate, links] : processes)
            if (links.parent == found[next] && std::find(found.begin(), found.end(), candidate) == found.end())
                found.push_back(candidate);
    }
    found.erase(found.begin());
    return found;
}

std::vector<pid_t> membersOfGroups(const std::vector<pid_t>& groups) {
    std::vector<pid_t> members;
    for (const auto& [pid, links] : allProcesses())
        if (links.state != 'Z' && std::find(groups.begin(), groups.end(), links.group) != groups.end())
            members.push_back(pid);
    return members;
}

bool isAlive(pid_t pid) {
    auto links = linksOf(pid);
    return links && links->state != 'Z' && links->state != 'X';
}

std::vector<pid_t> stillAliveAfter(const std::vector<pid_t>& pids, Milliseconds limit) {
    auto reapAndCheck = [&] {
        bool anyAlive = false;
        for (pid_t pid : pids) {
            if (pid <= 0) continue;
            ::waitpid(pid, nullptr, WNOHANG);  // only succeeds for children of this process
            anyAlive = anyAlive || isAlive(pid);
        }
        return !anyAlive;
    };
    waitUntil(reapAndCheck, limit);
    std::vector<pid_t> alive;
    for (pid_t pid : pids)
        if (pid > 0 && isAlive(pid)) alive.push_back(pid);
    return alive;
}

StopOutcome stopWithSignal(BackgroundProgram& program, int signalNumber, Milliseconds limit) {
    StopOutcome outcome;
    outcome.childrenBefore = descendantsOf(program.pid());
    auto start = std::chrono::steady_clock::now();
    ::kill(program.pid(), signalNumber);
    outcome.status = program.waitForEnd(limit);
    outcome.took = std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now() - start);
    outcome.leftBehind = stillAliveAfter(outcome.childrenBefore, Milliseconds(1000));
    for (pid_t member : membersOfGroups(outcome.childrenBefore))
        if (std::find(outcome.leftBehind.begin(), outcome.leftBehind.end(), member) == outcome.leftBehind.end())
            outcome.leftBehind.push_back(member);
    return outcome;
}

// ---- FolderWatch ----

FolderWatch::FolderWatch(const std::string& folder) {
    fd_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (fd_ < 0 || ::inotify_add_watch(fd_, folder.c_str(), IN_CREATE | IN_MOVED_TO) < 0)
        throw std::runtime_error("cannot watch " + folder + ": " + std::strerror(errno));
}

FolderWatch::~FolderWatch() { ::close(fd_); }

std::optional<std::string> FolderWatch::waitForEntry(const std::function<bool(const std::string&)>& matches,
                                                     Milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    alignas(inotify_event) char buffer[16384];
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd wanted{fd_, POLLIN, 0};
        ::poll(&wanted, 1, 10);
        for (;;) {
            ssize_t got = ::read(fd_, buffer, sizeof buffer);
            if (got <= 0) break;
            for (ssize_t at = 0; at < got;) {
                auto* event = reinterpret_cast<inotify_event*>(buffer + at);
                at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
                if (event->len > 0 && matches(event->name)) return std::string(event->name);
            }
        }
    }
    return std::nullopt;
}

bool waitUntil(const std::function<bool()>& condition, Milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(Milliseconds(2));
    }
}

std::vector<std::string> entriesBelow(const std::string& folder) {
    std::vector<std::string> entries;
    std::error_code error;
    fs::recursive_directory_iterator walk(folder, error);
    for (; !error && walk != fs::recursive_directory_iterator(); walk.increment(error))
        entries.push_back(fs::relative(walk->path(), folder).string());
    std::sort(entries.begin(), entries.end());
    return entries;
}

// ---- private mounts ----

std::optional<PrivateMountRun> runWithPrivateMount(const std::vector<std::string>& argv, const std::string& folder,
                                                   PrivateMount kind, std::string& whyNot, std::size_t tmpfsBytes) {
    int output = memoryFile("private-mount-output");
    int errors = memoryFile("private-mount-errors");
    int listing = memoryFile("private-mount-listing");
    std::vector<char*> pointers = argumentPointers(argv);
    pid_t child = ::fork();
    if (child < 0) throw std::runtime_error("fork failed");
    if (child == 0) {
        if (auto reason = enterPrivateMount(folder, kind, tmpfsBytes)) {
            ssize_t written = ::write(errors, reason->data(), reason->size());
            (void)written;
            ::_exit(kNoNamespace);
        }
        pid_t program = ::fork();
        if (program == 0) execWith(pointers.data(), -1, output, errors);
        int raw = 0;
        while (::waitpid(program, &raw, 0) < 0 && errno == EINTR) {
        }
        std::string left;
        for (const std::string& entry : entriesBelow(folder)) left += entry + "\n";
        ssize_t written = ::write(listing, left.data(), left.size());
        (void)written;
        ::_exit(statusOf(raw));
    }
    int raw = 0;
    ::waitpid(child, &raw, 0);
    PrivateMountRun run;
    run.result.status = statusOf(raw);
    run.result.out = contentOf(output);
    run.result.err = contentOf(errors);
    run.leftInFolder = linesOf(contentOf(listing));
    ::close(output);
    ::close(errors);
    ::close(listing);
    if (run.result.status == kNoNamespace) {
        whyNot = run.result.err;
        return std::nullopt;
    }
    return run;
}

void makeSparseFile(const std::string& path, unsigned long long size) {
    fs::create_directories(fs::path(path).parent_path());
    { std::ofstream create(path, std::ios::binary); }
    fs::resize_file(path, size);
}

std::vector<std::string> namesStartingWith(const std::string& folder, const std::string& prefix) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        std::string name = entry.path().filename().string();
        if (name.starts_with(prefix)) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::uintmax_t sizeOr0(const std::string& path) {
    std::error_code error;
    auto size = std::filesystem::file_size(path, error);
    return error ? 0 : size;
}

void expectOneFailureLine(const ProgramResult& result, const std::string& tool, const std::string& needle,
                          const std::string& reason) {
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(linesOf(result.err).size(), 1u) << result.err;
    EXPECT_TRUE(result.err.starts_with(tool + ": ")) << result.err;
    EXPECT_NE(result.err.find(needle), std::string::npos) << result.err;
    EXPECT_NE(result.err.find(reason), std::string::npos) << result.err;
}

}  // namespace whittle::test
