#include "InstallTestSupport.hpp"

#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "support/PlistCodec.hpp"

namespace whittle::test {

std::string programOnPath(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::stringstream folders(path ? path : "/usr/bin:/bin");
    std::string folder;
    while (std::getline(folders, folder, ':')) {
        std::string candidate = folder + "/" + name;
        if (!folder.empty() && ::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return {};
}

std::string exampleBundle() { return std::string(WHITTLE_SOURCE_DIR) + "/examples/RestoreBundle"; }

const std::vector<std::string>& exampleRequest() {
    static const std::vector<std::string> request{"--product", "x10", "--factory", "repair"};
    return request;
}

ProgramResult runExample(const std::string& whittle, const std::string& folder, const std::string& target) {
    // zip runs inside the temporary bundle copy, where a relative target would name
    // another archive: targets are given as absolute paths.
    std::vector<std::string> argv{whittle, exampleBundle(), folder + "/" + target};
    argv.insert(argv.end(), exampleRequest().begin(), exampleRequest().end());
    RunOptions options;
    options.workingDirectory = folder;
    options.environment = {{"XDG_DATA_HOME", folder + "/data"}};
    return runProgram(argv, options);
}

std::vector<std::string> plistStrings(const std::string& xml) {
    std::vector<std::string> strings;
    Value list = parsePropertyList(xml);
    for (std::size_t i = 0; i < list.count(); ++i) {
        Value item = list.at(i);
        if (item.isString()) strings.emplace_back(item.text());
    }
    return strings;
}

std::set<std::string> wordsOf(const std::string& text) {
    std::set<std::string> words;
    std::stringstream in(text);
    std::string word;
    while (in >> word) words.insert(word);
    return words;
}

ProgramResult installBuildInto(const std::string& prefix) {
    return runProgram({WHITTLE_CMAKE_COMMAND, "--install", WHITTLE_BUILD_DIR, "--prefix", prefix});
}

}  // namespace whittle::test
