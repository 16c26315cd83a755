#include "platform/helper/StopCleanup.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <vector>

#include "platform/helper/TreeRemoval.hpp"

namespace whittle::helper {

namespace {

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

struct RegisteredItem {
    int anchorFd = AT_FDCWD;  // AT_FDCWD: parent is an ordinary path
    std::string path;         // as registered, to find it again
    std::string parent;       // the folder holding it ("" or "." for the anchor itself)
    std::string name;         // its last component
};

struct Registry {
    std::vector<RegisteredItem> items;
    std::vector<pid_t> children;
};

// Never destroyed: a stop may come while static objects are being torn down.
Registry& registry = *new Registry;
// Taken by whoever changes the registry (always with the stop signals blocked on that
// thread) and, for good, by a stop.
std::atomic_flag registryBusy = ATOMIC_FLAG_INIT;
pid_t caller = 0;

void takeRegistry() {
    while (registryBusy.test_and_set(std::memory_order_acquire)) ::sched_yield();
}

void releaseRegistry() { registryBusy.clear(std::memory_order_release); }

// Changes the registry as one step for a stop.
template <typename Change>
void changeRegistry(Change change) {
    StopSignalsBlocked blocked;
    takeRegistry();
    try {
        change(registry);
    } catch (...) {
        releaseRegistry();
        throw;
    }
    releaseRegistry();
}

sigset_t stopSignalSet() {
    sigset_t set;
    sigemptyset(&set);
    for (int signalNumber : kStopSignals) sigaddset(&set, signalNumber);
    return set;
}

RegisteredItem itemAt(int anchorFd, const std::string& path) {
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
    RegisteredItem item;
    item.anchorFd = anchorFd;
    item.path = path;
    auto slash = trimmed.rfind('/');
    if (slash == std::string::npos) {
        item.parent = anchorFd == AT_FDCWD ? "." : "";
        item.name = trimmed;
    } else {
        item.parent = slash == 0 ? "/" : trimmed.substr(0, slash);
        item.name = trimmed.substr(slash + 1);
    }
    return item;
}

// Safe inside the signal handler: no allocation.
int removeItem(const RegisteredItem& item) {
    int parentFd = item.anchorFd == AT_FDCWD
                       ? ::open(item.parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                       : openFolderBelow(item.anchorFd, item.parent.c_str());
    if (parentFd < 0) return errno == ENOENT ? 0 : errno;
    int error = removeEntryAt(parentFd, item.name.c_str());
    ::close(parentFd);
    return error;
}

void killAndReapChildren() {
    for (pid_t child : registry.children) {
        ::kill(-child, SIGKILL);
        ::kill(child, SIGKILL);
    }
    for (pid_t child : registry.children) {
        while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
}

[[noreturn]] void stopNow(int signalNumber) {
    takeRegistry();  // and keep it: nothing more is registered from now on
    killAndReapChildren();
    for (auto item = registry.items.rbegin(); item != registry.items.rend(); ++item) removeItem(*item);
    struct sigaction defaultAction {};
    defaultAction.sa_handler = SIG_DFL;
    sigemptyset(&defaultAction.sa_mask);
    ::sigaction(signalNumber, &defaultAction, nullptr);
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, signalNumber);
    ::pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
    ::raise(signalNumber);
    ::_exit(128 + signalNumber);
}

bool onMainThread() { return ::syscall(SYS_gettid) == ::getpid(); }

extern "C" void stopOnSignal(int signalNumber) {
    // Another thread may run on while the main thread is in the middle of creating an
    // output: the stop is handed to the main thread, which blocks the stop signals
    // around each such step.
    if (!onMainThread()) {
        ::syscall(SYS_tgkill, ::getpid(), ::getpid(), signalNumber);
        return;
    }
    stopNow(signalNumber);
}

bool isIgnored(int signalNumber) {
    struct sigaction current {};
    return ::sigaction(signalNumber, nullptr, &current) == 0 && current.sa_handler == SIG_IGN;
}

void installStopHandler() {
    for (int signalNumber : kStopSignals) {
        // The caller's death arrives as SIGTERM, so that one is always handled.
        if (signalNumber != SIGTERM && isIgnored(signalNumber)) continue;
        struct sigaction action {};
        action.sa_handler = stopOnSignal;
        action.sa_mask = stopSignalSet();
        action.sa_flags = SA_RESTART;
        ::sigaction(signalNumber, &action, nullptr);
    }
    sigset_t stopping = stopSignalSet();
    ::pthread_sigmask(SIG_UNBLOCK, &stopping, nullptr);
}

}  // namespace

void tieToCaller() {
    caller = ::getppid();
    installStopHandler();
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    // The caller may have died before it could be asked for.
    if (::getppid() != caller) stopNow(SIGTERM);
}

pid_t callerPid() { return caller != 0 ? caller : ::getppid(); }

StopSignalsBlocked::StopSignalsBlocked() {
    sigset_t stopping = stopSignalSet();
    ::pthread_sigmask(SIG_BLOCK, &stopping, &previous_);
}

StopSignalsBlocked::~StopSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }

void removeOnStop(const std::string& path) {
    RegisteredItem item = itemAt(AT_FDCWD, path);
    changeRegistry([&](Registry& r) { r.items.push_back(std::move(item)); });
}

void keepOnStop(const std::string& path) {
    changeRegistry([&](Registry& r) {
        std::erase_if(r.items, [&](const RegisteredItem& item) { return item.anchorFd == AT_FDCWD && item.path == path; });
    });
}

int removeNow(const std::string& path) {
    int error = removeItem(itemAt(AT_FDCWD, path));
    keepOnStop(path);
    return error;
}

void removeOnStopBelow(int folderFd, const std::string& relativePath) {
    RegisteredItem item = itemAt(folderFd, relativePath);
    changeRegistry([&](Registry& r) { r.items.push_back(std::move(item)); });
}

void keepEverythingBelow(int folderFd) {
    changeRegistry([&](Registry& r) {
        std::erase_if(r.items, [&](const RegisteredItem& item) { return item.anchorFd == folderFd; });
    });
}

int removeEverythingBelowNow(int folderFd) {
    std::vector<RegisteredItem> doomed;
    changeRegistry([&](Registry& r) {
        for (const RegisteredItem& item : r.items)
            if (item.anchorFd == folderFd) doomed.push_back(item);
    });
    int firstError = 0;
    for (auto item = doomed.rbegin(); item != doomed.rend(); ++item) {
        int error = removeItem(*item);
        if (firstError == 0) firstError = error;
    }
    keepEverythingBelow(folderFd);
    return firstError;
}

void killOnStop(pid_t child) {
    changeRegistry([&](Registry& r) { r.children.push_back(child); });
}

void forgetOnStop(pid_t child) {
    changeRegistry([&](Registry& r) { std::erase(r.children, child); });
}

}  // namespace whittle::helper
