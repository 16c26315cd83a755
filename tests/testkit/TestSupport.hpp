// Helpers shared by the tests: temporary folders, files, and running programs with
// their output captured (optionally with standard error on a pseudo-terminal).
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace whittle::test {

// A fresh folder under /tmp, removed with everything in it when the object goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

void writeFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);
bool pathExists(const std::string& path);
void removeTree(const std::string& path);

struct ProgramResult {
    int status = -1;          // exit status, or 128 + signal
    std::string out;          // standard output
    std::string err;          // standard error (or what the terminal received)
};

struct RunOptions {
    bool stderrOnTerminal = false;  // standard error goes to a pseudo-terminal
    std::string workingDirectory;   // empty: the test's own
    int timeoutSeconds = 120;
    std::vector<std::pair<std::string, std::string>> environment;  // variables set for the program
    // A signal sent to the program this long after it started (none when 0), to the
    // program alone or, as a terminal's Ctrl-C does, to its whole process group (the
    // program then runs in a group of its own).
    int signalNumber = 0;
    int signalAfterMilliseconds = 0;
    bool signalProcessGroup = false;
    // When set, the signal goes once this path exists, or once the program has written
    // this text (and the time has passed).
    std::string signalWhenPathExists;
    std::string signalWhenOutputContains;
};

// Appends what one read of the descriptor gives; clears open at its end (a terminal's
// master side answers an error instead of an end of file).
void appendAvailable(int fd, std::string& sink, bool& open);

ProgramResult runProgram(const std::vector<std::string>& argv, const RunOptions& options = {});

// The built whittle binary.
std::string whittleBinary();
// Runs whittle with these arguments (the program path is added in front).
ProgramResult runWhittle(const std::vector<std::string>& arguments, const RunOptions& options = {});

// The log every run of whittle writes, "/tmp/Whittle.log", is one file for all the test
// programs, which run side by side. A test that reads, writes or removes it must have it
// to itself: tests/CMakeLists.txt names it among the tests of its program that run alone,
// so that no other test runs whittle meanwhile. Under CTest these helpers fail the test that is not
// listed.
inline constexpr const char* kWhittleLogFile = "/tmp/Whittle.log";
std::string readWhittleLog();
bool whittleLogExists();
void writeWhittleLog(const std::string& content);
void removeWhittleLog();

// Every path below a folder, relative to it; links are listed, never followed.
std::set<std::string> folderTree(const std::string& root);

// The paths together with every one of their parent folders.
std::set<std::string> withParentFolders(const std::set<std::string>& paths);

// What a dry run's listing says a stripped bundle copies and creates.
struct DryRunLists {
    std::set<std::string> copied;
    std::set<std::string> created;
};
DryRunLists dryRunListsOf(const std::string& output);

// What a live line writes before each new text: back to the line's start, erase it.
inline constexpr const char* kTerminalLineErase = "\r\x1b[K";
// The texts a live line drew on a terminal, in order (erases alone are left out).
std::vector<std::string> drawnLines(const std::string& terminal);

// The lines of a text, without their line ends.
std::vector<std::string> linesOf(const std::string& text);

inline bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
// The first list followed by the second.
inline std::vector<std::string> plus(std::vector<std::string> first, const std::vector<std::string>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// What the shared logger said while the action ran; standard output is kept quiet.
std::string loggedDuring(const std::function<void()>& action);

}  // namespace whittle::test
