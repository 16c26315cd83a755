// Running a parsed request end to end, and saving the log at the end of every run.
#pragma once

#include "driver/CommandLine.hpp"

namespace whittle {

inline constexpr const char* kLogFilePath = "/tmp/Whittle.log";

// Runs the request and answers the process's exit status.
int runRequest(RunRequest& request);

// A run whose output could not be written to standard output has failed: says so,
// and answers 1 in place of a success.
int statusAfterStandardOutput(int status);

// Writes the logger's history to the log file, replacing any earlier one; on a
// failed run, says where the log is.
void saveLog(int status);

// The whole program: parse, run, save the log. Answers the exit status.
int whittleMain(const std::vector<std::string>& arguments);

}  // namespace whittle
