// Running a platform tool as a child process, one at a time, with its standard
// output and standard error captured in full (and echoed line by line as they arrive
// when asked), and, when asked, its progress shown on a live line.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace whittle {

class ProgressLine;

// What to run: the program, its arguments and the folder to run it in.
struct ChildTask {
    std::string launchPath;
    std::vector<std::string> arguments;
    std::optional<std::string> workingDirectory;
};

class TaskHelper {
public:
    explicit TaskHelper(ChildTask task);
    TaskHelper(const TaskHelper&) = delete;
    TaskHelper& operator=(const TaskHelper&) = delete;

    // Runs the child to its end on a worker thread while this thread looks for the
    // end at least every 100 ms (and at once when the worker says it is done);
    // answers the exit status, or 1 when the child could not be launched.
    int run();

    const ChildTask& task() const { return task_; }
    void setTask(ChildTask task) { task_ = std::move(task); }
    const std::string& stdoutOutput() const { return stdoutOutput_; }
    void setStdoutOutput(std::string text) { stdoutOutput_ = std::move(text); }
    const std::string& stderrOutput() const { return stderrOutput_; }
    void setStderrOutput(std::string text) { stderrOutput_ = std::move(text); }
    bool verbose() const { return verbose_; }
    void setVerbose(bool verbose) { verbose_ = verbose; }
    int result() const { return result_; }
    void setResult(int result) { result_ = result; }
    bool threadDone() const { return threadDone_; }
    void setThreadDone(bool done);
    // The system's error number when the child could not be launched, else 0.
    int launchError() const { return launchError_; }
    // When set, the child is given a progress channel (platform/helper/ProgressChannel.hpp)
    // and what it reports there is drawn on this line, which is erased before any echo
    // and when the child ends. Not owned.
    ProgressLine* progressLine() const { return progressLine_; }
    void setProgressLine(ProgressLine* line) { progressLine_ = line; }

private:
    // What has come on one of the child's output pipes.
    struct OutputStream {
        int fd = -1;
        bool open = true;           // false once the child has closed its end
        std::size_t echoed = 0;     // bytes of the captured text echoed so far
    };

    void taskThread();
    bool launch(int stdoutPipe[2], int stderrPipe[2], int progressChannel);
    void serviceWhileRunning(int& waitStatus);
    void stdoutDataAvail();
    void stderrDataAvail();
    void progressDataAvail();
    void taskDied() {}
    // Reads whatever is waiting on a pipe now, without blocking.
    void readAvailable(OutputStream& stream, std::string& sink, bool toStandardOutput);
    // Echoes the captured text's whole lines not echoed yet, or all of it when asked.
    void echoNewText(OutputStream& stream, const std::string& sink, bool toStandardOutput, bool partialLineToo);

    ChildTask task_;
    std::string stderrOutput_;
    std::string stdoutOutput_;
    bool verbose_ = false;
    int result_ = 0;
    std::atomic<bool> threadDone_{false};
    std::mutex doneMutex_;
    std::condition_variable doneSignal_;
    int launchError_ = 0;
    int childPid_ = -1;
    OutputStream stdout_;
    OutputStream stderr_;
    ProgressLine* progressLine_ = nullptr;
    int progressRead_ = -1;
    std::string progressRecords_;  // what the channel gave, up to a record's end
};

// Runs a tool and answers its exit status: 1 when it could not be launched or no
// path was given. The captured texts are copied out when asked for, and so is the
// system's error number of a failed launch. With a progress line, the tool's progress
// channel is drawn on it.
int runTool(const char* launchPath, const std::vector<std::string>* arguments, const char* workingDirectory,
            std::string* stdoutText, std::string* stderrText, bool verbose, int* launchError = nullptr,
            ProgressLine* progressLine = nullptr);

// Every child is sent SIGTERM when the thread that started it ends, so that no tool
// outlives this process, not even a killed one (the platform tools stop whatever they
// started in turn). Children stay in this process's group, so that a tool can still
// read the terminal.
// Stops the child running now with SIGTERM; safe to call from a signal handler. Children launched after it is called are stopped at once,
// until allowTools() is called.
void stopRunningTools();
void allowTools();

}  // namespace whittle
