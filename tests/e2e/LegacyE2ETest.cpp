// Runs the built whittle with "--legacy" on generated bundles: validation, the report
// modes, dry runs, and every target kind for both strategies.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "BundleGenerator.hpp"
#include "TestSupport.hpp"
#include "support/PlistCodec.hpp"

using namespace whittle;
using namespace whittle::test;
namespace fs = std::filesystem;

namespace {


class LegacyRun : public testing::Test {
protected:
    void SetUp() override {
        bundlegen::BundlePlan plan;
        plan.products = {{"x10", true, false, {"repair", "ss"}, 1, true}, {"x30", true, false, {"repair"}, 1, true}};
        bundlegen::generateBundle(source(), plan);
    }

    std::string source() const { return dir / "bundle"; }

    // Runs whittle with the Trash inside the test's folder.
    ProgramResult whittle(const std::vector<std::string>& arguments) {
        RunOptions options;
        options.environment = {{"XDG_DATA_HOME", dir / "data"}};
        return runWhittle(arguments, options);
    }

    // What a dry run of the request says the stripped bundle copies and creates.
    void dryRunLists(const std::vector<std::string>& request, std::set<std::string>& copied, std::set<std::string>& created) {
        auto result = whittle(plus(plus({source()}, request), {"--dryrun"}));
        ASSERT_EQ(result.status, 0) << result.out;
        DryRunLists lists = dryRunListsOf(result.out);
        copied = lists.copied;
        created = lists.created;
    }

    static std::set<std::string> united(std::set<std::string> a, const std::set<std::string>& b) {
        a.insert(b.begin(), b.end());
        return a;
    }

    TempDir dir;
};

const std::vector<std::string> kPersonalized{"--legacy", "--product", "x10", "--factory", "repair"};
const std::vector<std::string> kUnpersonalized{"--legacy", "--product", "x10", "--factory", "repair",
                                               "--personalized", "off", "--unpersonalized", "on"};

}  // namespace

// ---- validation, reports and dry runs ----

TEST_F(LegacyRun, ValidationPasses) {
    auto result = whittle(plus({source()}, kPersonalized));
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_TRUE(result.out.ends_with("Validation PASSED.\n")) << result.out;
    std::string log = readWhittleLog();
    EXPECT_TRUE(contains(log, ">>> ==========  1/ 7 Strip Restore and BuildManifest.plist for x10ap repair. ==========\n")) << log;
    EXPECT_TRUE(contains(log, "||| merging  1/ 2 stripped manifests.\n")) << log;
    EXPECT_TRUE(contains(log, "+++ Oreo's left.  No milk.\n"));
}

TEST_F(LegacyRun, ValidationFailsForAVariantTheBundleLacks) {
    auto result = whittle({source(), "--legacy", "--product", "x10", "--factory", "dfu"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(result.out, "XXX ERROR: BuildIdentity x10ap (Factory - DFU) not found.\n")) << result.out;
    EXPECT_TRUE(contains(result.out, "Validation FAILED.\n"));
}

TEST_F(LegacyRun, ValidationWithEveryVariantTheBundleOffers) {
    auto result = whittle({source(), "--legacy", "--product", "x10", "--unpersonalized", "on"});
    EXPECT_EQ(result.status, 0) << result.out;
    std::string log = readWhittleLog();
    // "Factory - Shipping Settings" serves both "cti" and "ss".
    for (const char* variant : {"cti", "repair", "ss"}) {
        EXPECT_TRUE(contains(log, std::string("Strip Restore and Restore.plist for x10ap ") + variant + ". ==")) << variant;
    }
}

TEST_F(LegacyRun, ValidProductsReport) {
    auto result = whittle({source(), "--legacy", "--validproducts"});
    EXPECT_EQ(result.status, 0) << result.out;
    Value report = parsePropertyList(result.out);
    EXPECT_EQ(report.get("validProducts").count(), 2u);
    EXPECT_EQ(report.get("validProducts").at(0).text(), "x10");
}

TEST_F(LegacyRun, ValidVariantsReport) {
    auto result = whittle({source(), "--legacy", "--validvariants", "--product", "x30"});
    EXPECT_EQ(result.status, 0) << result.out;
    Value report = parsePropertyList(result.out);
    ASSERT_EQ(report.get("validVariants").count(), 1u);
    EXPECT_EQ(report.get("validVariants").at(0).text(), "repair");
}

TEST_F(LegacyRun, DryRunListsTheMergedResultWithoutACookie) {
    auto result = whittle(plus({source(), "--dryrun"}, kPersonalized));
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(contains(result.out, "Files to be copied:\n\tRestore\n")) << result.out;
    EXPECT_TRUE(contains(result.out, "\tRestore/X10UserOS.dmg\t\t->\tX10AP-repairshippingsettings-0-os.dmg\n"));
    EXPECT_TRUE(contains(result.out, "\tRestore/Restore.plist\t\t=\n"));
    EXPECT_FALSE(contains(result.out, "WhittleCookie.plist"));
    EXPECT_TRUE(result.out.ends_with("Validation PASSED.\n"));
}

TEST_F(LegacyRun, AMissingRestoreToolsImageFailsTheRunAndWritesNothing) {
    fs::remove(source() + "/RestoreTools-1.0.dmg");
    auto result = whittle(plus({source(), dir / "out"}, kPersonalized));
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(result.out, "XXX ERROR: RestoreTools \"RestoreTools-1.0.dmg\" missing from bundle.\n")) << result.out;
    EXPECT_FALSE(pathExists(dir / "out"));
}

