// How the driver runs a platform tool, and how it explains a tool's failure.
#pragma once

#include <string>
#include <vector>

namespace whittle {

// Runs the tool through runTool with the verbose flag of the command line, and, when
// standard error is a terminal, with a live progress line there for the tool's
// progress channel. Answers the tool's status (a tool started after a stop signal is
// stopped at once).
int runPlatformTool(const std::string& path, const std::vector<std::string>& arguments,
                    std::string* standardOutput = nullptr, const char* workingDirectory = nullptr);

// Logs, after a step's own failure message, why the tool run last failed: which tool
// could not be started and the path looked at, or the last lines (up to five) of what
// the tool wrote to its standard error; each as a "!!! NOTE: " line.
void explainLastToolFailure();

}  // namespace whittle
