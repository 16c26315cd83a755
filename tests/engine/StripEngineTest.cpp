// The base both engines derive from, through a small engine of its own that records
// every hook it is asked to answer.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "BundleFixture.hpp"
#include "MemoryBundleFiles.hpp"
#include "engine/StripEngine.hpp"
#include "support/Helpers.hpp"

namespace whittle::test {
namespace {

template <bool ReportsLeftOut>
class RecordingEngine : public StripEngine<RecordingEngine<ReportsLeftOut>> {
    using Base = StripEngine<RecordingEngine<ReportsLeftOut>>;

public:
    static constexpr EngineStyle style{.bundleRootKey = "Root", .productsKey = "Asked", .reportsLeftOut = ReportsLeftOut};

    RecordingEngine(std::shared_ptr<const BundleFiles> files, const Value& products, const Value& factoryVariants,
                    const Value& options)
        : Base(std::move(files), products, factoryVariants, options) {}

    void setWorkList(Value list) { this->workList_ = std::move(list); }

    // ---- the hooks the base calls ----
    int stripFirmwareMap(const Value& item, FirmwareMap map) {
        record(format("map %d", static_cast<int>(map)), item);
        return 0;
    }
    std::vector<std::string> submanifestStartingAt(const std::string& folder, bool deep) {
        calls.push_back(format("list %@%s", folder, deep ? " deep" : ""));
        return listings[folder];
    }
    void keepPaths(const std::vector<std::string>& paths) { kept.push_back(paths); }
    void recordModifiedFile(const std::string& path, const Value& content) { modified.set(path, content); }
    bool bundleLists(const std::string& path) const { return listed.contains(path); }

    // ---- steps of its own, two of them among the common ones ----
    int stripFWPKs(const Value& item) { return record("stripFWPKs", item); }
    int stripRestoreTools(const Value& item) { return record("stripRestoreTools", item); }
    int stripInvisibles() { return record("stripInvisibles", Value()); }
    int guessTools(const Value&) { return this->fallBackOnRootImages(rootNames); }

    std::vector<std::string> calls;
    std::vector<Value> itemsSeen;
    std::map<std::string, int> results;  // by step name; 0 when absent
    std::map<std::string, std::vector<std::string>> listings;
    std::vector<std::vector<std::string>> kept;
    Value modified = Value::dictionary();
    std::set<std::string> listed;
    std::vector<std::string> rootNames;

private:
    int record(const std::string& step, const Value& item) {
        calls.push_back(step);
        itemsSeen.push_back(item);
        return results[step];
    }
};

using QuietEngine = RecordingEngine<false>;
using ReportingEngine = RecordingEngine<true>;

class StripEngineTest : public BundleFixture {
protected:
    template <typename Engine = QuietEngine>
    std::unique_ptr<Engine> engine(const Value& options = Value::dictionary()) {
        return std::make_unique<Engine>(files, Value::stringArray({"x10"}), Value(), options);
    }

    static Value item(const char* name, const char* selector) {
        Value item = Value::dictionary();
        item.set("workName", Value::string(name));
        item.set("workSelector", Value::string(selector));
        return item;
    }

