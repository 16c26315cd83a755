// Runs the built whittle on generated bundles: validation, report modes, dry runs.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "BundleGenerator.hpp"
#include "TestSupport.hpp"
#include "engine/Catalogue.hpp"
#include "support/PlistCodec.hpp"

using namespace whittle;
using namespace whittle::test;

namespace {


class WhittleRun : public testing::Test {
protected:
    void SetUp() override { removeWhittleLog(); }

    std::string bundle(const std::vector<std::pair<std::string, std::vector<std::string>>>& products) {
        bundlegen::BundlePlan plan;
        for (const auto& [product, variants] : products) {
            bundlegen::ProductPlan productPlan;
            productPlan.product = product;
            productPlan.factoryVariants = variants;
            plan.products.push_back(productPlan);
        }
        bundlegen::generateBundle(dir / "bundle", plan);
        return dir / "bundle";
    }

    static RunOptions onTerminal() {
        RunOptions options;
        options.stderrOnTerminal = true;
        return options;
    }

    // The property list at the start of standard output.
    static Value reportOf(const std::string& out) {
        auto end = out.find("</plist>");
        return end == std::string::npos ? Value() : parsePropertyList(out.substr(0, end + 8));
    }

    TempDir dir;
};

}  // namespace

TEST_F(WhittleRun, ValidationPasses) {
    std::string source = bundle({{"x10", {"repair"}}});
    auto result = runWhittle({source, "--product", "x10", "--factory", "repair"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "Validation PASSED.\n");
    EXPECT_TRUE(contains(readWhittleLog(), ">>> analyzing bundle.\n"));
    EXPECT_TRUE(contains(readWhittleLog(), "Validation PASSED.\n"));
}

TEST_F(WhittleRun, ValidationFailsForAVariantTheBundleLacks) {
    std::string source = bundle({{"x10", {"repair"}}});
    auto result = runWhittle({source, "--product", "x10", "--factory", "swdl"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "XXX ERROR: variants swdl not found.\nValidation FAILED.\nXXX ERROR: log file in /tmp/Whittle.log\n");
}

TEST_F(WhittleRun, VerdictIsColouredWhenStandardErrorIsATerminal) {
    std::string source = bundle({{"x10", {"repair"}}});
    auto passed = runWhittle({source, "--product", "x10", "--factory", "repair"}, onTerminal());
    EXPECT_EQ(passed.out, "\x1b[37m\x1b[42mValidation PASSED.\n\x1b[0m\x1b[0m");
    EXPECT_EQ(passed.err, "");
    auto failed = runWhittle({source, "--product", "x30", "--factory", "repair"}, onTerminal());
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.out, "\x1b[37m\x1b[41mValidation FAILED.\n\x1b[0m\x1b[0m");
    EXPECT_EQ(failed.err, "\x1b[31mXXX ERROR: products x30 not found.\n\x1b[0m"
                          "\x1b[31mXXX ERROR: log file in /tmp/Whittle.log\n\x1b[0m");
}

TEST_F(WhittleRun, ValidProductsReport) {
    std::string source = bundle({{"x30", {"repair"}}, {"x10", {"repair"}}});
    auto result = runWhittle({source, "--validProducts"});
    EXPECT_EQ(result.status, 0);
    Value report = reportOf(result.out);
    EXPECT_TRUE(report.get("validProducts").equals(Value::stringArray({"x10", "x30"}))) << result.out;
    EXPECT_TRUE(result.out.ends_with("</plist>\n\n"));
    EXPECT_TRUE(whittleLogExists());
}

TEST_F(WhittleRun, ValidProductsReportFailsWithoutProducts) {
    std::string source = bundle({});
    auto result = runWhittle({source, "--validproducts"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "XXX ERROR: cannot get valid products.\nXXX ERROR: log file in /tmp/Whittle.log\n");
}

TEST_F(WhittleRun, ValidVariantsReport) {
    std::string source = bundle({{"x10", {"cti", "ss", "dfu"}}, {"x30", {"repair"}}});
    auto result = runWhittle({source, "--validVariants", "--product", "x10"});
    EXPECT_EQ(result.status, 0);
    Value report = reportOf(result.out);
    EXPECT_TRUE(report.get("validProducts").equals(Value::stringArray({"x10", "x30"})));
    EXPECT_TRUE(report.get("validVariants").equals(Value::stringArray({"cti", "dfu", "ss"}))) << result.out;
}

TEST_F(WhittleRun, ValidVariantsChangesAnUnsupportedProductToTheFirstValidOne) {
    std::string source = bundle({{"x30", {"repair"}}, {"x10", {"dfu"}}});
    auto result = runWhittle({source, "--validvariants", "--product", "x20"});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(result.out.starts_with(">>> NOTE changing products to (\n    x10\n)\n<?xml")) << result.out;
    Value report = reportOf(result.out.substr(result.out.find("<?xml")));
    EXPECT_TRUE(report.get("validVariants").equals(Value::stringArray({"dfu"}))) << result.out;
    EXPECT_TRUE(contains(readWhittleLog(), ">>> NOTE changing products to (\n    x10\n)\n"));
    auto withoutProduct = runWhittle({source, "--validvariants"});
    EXPECT_TRUE(withoutProduct.out.starts_with(">>> NOTE changing products to (\n    x10\n)\n<?xml")) << withoutProduct.out;
}

TEST_F(WhittleRun, DryRunListsFilesToCopyAndCreate) {
    std::string source = bundle({{"x10", {"repair"}}});
    auto result = runWhittle({source, "--product", "x10", "--factory", "repair", "--dryrun"});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(result.out.starts_with("Files to be copied:\n\tFactoryDiskImage.dmg\n")) << result.out;
    EXPECT_TRUE(contains(result.out, "\tRestore/X10AP-repairshippingsettings-0-os.dmg\n"));
    EXPECT_TRUE(contains(result.out, "\n\nFiles to be created:\n\tRestore/BuildManifest.plist\t\t=\n{\n"));
    EXPECT_TRUE(contains(result.out, "\tRestore/Firmware/target_map.txt\t\t=\n\"x10\tx10ap\n\"\n"));
    EXPECT_TRUE(contains(result.out, "\tRestore/X10UserOS.dmg\t\t->\tX10AP-repairshippingsettings-0-os.dmg\n"));
    EXPECT_TRUE(contains(result.out, "\tWhittleCookie.plist\t\t=\n{\n    rawArguments =     (\n"));
    EXPECT_TRUE(result.out.ends_with("}\nValidation PASSED.\n"));
    EXPECT_FALSE(contains(result.out, "\t.DS_Store\n"));
}

TEST_F(WhittleRun, DryRunLeavesAnExistingTargetAlone) {
    std::string source = bundle({{"x10", {"repair"}}});
    writeFile(dir / "target/keep.txt", "mine");
    auto result = runWhittle({source, dir / "target", "--product", "x10", "--factory", "repair", "--dryrun", "--ov"});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(result.out.ends_with("Validation PASSED.\n"));
    EXPECT_EQ(readFile(dir / "target/keep.txt"), "mine");
    int entries = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(dir / "target")) ++entries;
    EXPECT_EQ(entries, 1);
}

TEST_F(WhittleRun, DryRunAfterAFailedStripStillLists) {
    std::string source = bundle({{"x10", {"repair"}}});
    auto result = runWhittle({source, "--product", "x10", "--factory", "cti", "--dryrun"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(result.out, "Files to be copied:\n\nFiles to be created:\n")) << result.out;
    EXPECT_TRUE(contains(result.out, "Validation FAILED.\n"));
}

TEST_F(WhittleRun, VerboseShowsTheWorkListAndEveryBanner) {
    std::string source = bundle({{"x10", {"repair"}}});
    auto result = runWhittle({source, "--product", "x10", "--factory", "repair", "--verbose"});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(contains(result.out, ">>> Work List\n0:\n\tworkDeviceClasses:\n\t\t0: x10ap\n")) << result.out;
    EXPECT_TRUE(contains(result.out, ">>> ==========  1/ 6 Strip Restore and BuildManifest.plist for x10 repair. ==========\n"));
    EXPECT_TRUE(contains(result.out, ">>> ==========  6/ 6 Leaving cookie for Santa ==========\n+++ Oreo's left.  No milk.\n"));
}

TEST_F(WhittleRun, TestPassWritesTimestampedDiagnosticsAndGoesOn) {
    std::string source = bundle({{"x10", {"repair"}}});
    auto result = runWhittle({source, "--product", "x10", "--factory", "repair", "--doTest"});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(std::regex_search(result.err, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} whittle\[\d+\] test: validProducts x10\n)")))
        << result.err;
    EXPECT_TRUE(contains(result.err, "test: validVariants repair\n"));
    EXPECT_TRUE(contains(result.err, "test: strip returned 0\n"));
    EXPECT_TRUE(contains(result.err, "test: strippedManifest: (\n"));
    EXPECT_EQ(result.out, "Validation PASSED.\n");
}

TEST_F(WhittleRun, DamagedManifestsFailCleanly) {
    std::string source = bundle({{"x10", {"repair"}}});
    std::string manifest = readFile(source + "/Restore/BuildManifest.plist");
    writeFile(source + "/Restore/BuildManifest.plist", manifest.substr(0, manifest.size() / 2));
    auto result = runWhittle({source, "--product", "x10", "--factory", "repair"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "XXX ERROR: BuildManifest.plist cannot be read.\nValidation FAILED.\nXXX ERROR: log file in /tmp/Whittle.log\n");

    writeFile(source + "/Restore/BuildManifest.plist", manifest);
    writeFile(source + "/Restore/Restore.plist", "<?xml version=\"1.0\"?><plist><array>");
    result = runWhittle({source, "--product", "x10", "--factory", "repair"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(result.out, "XXX ERROR: Restore.plist cannot be read.\n"));
}

class WhittleEachVariant : public WhittleRun, public testing::WithParamInterface<std::string> {};

TEST_P(WhittleEachVariant, ValidatesAndDryRuns) {
    const std::string& variant = GetParam();
    bundlegen::BundlePlan plan;
    plan.products = {{"x10", true, false, {variant}, 1, true}};
    bundlegen::generateBundle(dir / "bundle", plan);
    auto validation = runWhittle({dir / "bundle", "--product", "x10", "--factory", variant});
    EXPECT_EQ(validation.status, 0) << validation.out;
    EXPECT_EQ(validation.out, "Validation PASSED.\n");
    // A variant without firmware kinds ("support") can never pass an unpersonalized check.
    bool hasFirmwareTypes = !Catalogue::builtIn().factoryVariantValue(variant + ".FirmwareTypes").isNone();
    auto result = runWhittle({dir / "bundle", "--product", "x10", "--factory", variant, "--dryrun", "--unpersonalized",
                              hasFirmwareTypes ? "on" : "off"});
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_TRUE(result.out.ends_with("Validation PASSED.\n"));
    std::string osImage = "\tRestore/" + bundlegen::systemImageName("x10ap", bundlegen::personalizationOf(variant), 0) + "\n";
    bool installsOS = !bundlegen::osImageTypeOf(variant).empty();
    EXPECT_EQ(contains(result.out, osImage), installsOS) << osImage;
}

INSTANTIATE_TEST_SUITE_P(Catalogue, WhittleEachVariant,
                         testing::ValuesIn(Catalogue::builtIn().knownFactoryVariants()),
                         [](const testing::TestParamInfo<std::string>& param) {
                             std::string name;
                             for (char c : param.param) name += (c == '-') ? '_' : c;
                             return name;
                         });

TEST_F(WhittleRun, SupportVariantFailsTheUnpersonalizedCheck) {
    bundlegen::BundlePlan plan;
    plan.products = {{"x10", true, false, {"support"}, 1, true}};
    bundlegen::generateBundle(dir / "bundle", plan);
    auto result = runWhittle({dir / "bundle", "--product", "x10", "--factory", "support", "--unpersonalized", "on"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(result.out, "XXX ERROR no matching all_flash found in bundle for x10, .\nValidation FAILED.\n"));
}