// ---- targets: each kind, both strategies ----

struct LegacyTargetCase {
    const char* name;
    const std::vector<std::string>* request;
    const char* extension;  // "" for a folder
};

void PrintTo(const LegacyTargetCase& targetCase, std::ostream* out) { *out << targetCase.name; }

class LegacyTarget : public LegacyRun, public testing::WithParamInterface<LegacyTargetCase> {};

TEST_P(LegacyTarget, OutputHoldsExactlyTheKeptAndCreatedFiles) {
    const auto& request = *GetParam().request;
    std::set<std::string> copied, created;
    dryRunLists(request, copied, created);
    ASSERT_FALSE(copied.empty());
    EXPECT_FALSE(created.contains("WhittleCookie.plist"));
    EXPECT_TRUE(created.contains("Restore/BuildManifest.plist"));
    EXPECT_TRUE(created.contains("Restore/Restore.plist"));

    std::string extension = GetParam().extension;
    std::string target = dir / ("out" + (extension.empty() ? std::string() : "." + extension));
    auto result = whittle(plus({source(), target}, request));
    ASSERT_EQ(result.status, 0) << result.out << result.err;

    std::set<std::string> written;
    std::set<std::string> expected = united(withParentFolders(copied), withParentFolders(created));
    if (extension.empty()) {
        written = folderTree(target);
        EXPECT_FALSE(fs::exists(target + "/WhittleCookie.plist"));
        Value manifest = parsePropertyList(readFile(target + "/Restore/BuildManifest.plist"));
        for (const auto& identity : manifest.get("BuildIdentities").elements()) {
            EXPECT_EQ(identity.get("Info").get("DeviceClass").text(), "x10ap");
        }
    } else if (extension == "bom") {
        auto listing = runProgram({WHITTLE_BOM_BINARY, "--list", target});
        for (const auto& line : linesOf(listing.out)) written.insert(line);
        expected = {"."};
        for (const auto& path : copied) expected.insert("./" + path);
    } else if (extension == "zip") {
        auto listing = runProgram({"/usr/bin/unzip", "-Z1", target});
        for (auto line : linesOf(listing.out)) {
            if (!line.empty() && line.back() == '/') line.pop_back();
            written.insert(line);
        }
    } else {
        // A disk image's paths stand below its volume, named after the target.
        auto listing = runProgram({"/usr/bin/7zz", "l", "-slt", target});
        for (const auto& line : linesOf(listing.out)) {
            if (line.starts_with("Path = out/")) written.insert(line.substr(11));
        }
    }
    EXPECT_EQ(written, expected);
}

