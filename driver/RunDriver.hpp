// Running a parsed request end to end, and saving the log at the end of every run.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "driver/CommandLine.hpp"
#include "driver/ToolRunner.hpp"
#include "engine/BundleFiles.hpp"

namespace whittle {

inline constexpr const char* kLogFilePath = "/tmp/Whittle.log";

// What a run is handed from outside: how tools are run and where they are, how a
// bundle folder is read, and how an item goes to the Trash. The program uses the real
// ones; a test hands in its own.
struct RunServices {
    ToolRunner& toolRunner;
    ToolPaths toolPaths;
    // Answers none for a bundle that cannot be opened; the run then makes no engine.
    std::function<std::shared_ptr<const BundleFiles>(const std::string& root)> openBundle;
    // Answers false with the reason in the second argument when the item stays.
    std::function<bool(const std::string& path, std::string& error)> moveToTrash;
};

// The services of this installation: child processes, the installed tools, the
// bundle folder on disk, and the user's Trash.
RunServices realRunServices(ToolRunner& processRunner);

// Runs the request and answers the process's exit status.
int runRequest(RunRequest& request, const RunServices& services);

// A run whose output could not be written to standard output has failed: says so,
// and answers 1 in place of a success.
int statusAfterStandardOutput(int status);

// Writes the logger's history to the log file at `logPath`, replacing any earlier
// one; on a failed run, says where the log is.
void saveLog(int status, const std::string& logPath);

// The whole program with the services and the log's place given: parse, run, save
// the log. Answers the exit status.
int runWhittle(const std::vector<std::string>& arguments, const RunServices& services, const std::string& logPath);

// The whole program as installed.
int whittleMain(const std::vector<std::string>& arguments);

}  // namespace whittle
