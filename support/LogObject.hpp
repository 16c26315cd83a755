// The process-wide logger: every message of the program goes through it.
//
// A message's kind comes from its own words: "ERROR", "WARNING" or "NOTE" anywhere in
// it (tried in that order). Plain messages print only in verbose mode; the others
// always print, coloured on standard error when standard error is a terminal, else
// plain on standard output. Every message is kept in the history, printed or not.
#pragma once

#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

#include "support/Format.hpp"
#include "support/Value.hpp"

namespace whittle {

enum class MessageKind { Error, Warning, Note, Plain };

MessageKind classifyMessage(std::string_view message);
// The escape sequence that colours a kind on a terminal; "" for plain messages.
const char* colourForKind(MessageKind kind);
inline constexpr const char* kColourReset = "\x1b[0m";

class LogObject {
public:
    // The single logger, created on first use.
    static LogObject& sharedLogger();
    // Creating another logger yields the shared one; there is never a second.
    static LogObject& init();

    LogObject(const LogObject&) = delete;
    LogObject& operator=(const LogObject&) = delete;

    bool useTTY() const { return useTTY_; }
    void setUseTTY(bool useTTY) { useTTY_ = useTTY; }
    bool verbose() const { return verbose_; }
    void setVerbose(bool verbose) { verbose_ = verbose; }
    std::string historicalLog() const;
    void setHistoricalLog(std::string history);

    template <typename... Args>
    void Log(std::string_view fmt, const Args&... args) {
        logMessage(format(fmt, args...), false);
    }
    template <typename... Args>
    void MustLog(std::string_view fmt, const Args&... args) {
        logMessage(format(fmt, args...), true);
    }
    // Dumps a value in the pretty-printer layout to standard output, in verbose mode only.
    void PrettyPrint(const Value& value);

    void logMessage(const std::string& message, bool printAlways);
    // Says the message on standard error whatever its kind, and keeps it in the history:
    // for what must be seen when standard output is where things go wrong.
    void logToStandardError(const std::string& message);

private:
    LogObject();
    void appendToHistory(const std::string& message);

    bool useTTY_ = false;
    bool verbose_ = false;
    mutable std::mutex historyMutex_;
    std::string historicalLog_;
};

// Shorthands for the shared logger.
template <typename... Args>
void Log(std::string_view fmt, const Args&... args) {
    LogObject::sharedLogger().Log(fmt, args...);
}
template <typename... Args>
void MustLog(std::string_view fmt, const Args&... args) {
    LogObject::sharedLogger().MustLog(fmt, args...);
}

}  // namespace whittle