    std::shared_ptr<MemoryBundleFiles> files = std::make_shared<MemoryBundleFiles>("/memory/root");
};

TEST_F(StripEngineTest, OperationNamedAnswersTheSharedStepsAndOnlyTheEnginesOwn) {
    auto quiet = engine();
    Value workItem = item("Targets", "stripRestoreFirmwareTargetMapDotTxt:");
    for (const char* selector : {"leaveCookie:", "stripSDKs:", "stripFWPKs:", "stripInvisibles:",
                                 "stripRestoreFirmwareTargetMapDotTxt:"}) {
        EXPECT_NE(QuietEngine::operationNamed(selector), nullptr) << selector;
    }
    // A step that reads its item is handed the work item; one that does not is run all the same.
    QuietEngine::operationNamed("stripRestoreFirmwareTargetMapDotTxt:")(*quiet, workItem);
    QuietEngine::operationNamed("stripInvisibles:")(*quiet, workItem);
    EXPECT_EQ(quiet->calls, (std::vector<std::string>{"map 2", "stripInvisibles"}));
    EXPECT_EQ(quiet->itemsSeen.front().get("workName").text(), "Targets");
    EXPECT_TRUE(quiet->itemsSeen.back().isNone());
    // Steps this engine has no operation for, a name without its colon, and no name.
    EXPECT_TRUE(QuietEngine::operationNamed("stripFactoryDiskImage:") == nullptr);
    EXPECT_TRUE(QuietEngine::operationNamed("mergeModifiedFiles:") == nullptr);
    EXPECT_TRUE(QuietEngine::operationNamed("stripFWPKs") == nullptr);
    EXPECT_TRUE(QuietEngine::operationNamed("") == nullptr);
}

TEST_F(StripEngineTest, ConstructionFilesTheRequestUnderTheEnginesKeysAndCopiesTheOptions) {
    Value asked = options({"keepDebug"});
    auto quiet = engine(asked);
    asked.set("noCookie", Value::boolean(true));
    EXPECT_EQ(quiet->stripInfo().get("Root").text(), "/memory/root");
    EXPECT_TRUE(quiet->stripInfo().get("Asked").equals(Value::stringArray({"x10"})));
    EXPECT_TRUE(quiet->stripInfo().get("FactoryVariants").isNone());
    EXPECT_EQ(quiet->stripInfo().count(), 2u);
    EXPECT_EQ(quiet->bundleRoot().text(), "/memory/root");
    EXPECT_TRUE(quiet->stripOptions().get("noCookie").isNone());
    EXPECT_TRUE(boolForKey(quiet->stripOptions(), "keepDebug"));
}

TEST_F(StripEngineTest, FactoriesMakeTheEngineOverAFolderOrTheGivenBundle) {
    auto overFolder = QuietEngine::stripperForPath("/some/folder", Value(), Value(), Value());
    ASSERT_NE(overFolder, nullptr);
    EXPECT_EQ(overFolder->bundleRoot().text(), "/some/folder");
    auto overBundle = QuietEngine::stripperForBundle(files, Value(), Value(), Value());
    ASSERT_NE(overBundle, nullptr);
    EXPECT_EQ(overBundle->bundleRoot().text(), "/memory/root");
}

TEST_F(StripEngineTest, PerformWorkRunsTheItemsInOrderUnderTheirBanners) {
    auto quiet = engine();
    quiet->setWorkList(Value::array({item("Keys", "stripFWPKs:"), item("Tools", "stripRestoreTools:")}));
    int result = -1;
    std::string log = loggedDuring([&] { result = quiet->performWork(); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(quiet->calls, (std::vector<std::string>{"stripFWPKs", "stripRestoreTools"}));
    EXPECT_EQ(log, ">>> ==========  1/ 2 Keys ==========\n>>> ==========  2/ 2 Tools ==========\n");
}

TEST_F(StripEngineTest, PerformWorkStopsAtTheFirstFailureAndAnswersIt) {
    auto quiet = engine();
    quiet->results["stripFWPKs"] = 7;
    quiet->setWorkList(Value::array({item("Tools", "stripRestoreTools:"), item("Keys", "stripFWPKs:"),
                                     item("Invisibles", "stripInvisibles:")}));
    int result = -1;
    loggedDuring([&] { result = quiet->performWork(); });
    EXPECT_EQ(result, 7);
    EXPECT_EQ(quiet->calls, (std::vector<std::string>{"stripRestoreTools", "stripFWPKs"}));
}

TEST_F(StripEngineTest, PerformWorkRefusesAStepTheEngineLacks) {
    auto quiet = engine();
    quiet->setWorkList(Value::array({item("Disk image", "stripFactoryDiskImage:"), item("Keys", "stripFWPKs:")}));
    int result = -1;
    std::string log = loggedDuring([&] { result = quiet->performWork(); });
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(quiet->calls.empty());
    EXPECT_TRUE(contains(log, "XXX ERROR: no operation stripFactoryDiskImage:.\n")) << log;
}

TEST_F(StripEngineTest, CommonWorkTakesTheStepsTheEngineHasInOrderEachOnItsOwnCopy) {
    auto quiet = engine(options({"keepDebug", "keepBundleImages"}));
    Value closing = item("Support files", "stripCommonWork:");
    EXPECT_EQ(quiet->stripCommonWork(closing), 0);
    EXPECT_EQ(quiet->calls, (std::vector<std::string>{"map 0", "map 1", "map 2", "map 3", "stripFWPKs", "list Debug",
                                                      "list BundleImages", "stripRestoreTools"}));
    ASSERT_EQ(quiet->itemsSeen.size(), 6u);
    for (const auto& seen : quiet->itemsSeen) {
        EXPECT_FALSE(seen.sameObject(closing));
        EXPECT_EQ(seen.get("workName").text(), "Support files");
    }
    EXPECT_FALSE(quiet->itemsSeen[0].sameObject(quiet->itemsSeen[1]));
}

TEST_F(StripEngineTest, CommonWorkStopsAtTheFirstFailingStep) {
    auto quiet = engine();
    quiet->results["stripFWPKs"] = 3;
    EXPECT_EQ(quiet->stripCommonWork(item("Support files", "stripCommonWork:")), 3);
    EXPECT_EQ(quiet->calls.back(), "stripFWPKs");
}

TEST_F(StripEngineTest, AnOptionalFolderIsKeptWithItsListingWhenAsked) {
    auto quiet = engine(options({"keepDebug"}));
    quiet->listings["Debug"] = {"Debug/a", "Debug/b"};
    EXPECT_EQ(loggedDuring([&] { quiet->stripDebugFolder(); }), "+++ Debug folder found 2 items.\n");
    EXPECT_EQ(quiet->kept, (std::vector<std::vector<std::string>>{{"Debug/a", "Debug/b"}}));
}

TEST_F(StripEngineTest, AnEmptyOptionalFolderIsHandedOnEmptyAndUnreported) {
    auto reporting = engine<ReportingEngine>(options({"keepBundleImages"}));
    EXPECT_EQ(loggedDuring([&] { reporting->stripBundleImages(); }), "");
    EXPECT_EQ(reporting->kept, (std::vector<std::vector<std::string>>{{}}));
}

TEST_F(StripEngineTest, AFolderNotAskedForIsNeitherListedNorReportedByAQuietEngine) {
    auto quiet = engine();
    quiet->listings["Debug"] = {"Debug/a"};
    EXPECT_EQ(loggedDuring([&] { quiet->stripDebugFolder(); }), "");
    EXPECT_TRUE(quiet->calls.empty());
    EXPECT_TRUE(quiet->kept.empty());
}

TEST_F(StripEngineTest, AFolderNotAskedForIsReportedByAReportingEngine) {
    auto reporting = engine<ReportingEngine>();
    reporting->listings["Debug"] = {"Debug", "Debug/a", "Debug/b"};
    EXPECT_EQ(loggedDuring([&] { reporting->stripDebugFolder(); }), "--- Debug folder scrub 3 items.\n");
    EXPECT_TRUE(reporting->kept.empty());
}

TEST_F(StripEngineTest, ALinkedImageIsKeptWithItsLinkWhenAsked) {
    files->file("SDK-1.dmg", "image").link(kSDKImage.link, "SDK-1.dmg");
    auto quiet = engine(options({"keepSDK"}));
    EXPECT_EQ(loggedDuring([&] { quiet->stripSDKs(); }), "+++ NonUI SDK found \"SDK-1.dmg\".\n");
    EXPECT_EQ(quiet->kept, (std::vector<std::vector<std::string>>{{"SDK-1.dmg", kSDKImage.link}}));
}

TEST_F(StripEngineTest, APlainFileUnderTheLinksNameIsNotKept) {
    files->file(kHomeDiagnosticsImage.link, "image");
    auto quiet = engine(options({"keepHomeDiagnostics"}));
    EXPECT_EQ(loggedDuring([&] { quiet->stripHomeDiags(); }), "");
    EXPECT_EQ(quiet->kept, (std::vector<std::vector<std::string>>{{}}));
}

TEST_F(StripEngineTest, ALinkedImageNotAskedForIsReportedOnlyByAReportingEngineAndOnlyWhenPresent) {
    auto absent = engine<ReportingEngine>();
    EXPECT_EQ(loggedDuring([&] { absent->stripHomeDiags(); }), "");
    absent->listed.insert(kHomeDiagnosticsImage.link);
    EXPECT_EQ(loggedDuring([&] { absent->stripHomeDiags(); }), "--- HomeDiagnostics scrub.\n");

    files->file("SDK-1.dmg", "image").link(kSDKImage.link, "SDK-1.dmg");
    EXPECT_EQ(loggedDuring([&] { engine<ReportingEngine>()->stripSDKs(); }), "--- NonUI SDK scrub.\n");
    auto quiet = engine();
    EXPECT_EQ(loggedDuring([&] { quiet->stripSDKs(); }), "");
    EXPECT_TRUE(quiet->kept.empty());
}

TEST_F(StripEngineTest, TheCookieIsLeftAmongTheModifiedFilesUnlessRefused) {
    auto quiet = engine();
    EXPECT_EQ(loggedDuring([&] { quiet->leaveCookie(); }), "+++ Oreo's left.  No milk.\n");
    EXPECT_TRUE(quiet->modified.get("WhittleCookie.plist").isDictionary());

    auto refused = engine(options({"noCookie"}));
    EXPECT_EQ(loggedDuring([&] { refused->leaveCookie(); }), "");
    EXPECT_EQ(refused->modified.count(), 0u);
}

TEST_F(StripEngineTest, ASingleUnlinkedRootImageIsTakenForTheRestoreTools) {
    files->file("Tools-1.dmg", "image");
    auto quiet = engine();
    quiet->rootNames = {"Tools-1.dmg", "Restore.plist"};
    std::string warning = whittle::guessRestoreTools({"Tools-1.dmg"}).warning;
    ASSERT_FALSE(warning.empty());
    EXPECT_EQ(loggedDuring([&] { quiet->guessTools(Value()); }), warning + "\n");
    EXPECT_EQ(quiet->kept, (std::vector<std::vector<std::string>>{{"Tools-1.dmg"}}));
    EXPECT_TRUE(quiet->modified.get(kRestoreTools).equals(Value::data("Tools-1.dmg")));
}

TEST_F(StripEngineTest, LinkedRootImagesAreNoGuessAndARestoreToolsImageInPlaceNeedsNone) {
    files->file("Tools-1.dmg", "image").link("Other.dmg", "Tools-1.dmg").file(kRestoreTools, "image");
    auto quiet = engine();
    quiet->rootNames = {"Tools-1.dmg", "Other.dmg", kRestoreTools};
    EXPECT_EQ(loggedDuring([&] { quiet->guessTools(Value()); }), "");
    EXPECT_TRUE(quiet->kept.empty());
    EXPECT_EQ(quiet->modified.count(), 0u);
}

}  // namespace
}  // namespace whittle::test
