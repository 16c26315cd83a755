#include "platform/diskimage/StopCleanup.hpp"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstring>

namespace whittle::diskimage {

namespace {

constexpr std::size_t kSlots = 8;
std::array<std::array<char, PATH_MAX>, kSlots> paths{};
std::array<volatile sig_atomic_t, kSlots> pathInUse{};
std::array<volatile pid_t, kSlots> children{};

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

extern "C" void cleanUpAndStop(int signalNumber) {
    for (std::size_t i = 0; i < kSlots; ++i) {
        pid_t child = children[i];
        if (child > 0) {
            ::kill(child, SIGKILL);
            ::waitpid(child, nullptr, 0);
        }
    }
    for (std::size_t i = 0; i < kSlots; ++i) {
        if (pathInUse[i]) ::unlink(paths[i].data());
    }
    ::signal(signalNumber, SIG_DFL);
    ::raise(signalNumber);
}

void installHandler() {
    static bool installed = false;
    if (installed) return;
    installed = true;
    for (int signalNumber : kStopSignals) {
        struct sigaction action {};
        action.sa_handler = cleanUpAndStop;
        sigemptyset(&action.sa_mask);
        for (int blocked : kStopSignals) sigaddset(&action.sa_mask, blocked);
        ::sigaction(signalNumber, &action, nullptr);
    }
}

sigset_t stopSignalSet() {
    sigset_t set;
    sigemptyset(&set);
    for (int signalNumber : kStopSignals) sigaddset(&set, signalNumber);
    return set;
}

}  // namespace

StopSignalsBlocked::StopSignalsBlocked() {
    static_assert(sizeof(previous_) >= sizeof(sigset_t));
    installHandler();
    sigset_t stopping = stopSignalSet();
    ::sigprocmask(SIG_BLOCK, &stopping, reinterpret_cast<sigset_t*>(previous_));
}

StopSignalsBlocked::~StopSignalsBlocked() {
    ::sigprocmask(SIG_SETMASK, reinterpret_cast<sigset_t*>(previous_), nullptr);
}

void removeOnStop(const std::string& path) {
    installHandler();
    if (path.size() >= PATH_MAX) return;
    for (std::size_t i = 0; i < kSlots; ++i) {
        if (pathInUse[i]) continue;
        std::memcpy(paths[i].data(), path.c_str(), path.size() + 1);
        pathInUse[i] = 1;
        return;
    }
}

void keepOnStop(const std::string& path) {
    for (std::size_t i = 0; i < kSlots; ++i) {
        if (pathInUse[i] && path == paths[i].data()) pathInUse[i] = 0;
    }
}

void killOnStop(pid_t child) {
    installHandler();
    for (std::size_t i = 0; i < kSlots; ++i) {
        if (children[i] != 0) continue;
        children[i] = child;
        return;
    }
}

void forgetOnStop(pid_t child) {
    for (std::size_t i = 0; i < kSlots; ++i) {
        if (children[i] == child) children[i] = 0;
    }
}

}  // namespace whittle::diskimage
