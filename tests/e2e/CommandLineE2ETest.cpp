// Runs the built whittle binary and checks what a user sees: standard output, exit
// status and the log file.
#include <gtest/gtest.h>

#include <regex>

#include "TestSupport.hpp"
#include "support/PlistCodec.hpp"

using namespace whittle::test;

namespace {

const std::string kLogFileMessage = "XXX ERROR: log file in /tmp/Whittle.log\n";

class WhittleCommandLine : public testing::Test {
protected:
    void SetUp() override { removeWhittleLog(); }

    std::vector<std::string> listedNames(const std::string& output) {
        whittle::Value list = whittle::parsePropertyList(output);
        std::vector<std::string> names;
        if (const auto* elements = list.asArray()) {
            for (const auto& element : *elements) names.emplace_back(element.text());
        }
        return names;
    }
};

const std::vector<std::string> kUsageLines = {
    "whittle [--source] <src> [--target] <tgt> [options]",
    "<src> is the path to a restore bundle (or dmg)",
    "<tgt> is the path to a stripped bundle (or dmg, zip, or bom) ",
    "",
    "NOTE: if no target is specified, the tool operates in \"validation\" mode only.",
    "",
    "options:",
    "\t--help\t\tprint this usage statement",
    "\t--product\tproduct to strip for (multiple products can be specified)",
    "\t\t\tk10, k20, k30, k40, t10, t20, t30, x10, x11, x12, x20, x21, x22, x30, x31, x32, x40, x41, x42, x43, "
    "x50, x51, x52, x53, x60, x61, x62, x63, x70, x71, x72, x73, x80, x81, x82, x83",
    "\t--factory\tfactory variants to strip for (multiple variants can be specified)",
    "\t\t\tbb-dfu, cti, debug, desense, dfu, internal-debug, internal-dev, internal-install, nandnuker, "
    "oqc-bb-unlock, repair, ss, support, swdl, vendor",
    "\t--[strip|keep]Debug\tkeep debug image and firmware - default strip",
    "\t--[strip|keep]FWPKs\tkeep Mediadesk FWPKs - default strip",
    "\t--[strip|keep]BundleImages\tkeep BundleImages - default strip",
    "\t--[strip|keep]HomeDiags\tkeep HomeDiagnostics - default strip",
    "\t--[strip|keep]SDK\tkeep SDK image - default strip",
    "\t--[strip|keep]DevFirmware\tstrip dev board firmware - default strip",
    "\t--[strip|keep]APFirmware\tstrip AP firmware - default keep",
    "\t--[strip|keep]DebugFirmware\tstrip debug firmware - default strip",
    "",
    "\t--noSymLinks\tdon't generate symlinks",
    "\t--noCookie\tdon't write a cookie file to the output (folder | dmg | zip)",
    "\t--ov\toverwrite target file/directory",
    "\t--legacy\tuse stripper2",
    "\t--personalized (on | off) - default on (deprecated)",
    "\t--unpersonalized (on | off) - default off",
    "\t--dryrun\tprint filelist and quit",
    "\t--verbose\tmore detailed output",
    "\t--encrypt\tencrypt output - disk image targets only",
    "",
    "other usage modes:",
    "whittle --knownproducts",
    "whittle --knownvariants",
    "whittle [--source] <src> --validVariants --product <product>",
    "whittle [--source] <src> --validProducts",
    "",
    "@(#)PROGRAM:whittle  PROJECT:Whittle-7.4.10",
};

void expectUsage(const ProgramResult& result) {
    EXPECT_EQ(result.status, 0);
    auto lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), kUsageLines.size() + 1) << result.out;
    for (std::size_t i = 0; i < kUsageLines.size(); ++i) EXPECT_EQ(lines[i], kUsageLines[i]) << "line " << i + 1;
    EXPECT_TRUE(std::regex_match(lines.back(),
                                 std::regex(R"(Version 7\.400000, built [A-Z][a-z]{2} [ 0-9]\d \d{4} \d\d:\d\d:\d\d)")))
        << lines.back();
}

}  // namespace

TEST_F(WhittleCommandLine, NoArgumentsPrintsUsageAndWritesNoLog) {
    auto result = runWhittle({});
    expectUsage(result);
    EXPECT_FALSE(whittleLogExists());
}

TEST_F(WhittleCommandLine, HelpInMixedCaseAmongOtherArguments) {
    auto result = runWhittle({"bundle", "--factory", "repair", "--HELP", "--product", "zz9"});
    expectUsage(result);
    EXPECT_FALSE(whittleLogExists());
}

