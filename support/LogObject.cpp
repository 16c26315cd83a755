#include "support/LogObject.hpp"

#include <unistd.h>

#include "support/PrettyPrinter.hpp"

namespace whittle {

namespace {
LogObject* theSharedLogger = nullptr;
}

MessageKind classifyMessage(std::string_view message) {
    if (message.find("ERROR") != std::string_view::npos) return MessageKind::Error;
    if (message.find("WARNING") != std::string_view::npos) return MessageKind::Warning;
    if (message.find("NOTE") != std::string_view::npos) return MessageKind::Note;
    return MessageKind::Plain;
}

const char* colourForKind(MessageKind kind) {
    switch (kind) {
        case MessageKind::Error: return "\x1b[31m";
        case MessageKind::Warning: return "\x1b[33m";
        case MessageKind::Note: return "\x1b[1m";
        case MessageKind::Plain: return "";
    }
    return "";
}

LogObject::LogObject() : useTTY_(isatty(STDERR_FILENO) == 1) {}

LogObject& LogObject::sharedLogger() {
    // Never destroyed: messages may still be logged while the process exits.
    if (!theSharedLogger) theSharedLogger = new LogObject();
    return *theSharedLogger;
}

LogObject& LogObject::init() { return sharedLogger(); }

std::string LogObject::historicalLog() const {
    std::lock_guard lock(historyMutex_);
    return historicalLog_;
}

void LogObject::setHistoricalLog(std::string history) {
    std::lock_guard lock(historyMutex_);
    historicalLog_ = std::move(history);
}

void LogObject::appendToHistory(const std::string& message) {
    std::lock_guard lock(historyMutex_);
    historicalLog_ += message;
    historicalLog_ += '\n';
}

void LogObject::logMessage(const std::string& message, bool printAlways) {
    appendToHistory(message);
    MessageKind kind = classifyMessage(message);
    if (kind == MessageKind::Plain && !verbose_ && !printAlways) return;

    bool coloured = useTTY_ && kind != MessageKind::Plain;
    FILE* stream = coloured ? stderr : stdout;
    if (coloured) std::fputs(colourForKind(kind), stream);
    std::fwrite(message.data(), 1, message.size(), stream);
    std::fputc('\n', stream);
    if (coloured) std::fputs(kColourReset, stream);
    std::fflush(stream);
}

void LogObject::logToStandardError(const std::string& message) {
    appendToHistory(message);
    std::fwrite(message.data(), 1, message.size(), stderr);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

void LogObject::PrettyPrint(const Value& value) {
    if (!verbose_) return;
    std::string dump = prettyPrintToString(value, "\t");
    std::fwrite(dump.data(), 1, dump.size(), stdout);
}

}  // namespace whittle
