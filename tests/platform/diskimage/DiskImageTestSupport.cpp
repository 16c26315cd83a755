#include "DiskImageTestSupport.hpp"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "TestSupport.hpp"
#include "platform/diskimage/Crc32.hpp"
#include "support/PlistCodec.hpp"

namespace whittle::test {

namespace {

[[noreturn]] void startChild(const std::vector<std::string>& argv, int terminal, int outFd, int errFd) {
    ::setsid();
    if (terminal >= 0) {
        ::ioctl(terminal, TIOCSCTTY, 0);
        ::dup2(terminal, 0);
    } else {
        int devNull = ::open("/dev/null", O_RDONLY);
        ::dup2(devNull, 0);
    }
    ::dup2(outFd, 1);
    ::dup2(errFd, 2);
    std::vector<char*> args;
    for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    _exit(127);
}

}  // namespace

SessionResult runInNewSession(const std::vector<std::string>& argv,
                              const std::optional<std::vector<std::string>>& answers, int timeoutSeconds) {
    int outPipe[2], errPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    int master = -1, slave = -1;
    if (answers) {
        if (::openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) throw std::runtime_error("openpty failed");
        ::fcntl(master, F_SETFD, FD_CLOEXEC);
        ::fcntl(slave, F_SETFD, FD_CLOEXEC);
    }
    pid_t child = ::fork();
    if (child == 0) startChild(argv, slave, outPipe[1], errPipe[1]);
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    if (slave >= 0) ::close(slave);

    SessionResult result;
    bool outOpen = true, errOpen = true, terminalOpen = master >= 0;
    std::size_t answeredUpTo = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
    while (outOpen || errOpen) {
        pollfd fds[3] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}, {terminalOpen ? master : -1, POLLIN, 0}};
        ::poll(fds, 3, 100);
        if (outOpen && (fds[0].revents & (POLLIN | POLLHUP | POLLERR)))
            appendAvailable(outPipe[0], result.out, outOpen);
        if (errOpen && (fds[1].revents & (POLLIN | POLLHUP | POLLERR)))
            appendAvailable(errPipe[0], result.err, errOpen);
        if (terminalOpen && (fds[2].revents & (POLLIN | POLLHUP | POLLERR))) {
            appendAvailable(master, result.terminal, terminalOpen);
            std::string_view fresh = std::string_view(result.terminal).substr(answeredUpTo);
            if (fresh.ends_with(": ") && static_cast<std::size_t>(result.promptsAnswered) < answers->size()) {
                std::string line = (*answers)[static_cast<std::size_t>(result.promptsAnswered++)] + "\n";
                if (::write(master, line.data(), line.size()) < 0) terminalOpen = false;
                answeredUpTo = result.terminal.size();
            }
        }
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(child, SIGKILL);
            break;
        }
    }
    ::close(outPipe[0]);
    ::close(errPipe[0]);
    if (master >= 0) ::close(master);
    int status = 0;
    ::waitpid(child, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

std::string diskImageTool() { return WHITTLE_DISKIMAGE_TOOL; }
std::string testVolumesFolder() { return WHITTLE_TEST_VOLUMES_DIR; }
std::string sevenZip() { return WHITTLE_SEVEN_ZIP; }
std::string dmg2img() { return "/usr/bin/dmg2img"; }
std::string vfdecrypt() { return "/usr/bin/vfdecrypt"; }

SessionResult runTool(const std::vector<std::string>& arguments,
                      const std::optional<std::vector<std::string>>& answers) {
    std::vector<std::string> argv{diskImageTool()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return runInNewSession(argv, answers);
}

std::optional<std::string> sharedFixtureFolder() {
    std::string folder = std::string(WHITTLE_SOURCE_DIR) + "/../shared/fixtures/dmg";
    struct stat status {};
    if (::stat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return std::nullopt;
    return folder;
}

std::string projectFixtureFolder() { return std::string(WHITTLE_SOURCE_DIR) + "/tests/platform/diskimage/fixtures"; }

namespace {

std::string describeEntry(const std::filesystem::path& path, const std::string& stripPrefix, bool withTimes) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return "?";
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
    if (S_ISLNK(status.st_mode)) {
        std::string target = std::filesystem::read_symlink(path).string();
        if (!stripPrefix.empty() && target.starts_with(stripPrefix)) target = target.substr(stripPrefix.size());
        return "l " + target;
    }
    if (S_ISDIR(status.st_mode)) return std::string("d ") + mode;
    std::uint32_t crc = 0;
    std::ifstream in(path, std::ios::binary);
    std::string buffer(1 << 20, '\0');
    while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) || in.gcount() > 0)
        crc = diskimage::crc32Update(crc, std::string_view(buffer.data(), static_cast<std::size_t>(in.gcount())));
    std::string description = std::string("f ") + mode + " " + std::to_string(status.st_size) + " " + hexOf(crc);
    if (withTimes) description += " " + std::to_string(status.st_mtim.tv_sec);
    return description;
}

}  // namespace

std::map<std::string, std::string> describeTree(const std::string& root, const std::string& stripPrefix,
                                                bool withTimes) {
    namespace fs = std::filesystem;
    std::map<std::string, std::string> tree;
    for (auto walk = fs::recursive_directory_iterator(root); walk != fs::recursive_directory_iterator(); ++walk)
        tree[walk->path().lexically_relative(root).string()] = describeEntry(walk->path(), stripPrefix, withTimes);
    return tree;
}

Value systemEntitiesOf(const std::string& attachOutput) {
    return parsePropertyList(attachOutput).get("system-entities");
}

Value mountedEntityOf(const Value& entities) {
    for (std::size_t i = 0; i < entities.count(); ++i)
        if (entities.at(i).get("mount-point").isString()) return entities.at(i);
    return {};
}

void copyFile(const std::string& from, const std::string& to) {
    std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
}

std::vector<std::string> listedNames(const std::string& contentsFile) {
    std::ifstream in(contentsFile);
    std::string line;
    std::size_t nameColumn = std::string::npos;
    int dashedLines = 0;
    std::vector<std::string> names;
    while (std::getline(in, line) && dashedLines < 2) {
        if (nameColumn == std::string::npos) {
            if (auto at = line.find("Name"); at != std::string::npos && line.find("Date") != std::string::npos)
                nameColumn = at;
            continue;
        }
        if (line.starts_with("-------------------")) {
            ++dashedLines;
            continue;
        }
        if (dashedLines == 1 && line.size() > nameColumn) names.push_back(line.substr(nameColumn));
    }
    return names;
}

std::string hexOf(std::uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "%08X", value);
    return text;
}

}  // namespace whittle::test