TEST_F(WhittleCommandLine, KnownProductsListsThirtySixSortedNames) {
    auto result = runWhittle({"--knownproducts"});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(result.out.starts_with("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"));
    EXPECT_TRUE(result.out.ends_with("</plist>\n\n"));
    auto names = listedNames(result.out);
    ASSERT_EQ(names.size(), 36u);
    EXPECT_EQ(names.front(), "k10");
    EXPECT_EQ(names.back(), "x83");
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
    EXPECT_FALSE(whittleLogExists());
}

TEST_F(WhittleCommandLine, KnownVariantsListsFifteenSortedNames) {
    auto result = runWhittle({"--KnownVariants"});
    EXPECT_EQ(result.status, 0);
    auto names = listedNames(result.out);
    EXPECT_EQ(names, (std::vector<std::string>{"bb-dfu", "cti", "debug", "desense", "dfu", "internal-debug",
                                               "internal-dev", "internal-install", "nandnuker", "oqc-bb-unlock",
                                               "repair", "ss", "support", "swdl", "vendor"}));
    EXPECT_FALSE(whittleLogExists());
}

TEST_F(WhittleCommandLine, ListingFirstIgnoresEverythingAfterIt) {
    auto result = runWhittle({"--knownproducts", "--personalized", "nonsense", "--product"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(listedNames(result.out).size(), 36u);
}

TEST_F(WhittleCommandLine, InvalidOptionBeforeListingFailsFirst) {
    auto result = runWhittle({"--product", "zz9", "--knownproducts"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "XXX ERROR: unknown product \"zz9\".\n" + kLogFileMessage);
}

TEST_F(WhittleCommandLine, LegacyBeforeOrAfterListingListsTheSameRows) {
    auto legacy = runWhittle({"--legacy", "--knownproducts"});
    auto standard = runWhittle({"--knownproducts", "--legacy"});
    EXPECT_EQ(legacy.status, 0);
    EXPECT_EQ(standard.status, 0);
    EXPECT_EQ(listedNames(legacy.out).size(), 36u);
    EXPECT_EQ(legacy.out, standard.out);
    expectUsage(runWhittle({"--LEGACY", "--help"}));
}

struct ParseFailure {
    std::vector<std::string> arguments;
    std::string messages;
    int status;
};

// The arguments, so that the test's name says which command line it is.
void PrintTo(const ParseFailure& failure, std::ostream* out) {
    for (const auto& argument : failure.arguments) *out << (&argument == &failure.arguments.front() ? "" : " ") << argument;
}

class WhittleParseFailures : public WhittleCommandLine, public testing::WithParamInterface<ParseFailure> {};

TEST_P(WhittleParseFailures, PrintsMessageSavesLogAndExitsWithStatus) {
    const ParseFailure& failure = GetParam();
    auto result = runWhittle(failure.arguments);
    EXPECT_EQ(result.status, failure.status);
    EXPECT_EQ(result.out, failure.messages + kLogFileMessage);
    EXPECT_EQ(readWhittleLog(), failure.messages);
}

INSTANTIATE_TEST_SUITE_P(
    Each, WhittleParseFailures,
    testing::Values(
        ParseFailure{{"src", "--product"}, "XXX ERROR: missing argument to \"--product\".\n", 1},
        ParseFailure{{"src", "--Target"}, "XXX ERROR: missing argument to \"--Target\".\n", 1},
        ParseFailure{{"src", "--product", "zz9"}, "XXX ERROR: unknown product \"zz9\".\n", 1},
        ParseFailure{{"src", "--factory", "fast"}, "XXX ERROR: unknown factory variant \"fast\".\n", 1},
        ParseFailure{{"src", "--personalized", "yes"}, "XXX ERROR: bad argument to \"--personalized\".\n", 1},
        ParseFailure{{"src", "--UNPERSONALIZED", "1"}, "XXX ERROR: bad argument to \"--UNPERSONALIZED\".\n", 1},
        ParseFailure{{"--validvariants", "--product", "x10", "--product", "x20"},
                     "XXX ERROR: only one product can be specified with --validVariants option.\n", 22},
        ParseFailure{{"--factory", "repair"}, "XXX ERROR: source not specified.\n", 22},
        ParseFailure{{"s", "t", "--validVariants"}, "XXX ERROR: cannot specify --target and --validvariants.\n", 22},
        ParseFailure{{"s", "--target", "t", "--ValidProducts"},
                     "XXX ERROR: cannot specify --target and --validproducts.\n", 22},
        ParseFailure{{"s", "--validvariants", "--validproducts"},
                     "XXX ERROR: cannot specify --validvariants and --validproducts.\n", 22},
        ParseFailure{{"--bogus", "--factory", "repair"},
                     "!!! WARNING: ignoring \"--bogus\" - unknown option.\nXXX ERROR: source not specified.\n", 22}));

TEST_F(WhittleCommandLine, AcceptedCommandLineReachesTheLegacyEngine) {
    // Options in any letter case, a product and a variant typed in capitals: the request
    // reaches the legacy engine, which finds no build manifest in the missing bundle.
    auto result = runWhittle({"--legacy", "--SOURCE", "bundle", "--Product", "X10", "--FACTORY", "Repair", "--KeepSDK"});
    EXPECT_EQ(result.status, 1);
    std::string missing = "XXX ERROR: source \"bundle\" does not exist.\n";
    std::string failure = "XXX ERROR: BuildManifest.plist cannot be read.\n";
    EXPECT_EQ(result.out, missing + failure + "Validation FAILED.\n" + kLogFileMessage);
    EXPECT_EQ(readWhittleLog(), missing + ">>> analyzing bundle.\n" + failure + "Validation FAILED.\n");
}

TEST_F(WhittleCommandLine, WarningsAreLoggedAndDoNotChangeTheStatus) {
    TempDir dir;
    auto result = runWhittle({dir / "a", dir / "b", "c", "--source", "d", "--target", "e", "--", "-x"});
    EXPECT_EQ(result.status, 1);
    std::string warnings =
        "!!! WARNING: ignoring \"c\" - only one source and target can be specified.\n"
        "!!! WARNING: ignoring \"d\" - only one source can be specified.\n"
        "!!! WARNING: ignoring \"e\" - only one target can be specified.\n"
        "!!! WARNING: ignoring \"--\" - unknown option.\n"
        "!!! WARNING: ignoring \"-x\" - only one source and target can be specified.\n"
        "!!! WARNING: no factory variants specified.\n";
    std::string missing = "XXX ERROR: source \"" + dir / "a" + "\" does not exist.\n";
    std::string failure = "XXX ERROR: BuildManifest.plist cannot be read.\n";
    EXPECT_EQ(result.out, warnings + missing + failure + kLogFileMessage);
    EXPECT_EQ(readWhittleLog(), warnings + missing + ">>> analyzing bundle.\n" + failure);
    EXPECT_FALSE(pathExists(dir / "b"));
}

TEST_F(WhittleCommandLine, LogFileIsReplacedByEveryRun) {
    writeWhittleLog("an old log that must go\n");
    TempDir dir;
    auto result = runWhittle({dir.path(), "--validproducts"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(readWhittleLog(), "XXX ERROR: source \"" + dir.path() + "\" has no \"Restore\" folder.\n" +
                                      "XXX ERROR: BuildManifest.plist cannot be read.\nXXX ERROR: cannot get valid products.\n");
}

TEST_F(WhittleCommandLine, VerboseRunShowsProgress) {
    TempDir dir;
    auto result = runWhittle({dir.path(), "--verbose", "--factory", "ss"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "XXX ERROR: source \"" + dir.path() + "\" has no \"Restore\" folder.\n" +
                              ">>> analyzing bundle.\nXXX ERROR: BuildManifest.plist cannot be read.\nValidation FAILED.\n" +
                              kLogFileMessage);
}

TEST_F(WhittleCommandLine, ErrorsAreColouredOnATerminal) {
    RunOptions options;
    options.stderrOnTerminal = true;
    auto result = runWhittle({"src", "--product", "zz9"}, options);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "\x1b[31mXXX ERROR: unknown product \"zz9\".\n\x1b[0m"
              "\x1b[31mXXX ERROR: log file in /tmp/Whittle.log\n\x1b[0m");
}

TEST_F(WhittleCommandLine, HugeAndBinaryArgumentsAreHandled) {
    std::string huge(120000, 'z');  // just under the kernel's limit for one argument
    auto result = runWhittle({"src", "--product", huge});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "XXX ERROR: unknown product \"" + huge + "\".\n" + kLogFileMessage);
    auto binary = runWhittle({std::string("\xff\xfe", 2), "--factory", std::string("\x80\x01", 2)});
    EXPECT_EQ(binary.status, 1);
}
