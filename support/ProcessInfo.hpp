// Facts about this process and this build that several parts of the program report.
#pragma once

#include <string>
#include <vector>

namespace whittle {

// The process's arguments, program path first, exactly as received.
void setProcessArguments(std::vector<std::string> arguments);
const std::vector<std::string>& processArguments();

// When the tool was built, as "Dec 16 2012" and "21:10:14".
const char* buildDate();
const char* buildTime();

}  // namespace whittle
