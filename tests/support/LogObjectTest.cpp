#include <gtest/gtest.h>

#include "TestSupport.hpp"
#include "support/LogObject.hpp"

using whittle::LogObject;
using whittle::MessageKind;
using whittle::test::runProgram;

namespace {

// The shared logger, set for a test run in-process: no terminal, verbosity as asked.
LogObject& quietLogger(bool verbose) {
    LogObject& logger = LogObject::sharedLogger();
    logger.setUseTTY(false);
    logger.setVerbose(verbose);
    return logger;
}

std::string captureStdout(const std::function<void()>& body) {
    testing::internal::CaptureStdout();
    body();
    return testing::internal::GetCapturedStdout();
}

std::string probe() { return LOGGER_PROBE_BINARY; }

whittle::test::RunOptions onTerminal() {
    whittle::test::RunOptions options;
    options.stderrOnTerminal = true;
    return options;
}

}  // namespace

TEST(LogObject, ClassifiesBySubstringInOrder) {
    EXPECT_EQ(whittle::classifyMessage("XXX ERROR: x"), MessageKind::Error);
    EXPECT_EQ(whittle::classifyMessage("!!! ERROR: x"), MessageKind::Error);
    EXPECT_EQ(whittle::classifyMessage("!!! WARNING: x"), MessageKind::Warning);
    EXPECT_EQ(whittle::classifyMessage(">>> NOTE: x"), MessageKind::Note);
    EXPECT_EQ(whittle::classifyMessage("--- scrubbing NOTES folder"), MessageKind::Note);
    EXPECT_EQ(whittle::classifyMessage(">>> starting"), MessageKind::Plain);
    EXPECT_EQ(whittle::classifyMessage("error in lower case"), MessageKind::Plain);
}

TEST(LogObject, MessageWithWarningAndErrorIsAnError) {
    EXPECT_EQ(whittle::classifyMessage("!!! WARNING: an ERROR too"), MessageKind::Error);
    EXPECT_STREQ(whittle::colourForKind(MessageKind::Error), "\x1b[31m");
}

TEST(LogObject, PlainMessageIsKeptButNotPrintedWhenQuiet) {
    LogObject& logger = quietLogger(false);
    std::string before = logger.historicalLog();
    std::string printed = captureStdout([&] { logger.Log(">>> starting"); });
    EXPECT_EQ(printed, "");
    EXPECT_EQ(logger.historicalLog(), before + ">>> starting\n");
}

TEST(LogObject, NotesFolderMessageIsPrintedWhenQuiet) {
    LogObject& logger = quietLogger(false);
    EXPECT_EQ(captureStdout([&] { logger.Log("--- scrubbing NOTES folder"); }), "--- scrubbing NOTES folder\n");
}

TEST(LogObject, ErrorWithoutTerminalGoesToStandardOutputUncoloured) {
    LogObject& logger = quietLogger(false);
    EXPECT_EQ(captureStdout([&] { logger.Log("XXX ERROR: x"); }), "XXX ERROR: x\n");
}

TEST(LogObject, VerbosePrintsPlainMessagesAndMustLogAlwaysPrints) {
    LogObject& logger = quietLogger(true);
    EXPECT_EQ(captureStdout([&] { logger.Log(">>> step %2d", 3); }), ">>> step  3\n");
    quietLogger(false);
    EXPECT_EQ(captureStdout([&] { logger.MustLog("Validation PASSED."); }), "Validation PASSED.\n");
}

TEST(LogObject, MessageEndingInNewlinePrintsAnEmptyLineAfterIt) {
    LogObject& logger = quietLogger(false);
    EXPECT_EQ(captureStdout([&] { logger.MustLog("%@", std::string("md5 = x\n")); }), "md5 = x\n\n");
}

TEST(LogObject, HistoryAccessorsReplaceTheHistory) {
    LogObject& logger = quietLogger(false);
    std::string saved = logger.historicalLog();
    logger.setHistoricalLog("fresh\n");
    logger.Log(">>> more");
    EXPECT_EQ(logger.historicalLog(), "fresh\n>>> more\n");
    logger.setHistoricalLog(saved);
}

TEST(LogObject, SecondCreationReturnsTheSharedLogger) {
    EXPECT_EQ(&LogObject::init(), &LogObject::sharedLogger());
    EXPECT_EQ(&LogObject::init(), &LogObject::init());
}

TEST(LogObject, PrettyPrintWhenQuietPrintsNothingAndKeepsNoHistory) {
    LogObject& logger = quietLogger(false);
    std::string before = logger.historicalLog();
    EXPECT_EQ(captureStdout([&] { logger.PrettyPrint(whittle::Value::string("s")); }), "");
    EXPECT_EQ(logger.historicalLog(), before);
}

TEST(LogObject, PrettyPrintWhenVerboseDumpsWithoutHistory) {
    LogObject& logger = quietLogger(true);
    std::string before = logger.historicalLog();
    EXPECT_EQ(captureStdout([&] { logger.PrettyPrint(whittle::Value::string("s")); }), "s\n");
    EXPECT_EQ(logger.historicalLog(), before);
    quietLogger(false);
}

// ---- on a real pseudo-terminal ----

TEST(LogObjectOnTerminal, WarningGoesToStandardErrorInYellowWithResetAfterNewline) {
    auto result = runProgram({probe(), "log:!!! WARNING: x"}, onTerminal());
    EXPECT_EQ(result.err, "\x1b[33m!!! WARNING: x\n\x1b[0m");
    EXPECT_EQ(result.out, "");
}

TEST(LogObjectOnTerminal, NotesAreBoldAndErrorsRed) {
    auto result = runProgram({probe(), "log:--- scrubbing NOTES folder", "log:XXX ERROR: y"},
                             onTerminal());
    EXPECT_EQ(result.err, "\x1b[1m--- scrubbing NOTES folder\n\x1b[0m\x1b[31mXXX ERROR: y\n\x1b[0m");
}

TEST(LogObjectOnTerminal, PlainMessagesStayOnStandardOutputUncoloured) {
    auto result = runProgram({probe(), "verbose", "log:>>> starting", "must:Validation PASSED."},
                             onTerminal());
    EXPECT_EQ(result.out, ">>> starting\nValidation PASSED.\n");
    EXPECT_EQ(result.err, "");
}

TEST(LogObjectOnTerminal, QuietPlainMessageOnlyReachesTheHistory) {
    auto result = runProgram({probe(), "log:>>> starting", "history"}, onTerminal());
    EXPECT_EQ(result.out, ">>> starting\n");
    EXPECT_EQ(result.err, "");
}

TEST(LogObjectWithoutTerminal, EveryKindGoesToStandardOutputUncoloured) {
    auto result = runProgram({probe(), "log:XXX ERROR: x", "log:!!! WARNING: w", "log:>>> NOTE: n"});
    EXPECT_EQ(result.out, "XXX ERROR: x\n!!! WARNING: w\n>>> NOTE: n\n");
    EXPECT_EQ(result.err, "");
}
