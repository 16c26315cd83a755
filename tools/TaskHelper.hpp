// Running a platform tool as a child process, one at a time, with its standard
// output and standard error captured in full (and echoed as they arrive when asked).
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace whittle {

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

private:
    void taskThread();
    bool launch(int stdoutPipe[2], int stderrPipe[2]);
    void stdoutDataAvail();
    void stderrDataAvail();
    void taskDied() {}
    // Reads whatever is waiting on a pipe now, without blocking.
    void readAvailable(int fd, std::string& sink, bool toStandardOutput);

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
    int stdoutRead_ = -1;
    int stderrRead_ = -1;
};

// Runs a tool and answers its exit status: 1 when it could not be launched or no
// path was given. The captured texts are copied out when asked for, and so is the
// system's error number of a failed launch.
int runTool(const char* launchPath, const std::vector<std::string>* arguments, const char* workingDirectory,
            std::string* stdoutText, std::string* stderrText, bool verbose, int* launchError = nullptr);

// Every child is sent SIGTERM when the thread that started it ends, so that no tool
// outlives this process, not even a killed one (the platform tools stop whatever they
// started in turn). Children stay in this process's group, so that a tool can still
// read the terminal.
// Stops the child running now with SIGTERM; safe to call from a signal handler. Children launched after it is called are stopped at once,
// until allowTools() is called.
void stopRunningTools();
void allowTools();

}  // namespace whittle
