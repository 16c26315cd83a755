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
    int childPid_ = -1;
    int stdoutRead_ = -1;
    int stderrRead_ = -1;
};

// Runs a tool and answers its exit status: 1 when it could not be launched or no
// path was given. The captured texts are copied out when asked for.
int runTool(const char* launchPath, const std::vector<std::string>* arguments, const char* workingDirectory,
            std::string* stdoutText, std::string* stderrText, bool verbose);

}  // namespace whittle
