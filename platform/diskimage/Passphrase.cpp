#include "platform/diskimage/Passphrase.hpp"

#include <fcntl.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>

#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/FileIo.hpp"

namespace whittle::diskimage {

namespace {

constexpr std::size_t kLongestPassphrase = 4096;

// The terminal's settings while echo is off, for the signal handler to put back.
int echoTerminal = -1;
termios savedSettings{};

extern "C" void restoreEchoAndDie(int signalNumber) {
    if (echoTerminal >= 0) ::tcsetattr(echoTerminal, TCSAFLUSH, &savedSettings);
    ::signal(signalNumber, SIG_DFL);
    ::raise(signalNumber);
}

// Signals that would leave the terminal without echo if they stopped the tool.
constexpr int kInterruptingSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};
constexpr std::size_t kInterruptingSignalCount = sizeof kInterruptingSignals / sizeof kInterruptingSignals[0];

class EchoOff {
public:
    explicit EchoOff(int terminal) : terminal_(terminal) {
        if (::tcgetattr(terminal, &savedSettings) != 0) return;
        termios quiet = savedSettings;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        quiet.c_lflag |= ICANON;
        echoTerminal = terminal;
        struct sigaction action {};
        action.sa_handler = restoreEchoAndDie;
        sigemptyset(&action.sa_mask);
        for (std::size_t i = 0; i < kInterruptingSignalCount; ++i)
            ::sigaction(kInterruptingSignals[i], &action, &previous_[i]);
        active_ = ::tcsetattr(terminal, TCSAFLUSH, &quiet) == 0;
    }
    ~EchoOff() {
        if (echoTerminal < 0) return;
        if (active_) ::tcsetattr(terminal_, TCSAFLUSH, &savedSettings);
        for (std::size_t i = 0; i < kInterruptingSignalCount; ++i)
            ::sigaction(kInterruptingSignals[i], &previous_[i], nullptr);
        echoTerminal = -1;
    }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;

private:
    int terminal_;
    bool active_ = false;
    struct sigaction previous_[kInterruptingSignalCount] {};
};

std::string readLine(int terminal) {
    std::string line;
    char character = 0;
    for (;;) {
        ssize_t got = ::read(terminal, &character, 1);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0 || character == '\n' || character == '\r') break;
        if (line.size() >= kLongestPassphrase) throw DiskImageError("the passphrase is too long");
        line += character;
    }
    return line;
}

}  // namespace

std::optional<std::string> readPassphraseFromTerminal(const std::string& prompt) {
    UniqueDescriptor terminal(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
    if (!terminal.valid()) return std::nullopt;
    std::string line;
    {
        EchoOff echoOff(terminal.get());
        writeAll(terminal.get(), prompt, "/dev/tty");
        line = readLine(terminal.get());
    }
    writeAll(terminal.get(), "\n", "/dev/tty");
    return line;
}

}  // namespace whittle::diskimage
