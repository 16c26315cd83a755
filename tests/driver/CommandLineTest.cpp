#include <gtest/gtest.h>

#include "driver/CommandLine.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"

using namespace whittle;

namespace {

class CommandLine : public testing::Test {
protected:
    void SetUp() override {
        useLegacyStripper = 0;
        verboseMode = 0;
        LogObject::sharedLogger().setVerbose(false);
        LogObject::sharedLogger().setUseTTY(false);
    }
    void TearDown() override { SetUp(); }

    // Parses "whittle ARGS..." and keeps what the run printed and logged.
    ParseOutcome parse(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "/usr/local/bin/whittle");
        std::string historyBefore = LogObject::sharedLogger().historicalLog();
        testing::internal::CaptureStdout();
        ParseOutcome outcome = parseCommandLine(arguments, request);
        printed = testing::internal::GetCapturedStdout();
        logged = LogObject::sharedLogger().historicalLog().substr(historyBefore.size());
        return outcome;
    }

    bool option(const char* key) { return boolForKey(request.stripOptions, key); }

    RunRequest request;
    std::string printed;
    std::string logged;
};

using Next = ParseOutcome::Next;

}  // namespace

TEST_F(CommandLine, ProgramNameAlonePrintsUsage) {
    auto outcome = parse({});
    EXPECT_EQ(outcome.next, Next::ExitWithoutLog);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(printed.starts_with("whittle [--source] <src> [--target] <tgt> [options]\n"));
}

TEST_F(CommandLine, HelpInAnyCaseAnywhereStopsTheParse) {
    auto outcome = parse({"src", "--HeLp", "--product"});
    EXPECT_EQ(outcome.next, Next::ExitWithoutLog);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(printed.find("other usage modes:"), std::string::npos);
    EXPECT_EQ(logged, "");
}

TEST_F(CommandLine, InitialOptionsHoldFiveKeys) {
    Value options = initialStripOptions();
    EXPECT_EQ(options.count(), 5u);
    EXPECT_EQ(*options.get("toolVersion").asReal(), 7.4);
    EXPECT_EQ(options.get("toolName").text(), "@(#)PROGRAM:whittle  PROJECT:Whittle-7.4.10\n");
    EXPECT_TRUE(*options.get("checkPersonalized").asBoolean());
    EXPECT_FALSE(*options.get("checkUnpersonalized").asBoolean());
    EXPECT_TRUE(options.get("outputIsTTY").is(Value::Kind::Boolean));
}

TEST_F(CommandLine, MissingValueIsAParseError) {
    auto outcome = parse({"src", "--product"});
    EXPECT_EQ(outcome.next, Next::ExitAfterSavingLog);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(logged, "XXX ERROR: missing argument to \"--product\".\n");
}

TEST_F(CommandLine, MissingValueNamesTheOptionAsTyped) {
    parse({"src", "--FACTORY"});
    EXPECT_EQ(logged, "XXX ERROR: missing argument to \"--FACTORY\".\n");
}

