// Helpers of the disk image tests: running the tool in a session of its own (with a
// pseudo-terminal as its controlling terminal when passphrases are to be typed),
// describing folder trees, and finding the sample images.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/Value.hpp"

namespace whittle::test {

struct SessionResult {
    int status = -1;       // exit status, or 128 + signal
    std::string out;       // standard output
    std::string err;       // standard error
    std::string terminal;  // what the program wrote to its terminal
    int promptsAnswered = 0;
};

// Runs argv in a new session. With answers, a pseudo-terminal is the session's
// controlling terminal and standard input, and each answer is typed (with a newline)
// when the next prompt, text ending in ": ", has appeared. Without answers the
// program has no terminal at all and reads /dev/null.
SessionResult runInNewSession(const std::vector<std::string>& argv,
                              const std::optional<std::vector<std::string>>& answers = std::nullopt,
                              int timeoutSeconds = 120);

// The tool under test (built with the test volumes folder) and that folder.
std::string diskImageTool();
std::string testVolumesFolder();
SessionResult runTool(const std::vector<std::string>& arguments,
                      const std::optional<std::vector<std::string>>& answers = std::nullopt);

std::string sevenZip();
std::string dmg2img();
std::string vfdecrypt();

// The shared sample images, or none when that folder is absent.
std::optional<std::string> sharedFixtureFolder();
// The sample images kept in the project.
std::string projectFixtureFolder();

// path relative to the root -> "d 0755", "f 0644 <size> <crc> <mtime>", "l <target>".
// Link targets beginning with stripPrefix lose it (7zz points absolute links there).
std::map<std::string, std::string> describeTree(const std::string& root, const std::string& stripPrefix = "",
                                                bool withTimes = true);

// The system-entities of attach -plist output, and the mounted entity in it.
Value systemEntitiesOf(const std::string& attachOutput);
Value mountedEntityOf(const Value& entities);

// Copies a file (sparse where the source reads as zeros is not needed: small files).
void copyFile(const std::string& from, const std::string& to);

// The names listed by 7zz in a fixture's NAME.contents.txt (the first table).
std::vector<std::string> listedNames(const std::string& contentsFile);

std::string hexOf(std::uint32_t value);

}  // namespace whittle::test
