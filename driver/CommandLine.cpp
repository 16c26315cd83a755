#include "driver/CommandLine.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "support/FileSystem.hpp"
#include "support/Paths.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"
#include "support/PlistCodec.hpp"
#include "support/ProcessInfo.hpp"

namespace whittle {

std::uint8_t useLegacyStripper = 0;
std::uint8_t verboseMode = 0;

const StripperClass& stripperClass() {
    return *stripperClassNamed(useLegacyStripper == 1 ? "Stripper2" : "Stripper3");
}

namespace {

enum class Action {
    KnownProducts, KnownVariants, DoTest, ValidVariants, ValidProducts, Product, Factory,
    Source, Target, Personalized, Unpersonalized, Legacy, Verbose, DryRun, Encrypt,
    SetOptionKey, Help,
};

struct OptionSpec {
    const char* name;
    Action action;
    bool takesValue = false;
    const char* optionKey = nullptr;  // for SetOptionKey
    bool keyValue = false;            // for SetOptionKey
};

// Tried in this order; the first whole-argument match without regard to case wins.
const OptionSpec kOptionTable[] = {
    {"--knownproducts", Action::KnownProducts},
    {"--knownvariants", Action::KnownVariants},
    {"--doTest", Action::DoTest},
    {"--validvariants", Action::ValidVariants},
    {"--validproducts", Action::ValidProducts},
    {"--product", Action::Product, true},
    {"--factory", Action::Factory, true},
    {"--source", Action::Source, true},
    {"--target", Action::Target, true},
    {"--personalized", Action::Personalized, true},
    {"--unpersonalized", Action::Unpersonalized, true},
    {"--legacy", Action::Legacy},
    {"--verbose", Action::Verbose},
    {"--dryrun", Action::DryRun},
    {"--encrypt", Action::Encrypt},
    {"--stripDebug", Action::SetOptionKey, false, "keepDebug", false},
    {"--keepDebug", Action::SetOptionKey, false, "keepDebug", true},
    {"--stripDebugFirmware", Action::SetOptionKey, false, "keepDebugFirmware", false},
    {"--keepDebugFirmware", Action::SetOptionKey, false, "keepDebugFirmware", true},
    {"--stripHomeDiags", Action::SetOptionKey, false, "keepHomeDiagnostics", false},
    {"--keepHomeDiags", Action::SetOptionKey, false, "keepHomeDiagnostics", true},
    {"--stripBundleImages", Action::SetOptionKey, false, "keepBundleImages", false},
    {"--keepBundleImages", Action::SetOptionKey, false, "keepBundleImages", true},
    {"--stripFWPKs", Action::SetOptionKey, false, "keepFWPKs", false},
    {"--keepFWPKs", Action::SetOptionKey, false, "keepFWPKs", true},
    {"--stripSDK", Action::SetOptionKey, false, "keepSDK", false},
    {"--keepSDK", Action::SetOptionKey, false, "keepSDK", true},
    {"--stripDevFirmware", Action::SetOptionKey, false, "keepDevFirmware", false},
    {"--keepDevFirmware", Action::SetOptionKey, false, "keepDevFirmware", true},
    // This pair's key names the stripping, not the keeping.
    {"--stripAPFirmware", Action::SetOptionKey, false, "stripAPFirmware", true},
    {"--keepAPFirmware", Action::SetOptionKey, false, "stripAPFirmware", false},
    {"--noSymLinks", Action::SetOptionKey, false, "noSymLinks", true},
    {"--noCookie", Action::SetOptionKey, false, "noCookie", true},
    {"--ov", Action::SetOptionKey, false, "overwriteTarget", true},
    {"--help", Action::Help},
};

const OptionSpec* findOption(const std::string& argument) {
    for (const auto& spec : kOptionTable) {
        if (equalsIgnoringCase(argument, spec.name)) return &spec;
    }
    return nullptr;
}

void printNameList(const std::vector<std::string>& names) {
    writeToStandardOutput(xmlPropertyList(Value::stringArray(names)) + "\n");
}

std::string catalogueLine(const std::vector<std::string>& names) {
    std::string line;
    for (const auto& name : names) line += (line.empty() ? "\t\t\t" : ", ") + name;
    return line + "\n";
}

ParseOutcome exitWithoutLog(int status) { return {ParseOutcome::Next::ExitWithoutLog, status}; }
ParseOutcome failParse(int status) { return {ParseOutcome::Next::ExitAfterSavingLog, status}; }

// Adds a product or variant to its list after checking it against the catalogue.
bool appendKnownName(Value& list, const std::string& name, const std::vector<std::string>& known) {
    if (!containsCaseInsensitiveString(Value::stringArray(known), name)) return false;
    if (list.isNone()) list = Value::array();
    list.append(Value::string(name));
    return true;
}

void setSourceOrTarget(std::optional<std::string>& slot, const std::string& value, const char* warning) {
    if (slot) {
        Log(warning, value);
    } else {
        slot = value;
    }
}

bool parseOnOff(const std::string& value, bool& flag) {
    if (equalsIgnoringCase(value, "on")) {
        flag = true;
    } else if (equalsIgnoringCase(value, "off")) {
        flag = false;
    } else {
        return false;
    }
    return true;
}

void takePositional(const std::string& argument, RunRequest& request) {
    if (!request.source) {
        request.source = argument;
    } else if (!request.target) {
        request.target = argument;
    } else {
        Log("!!! WARNING: ignoring \"%s\" - only one source and target can be specified.", argument);
    }
}

// Carries out an option that takes a value. Answers a parse failure's status, or 0.
int applyValueOption(const OptionSpec& spec, const std::string& argument, const std::string& value,
                     RunRequest& request) {
    switch (spec.action) {
        case Action::Product:
            if (appendKnownName(request.products, value, stripperClass().knownProducts())) return 0;
            Log("XXX ERROR: unknown product \"%s\".", value);
            return 1;
        case Action::Factory:
            if (appendKnownName(request.factoryVariants, value, stripperClass().knownFactoryVariants())) return 0;
            Log("XXX ERROR: unknown factory variant \"%s\".", value);
            return 1;
        case Action::Source:
            setSourceOrTarget(request.source, value, "!!! WARNING: ignoring \"%s\" - only one source can be specified.");
            return 0;
        case Action::Target:
            setSourceOrTarget(request.target, value, "!!! WARNING: ignoring \"%s\" - only one target can be specified.");
            return 0;
        case Action::Personalized:
        case Action::Unpersonalized: {
            bool flag = false;
            if (!parseOnOff(value, flag)) {
                Log("XXX ERROR: bad argument to \"%s\".", argument);
                return 1;
            }
            bool personalized = spec.action == Action::Personalized;
            request.stripOptions.set(personalized ? "checkPersonalized" : "checkUnpersonalized", Value::boolean(flag));
            return 0;
        }
        default: return 0;
    }
}

// Carries out an option without a value; answers an outcome when the process ends here.
std::optional<ParseOutcome> applyFlagOption(const OptionSpec& spec, const std::string& programName,
                                            RunRequest& request) {
    switch (spec.action) {
        case Action::KnownProducts: printNameList(stripperClass().knownProducts()); return exitWithoutLog(0);
        case Action::KnownVariants: printNameList(stripperClass().knownFactoryVariants()); return exitWithoutLog(0);
        case Action::Help: writeToStandardOutput(usageText(programName)); return exitWithoutLog(0);
        case Action::DoTest: request.doTest = true; break;
        case Action::ValidVariants: request.validVariantsMode = true; break;
        case Action::ValidProducts: request.validProductsMode = true; break;
        case Action::Legacy: useLegacyStripper = 1; break;
        case Action::Verbose:
            LogObject::sharedLogger().setVerbose(true);
            verboseMode = 1;
            break;
        case Action::DryRun: request.dryRun = true; break;
        case Action::Encrypt: request.encrypt = true; break;
        case Action::SetOptionKey: request.stripOptions.set(spec.optionKey, Value::boolean(spec.keyValue)); break;
        default: break;
    }
    return std::nullopt;
}

// The checks made once every argument has been read; answers a failure's status or 0.
int checkRequest(const RunRequest& request) {
    if (request.validVariantsMode && request.products.count() >= 2) {
        Log("XXX ERROR: only one product can be specified with --validVariants option.");
        return 22;
    }
    if (!request.source) {
        Log("XXX ERROR: source not specified.");
        return 22;
    }
    if (request.validVariantsMode && request.target) {
        Log("XXX ERROR: cannot specify --target and --validvariants.");
        return 22;
    }
    if (request.validProductsMode && request.target) {
        Log("XXX ERROR: cannot specify --target and --validproducts.");
        return 22;
    }
    if (request.validVariantsMode && request.validProductsMode) {
        Log("XXX ERROR: cannot specify --validvariants and --validproducts.");
        return 22;
    }
    if (request.factoryVariants.count() == 0 && !request.validVariantsMode && !request.validProductsMode) {
        Log("!!! WARNING: no factory variants specified.");
    }
    return 0;
}

// "--legacy" and "--verbose" hold only for the command line that gives them.
void resetSwitches() {
    useLegacyStripper = 0;
    verboseMode = 0;
    LogObject::sharedLogger().setVerbose(false);
}

}  // namespace

Value initialStripOptions() {
    Value options = Value::dictionary();
    options.set("outputIsTTY", Value::boolean(isatty(STDERR_FILENO) == 1));
    options.set("toolVersion", Value::real(kToolVersion));
    options.set("toolName", Value::string(kVersionRecord));
    options.set("checkPersonalized", Value::boolean(true));
    options.set("checkUnpersonalized", Value::boolean(false));
    return options;
}

ParseOutcome parseCommandLine(const std::vector<std::string>& arguments, RunRequest& request) {
    resetSwitches();
    std::string programName = arguments.empty() ? std::string("whittle") : lastPathComponent(arguments[0]);
    if (arguments.size() <= 1) {
        writeToStandardOutput(usageText(programName));
        return exitWithoutLog(0);
    }
    request.stripOptions = initialStripOptions();
    if (!std::all_of(arguments.begin() + 1, arguments.end(), [](const std::string& a) { return isValidUtf8(a); })) {
        Log("!!! WARNING: the command line holds bytes that are not UTF-8; the files this run writes show each as U+FFFD.");
    }

    for (std::size_t i = 1; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        const OptionSpec* spec = findOption(argument);
        if (spec && spec->takesValue) {
            if (i + 1 >= arguments.size()) {
                Log("XXX ERROR: missing argument to \"%s\".", argument);
                return failParse(1);
            }
            if (int status = applyValueOption(*spec, argument, arguments[++i], request)) return failParse(status);
        } else if (spec) {
            if (auto outcome = applyFlagOption(*spec, programName, request)) return *outcome;
        } else if (argument.starts_with("--")) {
            Log("!!! WARNING: ignoring \"%s\" - unknown option.", argument);
        } else {
            takePositional(argument, request);
        }
    }

    if (int status = checkRequest(request)) return failParse(status);
    return {};
}

std::string usageText(const std::string& programName) {
    const StripperClass& engine = stripperClass();
    std::string text;
    auto line = [&text](const std::string& content) { text += content + "\n"; };
    line(format("%s [--source] <src> [--target] <tgt> [options]", programName));
    line("<src> is the path to a restore bundle (or dmg)");
    line("<tgt> is the path to a stripped bundle (or dmg, zip, or bom) ");
    line("");
    line("NOTE: if no target is specified, the tool operates in \"validation\" mode only.");
    line("");
    line("options:");
    line("\t--help\t\tprint this usage statement");
    line("\t--product\tproduct to strip for (multiple products can be specified)");
    text += catalogueLine(engine.knownProducts());
    line("\t--factory\tfactory variants to strip for (multiple variants can be specified)");
    text += catalogueLine(engine.knownFactoryVariants());
    line("\t--[strip|keep]Debug\tkeep debug image and firmware - default strip");
    line("\t--[strip|keep]FWPKs\tkeep Mediadesk FWPKs - default strip");
    line("\t--[strip|keep]BundleImages\tkeep BundleImages - default strip");
    line("\t--[strip|keep]HomeDiags\tkeep HomeDiagnostics - default strip");
    line("\t--[strip|keep]SDK\tkeep SDK image - default strip");
    line("\t--[strip|keep]DevFirmware\tstrip dev board firmware - default strip");
    line("\t--[strip|keep]APFirmware\tstrip AP firmware - default keep");
    line("\t--[strip|keep]DebugFirmware\tstrip debug firmware - default strip");
    line("");
    line("\t--noSymLinks\tdon't generate symlinks");
    line("\t--noCookie\tdon't write a cookie file to the output (folder | dmg | zip)");
    line("\t--ov\toverwrite target file/directory");
    line("\t--legacy\tuse stripper2");
    line("\t--personalized (on | off) - default on (deprecated)");
    line("\t--unpersonalized (on | off) - default off");
    line("\t--dryrun\tprint filelist and quit");
    line("\t--verbose\tmore detailed output");
    line("\t--encrypt\tencrypt output - disk image targets only");
    line("");
    line("other usage modes:");
    line(format("%s --knownproducts", programName));
    line(format("%s --knownvariants", programName));
    line(format("%s [--source] <src> --validVariants --product <product>", programName));
    line(format("%s [--source] <src> --validProducts", programName));
    line("");
    text += kVersionRecord;
    line(format("Version %f, built %s %s", kToolVersion, buildDate(), buildTime()));
    return text;
}

}  // namespace whittle
