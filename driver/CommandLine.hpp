// Reading the command line into the options, the run flags and the request.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "driver/StripperClasses.hpp"
#include "support/Value.hpp"

namespace whittle {

inline constexpr double kToolVersion = 7.4;
// The version record; it carries its own newline.
inline constexpr const char* kVersionRecord = "@(#)PROGRAM:whittle  PROJECT:Whittle-7.4.10\n";

// Process-wide switches: "--legacy" and "--verbose".
extern std::uint8_t useLegacyStripper;
extern std::uint8_t verboseMode;

// The engine class in force right now: Stripper2 once "--legacy" has been read.
const StripperClass& stripperClass();

struct RunRequest {
    Value stripOptions;             // the StripOptions dictionary
    std::optional<std::string> source;
    std::optional<std::string> target;
    Value products;                 // none until the first "--product", then an array
    Value factoryVariants;          // none until the first "--factory", then an array
    bool doTest = false;
    bool validVariantsMode = false;
    bool validProductsMode = false;
    bool dryRun = false;
    bool encrypt = false;
};

// What the parse decided: go on with the run, or end the process with a status now.
struct ParseOutcome {
    enum class Next { Run, ExitWithoutLog, ExitAfterSavingLog } next = Next::Run;
    int status = 0;
};

// The StripOptions every run starts from.
Value initialStripOptions();

// Reads the arguments left to right and checks the request. Usage and the listing
// modes print their text here.
ParseOutcome parseCommandLine(const std::vector<std::string>& arguments, RunRequest& request);

// The usage text, with the program name in its place.
std::string usageText(const std::string& programName);

}  // namespace whittle