std::vector<LegacyTargetCase> targetCases() {
    std::vector<LegacyTargetCase> cases{
        {"PersonalizedFolder", &kPersonalized, ""}, {"UnpersonalizedFolder", &kUnpersonalized, ""},
        {"PersonalizedBom", &kPersonalized, "bom"}, {"UnpersonalizedBom", &kUnpersonalized, "bom"},
        {"PersonalizedZip", &kPersonalized, "zip"}, {"UnpersonalizedZip", &kUnpersonalized, "zip"},
    };
#ifdef WHITTLE_LEGACY_DMG_TARGETS
    cases.push_back({"PersonalizedDiskImage", &kPersonalized, "dmg"});
    cases.push_back({"UnpersonalizedDiskImage", &kUnpersonalized, "dmg"});
#endif
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Each, LegacyTarget, testing::ValuesIn(targetCases()),
                         [](const testing::TestParamInfo<LegacyTargetCase>& testInfo) {
                             return std::string(testInfo.param.name);
                         });

TEST_F(LegacyRun, BothStrategiesTogetherWriteOneWorkingBundle) {
    std::vector<std::string> request = plus(kPersonalized, {"--unpersonalized", "on"});
    std::set<std::string> copied, created;
    dryRunLists(request, copied, created);
    auto result = whittle(plus({source(), dir / "out"}, request));
    ASSERT_EQ(result.status, 0) << result.out;
    EXPECT_EQ(folderTree(dir / "out"), united(withParentFolders(copied), withParentFolders(created)));
    // Every file the stripped manifest names is in the stripped bundle.
    Value manifest = parsePropertyList(readFile(dir / "out/Restore/BuildManifest.plist"));
    ASSERT_EQ(manifest.get("BuildIdentities").count(), 1u);
    for (const auto& [key, entry] : *manifest.get("BuildIdentities").at(0).get("Manifest").asDictionary()) {
        Value path = entry.get("Info").get("Path");
        if (path.isString()) {
            EXPECT_TRUE(fs::exists(dir / ("out/Restore/" + std::string(path.text())))) << key;
        }
    }
    EXPECT_TRUE(fs::is_symlink(dir / "out/Restore/X10UserOS.dmg"));
    EXPECT_TRUE(fs::exists(dir / "out/Restore/kernelcache.release.soc100x"));
}

TEST_F(LegacyRun, NoSymLinksLeavesTheRestoreToolsLinkOut) {
    auto result = whittle(plus({source(), dir / "out", "--noSymLinks"}, kPersonalized));
    ASSERT_EQ(result.status, 0) << result.out;
    EXPECT_FALSE(fs::exists(fs::symlink_status(dir / "out/RestoreTools.dmg")));
    EXPECT_TRUE(fs::exists(dir / "out/RestoreTools-1.0.dmg"));
    EXPECT_FALSE(fs::exists(fs::symlink_status(dir / "out/Restore/X10UserOS.dmg")));
}

TEST_F(LegacyRun, HostileManifestPathsStayInsideTheBundleAndTheTarget) {
    writeFile(dir / "secret.txt", "secret");
    Value manifest = parsePropertyList(readFile(source() + "/Restore/BuildManifest.plist"));
    for (const auto& identity : manifest.get("BuildIdentities").elements()) {
        identity.get("Manifest").get("LLB").get("Info").set("Path", Value::string("../../secret.txt"));
        identity.get("Info").get("VariantContents").set("SystemImage", Value::string("/../../../escaped"));
    }
    writeFile(source() + "/Restore/BuildManifest.plist", xmlPropertyList(manifest));
    auto result = whittle(plus({source(), dir / "out"}, kPersonalized));
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(result.out, "!!! WARNING: BuildManifest.plist item \"Restore/../../secret.txt\" missing from bundle.\n"))
        << result.out;
    EXPECT_TRUE(contains(result.out, "XXX ERROR: unable to create symlink - the path leads outside the target.\n")) << result.out;
    EXPECT_FALSE(pathExists(dir / "out"));
    EXPECT_FALSE(pathExists(dir / "escaped.dmg"));
    EXPECT_EQ(readFile(dir / "secret.txt"), "secret");
}
