#include "support/ProcessInfo.hpp"

namespace whittle {

namespace {
std::vector<std::string>& storedArguments() {
    static std::vector<std::string> arguments;
    return arguments;
}
}  // namespace

void setProcessArguments(std::vector<std::string> arguments) { storedArguments() = std::move(arguments); }
const std::vector<std::string>& processArguments() { return storedArguments(); }

const char* buildDate() { return __DATE__; }
const char* buildTime() { return __TIME__; }

}  // namespace whittle