TEST_F(CommandLine, UnknownProductAndVariant) {
    auto outcome = parse({"src", "--product", "zz9"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(logged, "XXX ERROR: unknown product \"zz9\".\n");
    request = {};
    outcome = parse({"src", "--factory", "nope"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(logged, "XXX ERROR: unknown factory variant \"nope\".\n");
}

TEST_F(CommandLine, ProductInOtherCaseIsKeptAsTyped) {
    auto outcome = parse({"src", "--product", "X10", "--product", "x10", "--factory", "REPAIR"});
    EXPECT_EQ(outcome.next, Next::Run);
    EXPECT_TRUE(request.products.equals(Value::stringArray({"X10", "x10"})));
    EXPECT_TRUE(request.factoryVariants.equals(Value::stringArray({"REPAIR"})));
}

TEST_F(CommandLine, ProductListIsNoneUntilTheFirstProduct) {
    parse({"src", "--factory", "repair"});
    EXPECT_TRUE(request.products.isNone());
    EXPECT_TRUE(request.factoryVariants.isArray());
}

TEST_F(CommandLine, PersonalizedTakesOnOrOffInAnyCase) {
    parse({"src", "--factory", "repair", "--personalized", "OFF", "--unpersonalized", "On"});
    EXPECT_FALSE(option("checkPersonalized"));
    EXPECT_TRUE(option("checkUnpersonalized"));
}

TEST_F(CommandLine, PersonalizedWithOtherValueIsBadArgument) {
    auto outcome = parse({"src", "--personalized", "maybe"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(logged, "XXX ERROR: bad argument to \"--personalized\".\n");
}

TEST_F(CommandLine, OptionPairsLaterWins) {
    parse({"src", "--factory", "repair", "--keepSDK", "--stripSDK", "--keepDebug", "--keepfwpks"});
    EXPECT_FALSE(option("keepSDK"));
    EXPECT_TRUE(request.stripOptions.get("keepSDK").is(Value::Kind::Boolean));
    EXPECT_TRUE(option("keepDebug"));
    EXPECT_TRUE(option("keepFWPKs"));
    EXPECT_TRUE(request.stripOptions.get("keepHomeDiagnostics").isNone());
}

TEST_F(CommandLine, APFirmwarePairIsInverted) {
    parse({"src", "--factory", "repair", "--stripAPFirmware"});
    EXPECT_TRUE(option("stripAPFirmware"));
    request = {};
    parse({"src", "--factory", "repair", "--stripAPFirmware", "--keepAPFirmware"});
    EXPECT_FALSE(option("stripAPFirmware"));
}

TEST_F(CommandLine, EveryFlagOptionSetsItsKey) {
    parse({"src", "--factory", "repair", "--keepDebugFirmware", "--keepHomeDiags", "--keepBundleImages",
           "--keepDevFirmware", "--noSymLinks", "--noCookie", "--ov"});
    for (const char* key : {"keepDebugFirmware", "keepHomeDiagnostics", "keepBundleImages", "keepDevFirmware",
                            "noSymLinks", "noCookie", "overwriteTarget"}) {
        EXPECT_TRUE(option(key)) << key;
    }
}

TEST_F(CommandLine, RunFlags) {
    parse({"--dryrun", "--ENCRYPT", "--doTest", "--verbose", "src", "tgt", "--factory", "repair"});
    EXPECT_TRUE(request.dryRun);
    EXPECT_TRUE(request.encrypt);
    EXPECT_TRUE(request.doTest);
    EXPECT_EQ(verboseMode, 1);
    EXPECT_TRUE(LogObject::sharedLogger().verbose());
}

TEST_F(CommandLine, ThreePositionalArguments) {
    auto outcome = parse({"a", "b", "c", "--factory", "repair"});
    EXPECT_EQ(outcome.next, Next::Run);
    EXPECT_EQ(*request.source, "a");
    EXPECT_EQ(*request.target, "b");
    EXPECT_EQ(logged, "!!! WARNING: ignoring \"c\" - only one source and target can be specified.\n");
}

TEST_F(CommandLine, SourceOptionThenPositionalIsTheTarget) {
    parse({"--source", "s", "t", "--factory", "repair"});
    EXPECT_EQ(*request.source, "s");
    EXPECT_EQ(*request.target, "t");
}

TEST_F(CommandLine, SecondSourceAndTargetAreIgnoredWithWarnings) {
    parse({"--source", "s1", "--source", "s2", "--target", "t1", "--target", "t2", "--factory", "repair"});
    EXPECT_EQ(*request.source, "s1");
    EXPECT_EQ(*request.target, "t1");
    EXPECT_EQ(logged,
              "!!! WARNING: ignoring \"s2\" - only one source can be specified.\n"
              "!!! WARNING: ignoring \"t2\" - only one target can be specified.\n");
}

TEST_F(CommandLine, UnknownOptionsAndBareDoubleHyphenAreIgnored) {
    parse({"src", "--frobnicate", "--", "--factory", "repair"});
    EXPECT_EQ(logged,
              "!!! WARNING: ignoring \"--frobnicate\" - unknown option.\n"
              "!!! WARNING: ignoring \"--\" - unknown option.\n");
}

TEST_F(CommandLine, SingleHyphenArgumentIsPositional) {
    parse({"-x", "-y", "--factory", "repair"});
    EXPECT_EQ(*request.source, "-x");
    EXPECT_EQ(*request.target, "-y");
}

TEST_F(CommandLine, ValidVariantsWithTwoProductsFailsFirst) {
    auto outcome = parse({"--validvariants", "--product", "x10", "--product", "x20"});
    EXPECT_EQ(outcome.status, 22);
    EXPECT_EQ(logged, "XXX ERROR: only one product can be specified with --validVariants option.\n");
}

TEST_F(CommandLine, ValidVariantsWithoutProductPasses) {
    auto outcome = parse({"src", "--validVariants"});
    EXPECT_EQ(outcome.next, Next::Run);
    EXPECT_EQ(logged, "");
}

TEST_F(CommandLine, PostParseChecksInOrder) {
    EXPECT_EQ(parse({"--factory", "repair"}).status, 22);
    EXPECT_EQ(logged, "XXX ERROR: source not specified.\n");
    request = {};
    EXPECT_EQ(parse({"s", "t", "--validvariants", "--validproducts"}).status, 22);
    EXPECT_EQ(logged, "XXX ERROR: cannot specify --target and --validvariants.\n");
    request = {};
    EXPECT_EQ(parse({"s", "t", "--validproducts"}).status, 22);
    EXPECT_EQ(logged, "XXX ERROR: cannot specify --target and --validproducts.\n");
    request = {};
    EXPECT_EQ(parse({"s", "--validvariants", "--validproducts"}).status, 22);
    EXPECT_EQ(logged, "XXX ERROR: cannot specify --validvariants and --validproducts.\n");
}

TEST_F(CommandLine, NoFactoryVariantsWarnsButProceeds) {
    auto outcome = parse({"src"});
    EXPECT_EQ(outcome.next, Next::Run);
    EXPECT_EQ(logged, "!!! WARNING: no factory variants specified.\n");
    request = {};
    parse({"src", "--validproducts"});
    EXPECT_EQ(logged, "");
}

TEST_F(CommandLine, KnownProductsListsAndStopsReading) {
    auto outcome = parse({"--knownproducts", "--product", "zz9", "--personalized", "bad"});
    EXPECT_EQ(outcome.next, Next::ExitWithoutLog);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(printed.find("<string>x10</string>"), std::string::npos);
    EXPECT_TRUE(printed.ends_with("</plist>\n\n"));
}

TEST_F(CommandLine, InvalidOptionBeforeKnownProductsFailsFirst) {
    auto outcome = parse({"--personalized", "bad", "--knownproducts"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(printed.find("<plist"), std::string::npos);
}

TEST_F(CommandLine, LegacyChangesTheEngineClassFromThatPointOn) {
    EXPECT_EQ(stripperClass().name, "Stripper3");
    parse({"src", "--legacy", "--factory", "repair"});
    EXPECT_EQ(useLegacyStripper, 1);
    EXPECT_EQ(stripperClass().name, "Stripper2");
}

TEST_F(CommandLine, ArgumentsOfAnyLengthAndBytes) {
    std::string huge(1 << 20, 'p');
    std::string binary("\xff\xfe\x01zz", 5);
    auto outcome = parse({huge, binary, "--product", huge});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(logged.find("XXX ERROR: unknown product \"" + huge + "\"."), std::string::npos);
    request = {};
    parse({huge, binary, "--factory", "repair"});
    EXPECT_EQ(*request.source, huge);
    EXPECT_EQ(*request.target, binary);
}

TEST(Usage, CatalogueLinesAndVersion) {
    std::string text = usageText("prog");
    auto lines = std::vector<std::string>();
    std::string::size_type start = 0, end;
    while ((end = text.find('\n', start)) != std::string::npos) {
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    ASSERT_EQ(lines.size(), 39u);
    EXPECT_EQ(lines[9].substr(0, 8), "\t\t\tk10, ");
    EXPECT_EQ(lines[11], "\t\t\tbb-dfu, cti, debug, desense, dfu, internal-debug, internal-dev, internal-install, "
                         "nandnuker, oqc-bb-unlock, repair, ss, support, swdl, vendor");
    EXPECT_EQ(lines[32], "prog --knownproducts");
    EXPECT_EQ(lines[37], "@(#)PROGRAM:whittle  PROJECT:Whittle-7.4.10");
    EXPECT_TRUE(lines[38].starts_with("Version 7.400000, built "));
}
