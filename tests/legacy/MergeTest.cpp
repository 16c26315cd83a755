// Merging the work items' partial results, and the deep-merge helpers underneath.
#include "LegacyTestSupport.hpp"
#include "legacy/DeepMerge.hpp"

using namespace whittle;
using namespace whittle::test;

namespace {

class LegacyMerge : public LegacyTest {
protected:
    // Merges the lists into a fresh engine's results and answers the step's result.
    int mergeFiles(const std::vector<Value>& lists, std::string* log = nullptr) {
        stripper = engine();
        stripper->setModifiedFilesList(Value::array(ValueArray(lists.begin(), lists.end())));
        int result = -1;
        std::string said = loggedDuring([&] { result = stripper->mergeModifiedFiles(); });
        if (log) *log = said;
        return result;
    }

    static Value text(const char* content) { return Value::string(content); }

    std::unique_ptr<Stripper2> stripper;
};

}  // namespace

// ---- deep merge helpers ----

TEST_F(LegacyMerge, NestedDictionariesArraysAndSetsMergeInPlace) {
    Value mine = dict({{"a", dict({{"x", Value::integer(1)}, {"list", strings({"p", "q"})}})},
                       {"set", Value::setOf({Value::string("s1")})},
                       {"same", text("v")}});
    Value theirs = dict({{"a", dict({{"y", Value::integer(2)}, {"list", strings({"q", "r", "r"})}})},
                         {"set", Value::setOf({Value::string("s2"), Value::string("s1")})},
                         {"same", text("v")},
                         {"new", Value::array()}});
    Value innerBefore = mine.get("a");
    ASSERT_TRUE(deepMergeDictionary(mine, theirs));
    EXPECT_TRUE(mine.get("a").sameObject(innerBefore));
    EXPECT_EQ(mine.get("a").get("x").numberValue(), 1);
    EXPECT_EQ(mine.get("a").get("y").numberValue(), 2);
    EXPECT_EQ(texts(mine.get("a").get("list")), (std::vector<std::string>{"p", "q", "r"}));
    EXPECT_EQ(texts(mine.get("set")), (std::vector<std::string>{"s1", "s2"}));
    EXPECT_TRUE(mine.get("new").sameObject(theirs.get("new")));
}

TEST_F(LegacyMerge, ArraysCompareNestedContainersWhole) {
    Value mine = Value::array({dict({{"k", Value::integer(1)}}), Value::integer(7)});
    Value theirs = Value::array({dict({{"k", Value::integer(1)}}), dict({{"k", Value::integer(2)}}), Value::real(7.0)});
    ASSERT_TRUE(deepMergeArray(mine, theirs));
    ASSERT_EQ(mine.count(), 3u);
    EXPECT_EQ(mine.at(2).get("k").numberValue(), 2);
    EXPECT_TRUE(deepMergeArray(mine, mine));
    EXPECT_EQ(mine.count(), 3u);
}

TEST_F(LegacyMerge, SetsTakeWhatTheyLack) {
    Value mine = Value::setOf({Value::string("a")});
    ASSERT_TRUE(deepMergeSet(mine, Value::setOf({Value::string("b"), Value::string("a")})));
    EXPECT_EQ(texts(mine), (std::vector<std::string>{"a", "b"}));
}

TEST_F(LegacyMerge, DifferentScalarsAreRefusedWithTheirKindsAndKey) {
    Value mine = dict({{"count", Value::integer(1)}});
    std::string log = loggedDuring([&] { EXPECT_FALSE(deepMergeDictionary(mine, dict({{"count", Value::integer(2)}}))); });
    EXPECT_EQ(log, "!!! WARNING cannot merge integer->integer for key count.\n");
    EXPECT_EQ(mine.get("count").numberValue(), 1);
}

TEST_F(LegacyMerge, ContainersOfDifferentKindsAreRefused) {
    Value mine = dict({{"k", Value::array()}});
    std::string log = loggedDuring([&] { EXPECT_FALSE(deepMergeDictionary(mine, dict({{"k", Value::dictionary()}}))); });
    EXPECT_EQ(log, "!!! WARNING cannot merge dictionary->array for key k.\n");
}

TEST_F(LegacyMerge, ARefusalDeepDownStopsTheMergeAndKeepsWhatWasMerged) {
    // Keys are visited in order: "a" merges, "b" refuses deep down, "c" is never reached.
    Value mine = dict({{"a", Value::dictionary()}, {"b", dict({{"inner", text("x")}})}});
    Value theirs = dict({{"a", dict({{"added", text("1")}})}, {"b", dict({{"inner", text("y")}})}, {"c", text("late")}});
    std::string log = loggedDuring([&] { EXPECT_FALSE(deepMergeDictionary(mine, theirs)); });
    EXPECT_EQ(log, "!!! WARNING cannot merge string->string for key inner.\n");
    EXPECT_EQ(mine.get("a").get("added").text(), "1");
    EXPECT_TRUE(mine.get("c").isNone());
}

TEST_F(LegacyMerge, EqualValuesOfTheSameKeyAgree) {
    Value mine = dict({{"n", Value::integer(1)}, {"d", Value::data("ab")}, {"t", text("s")}});
    EXPECT_TRUE(deepMergeDictionary(mine, dict({{"n", Value::real(1.0)}, {"d", Value::data("ab")}, {"t", text("s")}})));
    EXPECT_TRUE(deepMergeDictionary(mine, mine));
}

// ---- merging stripped manifests ----

TEST_F(LegacyMerge, KeptPathsStandOnceSortedWithoutRegardToCase) {
    auto merger = engine();
    merger->setStrippedManifestsList(Value::array({strings({"Restore/b.dmg", "Restore", "Restore/a.dmg"}),
                                                   strings({"Restore/B.dmg", "Restore", "Restore/a.dmg"}), Value::array()}));
    int result = -1;
    std::string log = loggedDuring([&] { result = merger->mergeStrippedManifests(); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(texts(merger->strippedManifest()), (std::vector<std::string>{"Restore", "Restore/a.dmg", "Restore/B.dmg", "Restore/b.dmg"}));
    EXPECT_EQ(log,
              "||| merging  1/ 3 stripped manifests.\n"
              "||| merging  2/ 3 stripped manifests.\n"
              "||| merging  3/ 3 stripped manifests.\n");
}

TEST_F(LegacyMerge, NoKeptPathsMakeAnEmptyManifest) {
    auto merger = engine();
    EXPECT_EQ(merger->mergeStrippedManifests(), 0);
    EXPECT_TRUE(merger->strippedManifest().isArray());
    EXPECT_EQ(merger->strippedManifest().count(), 0u);
}

// ---- merging modified files ----

TEST_F(LegacyMerge, TwoRestorePlistsUniteTheirEntriesAndArrays) {
    Value first = dict({{"Restore/Restore.plist",
                         dict({{"KernelCachesByTarget", dict({{"x10", dict({{"Release", text("kc.r")}})}})},
                               {"SupportedProductTypes", strings({"A", "B"})}})}});
    Value second = dict({{"Restore/Restore.plist",
                          dict({{"KernelCachesByTarget", dict({{"x10", dict({{"Development", text("kc.d")}})}})},
                                {"SupportedProductTypes", strings({"C", "B"})}})}});
    std::string log;
    ASSERT_EQ(mergeFiles({first, second}, &log), 0);
    Value merged = stripper->modifiedFiles().get("Restore/Restore.plist");
    EXPECT_EQ(keysSortedIgnoringCase(merged.get("KernelCachesByTarget").get("x10")),
              (std::vector<std::string>{"Development", "Release"}));
    EXPECT_EQ(texts(merged.get("SupportedProductTypes")), (std::vector<std::string>{"A", "B", "C"}));
    EXPECT_EQ(log,
              "||| merging  1/ 2 modified file lists.\n"
              "+++ adding plist Restore/Restore.plist.\n"
              "||| merging  2/ 2 modified file lists.\n"
              "||| merging plist Restore/Restore.plist.\n");
}

TEST_F(LegacyMerge, ConflictingNumbersFailTheMerge) {
    Value first = dict({{"Restore/Restore.plist", dict({{"Version", Value::integer(1)}})}});
    Value second = dict({{"Restore/Restore.plist", dict({{"Version", Value::integer(2)}})}});
    std::string log;
    EXPECT_EQ(mergeFiles({first, second}, &log), 1);
    EXPECT_TRUE(log.ends_with("||| merging plist Restore/Restore.plist.\n"
                              "!!! WARNING cannot merge integer->integer for key Version.\n"
                              "XXX ERROR: Cannot merge dictionaries at Restore/Restore.plist.\n"))
        << log;
    EXPECT_TRUE(stripper->modifiedFiles().isNone());
}

TEST_F(LegacyMerge, ContainedTextStaysAndOtherTextIsAppendedOnItsOwnLine) {
    ASSERT_EQ(mergeFiles({dict({{"t", text("a\nb")}}), dict({{"t", text("b")}})}), 0);
    EXPECT_EQ(stripper->modifiedFiles().get("t").text(), "a\nb");
    ASSERT_EQ(mergeFiles({dict({{"t", text("a")}}), dict({{"t", text("c")}})}), 0);
    EXPECT_EQ(stripper->modifiedFiles().get("t").text(), "a\nc\n");
    ASSERT_EQ(mergeFiles({dict({{"t", text("a")}}), dict({{"t", text("")}})}), 0);
    EXPECT_EQ(stripper->modifiedFiles().get("t").text(), "a\n");
    ASSERT_EQ(mergeFiles({dict({{"t", text("")}}), dict({{"t", text("c\n")}})}), 0);
    EXPECT_EQ(stripper->modifiedFiles().get("t").text(), "c\n");
}

TEST_F(LegacyMerge, DifferentLinkTargetsWarnAndTheFirstStays) {
    std::string log;
    ASSERT_EQ(mergeFiles({dict({{"Restore/X.dmg", Value::data("one.dmg")}}), dict({{"Restore/X.dmg", Value::data("two.dmg")}}),
                          dict({{"Restore/X.dmg", Value::data("one.dmg")}})},
                         &log),
              0);
    EXPECT_EQ(stripper->modifiedFiles().get("Restore/X.dmg").asData()->bytes, "one.dmg");
    EXPECT_TRUE(contains(log, "+++ adding symlink Restore/X.dmg.\n"));
    EXPECT_TRUE(contains(log, "||| merging symlink Restore/X.dmg.\n!!! WARNING: multiple values to create symlink Restore/X.dmg.\n"));
    EXPECT_EQ(log.find("multiple values"), log.rfind("multiple values"));
}

TEST_F(LegacyMerge, MixedKindsAtOnePathFailTheMerge) {
    std::string log;
    EXPECT_EQ(mergeFiles({dict({{"f", text("text")}}), dict({{"f", Value::dictionary()}})}, &log), 1);
    EXPECT_TRUE(log.ends_with("||| merging plist f.\nXXX ERROR: Cannot merge modified files at f.\n")) << log;
    EXPECT_TRUE(stripper->modifiedFiles().isNone());
    EXPECT_EQ(mergeFiles({dict({{"f", Value::data("t")}}), dict({{"f", text("t")}})}), 1);
    EXPECT_EQ(mergeFiles({dict({{"f", Value::integer(1)}}), dict({{"f", Value::integer(1)}})}, &log), 1);
    EXPECT_TRUE(contains(log, "+++ adding file f.\n||| merging  2/ 2 modified file lists.\n||| merging file f.\n"));
}

TEST_F(LegacyMerge, AnEmptyListMakesEmptyModifiedFiles) {
    ASSERT_EQ(mergeFiles({}), 0);
    EXPECT_TRUE(stripper->modifiedFiles().isDictionary());
    EXPECT_EQ(stripper->modifiedFiles().count(), 0u);
}

TEST_F(LegacyMerge, PathsNewToTheMergeAreTakenOverAsTheyAre) {
    Value plist = dict({{"k", text("v")}});
    ASSERT_EQ(mergeFiles({dict({{"p", plist}, {"q", text("x")}})}), 0);
    EXPECT_TRUE(stripper->modifiedFiles().get("p").sameObject(plist));
    EXPECT_EQ(stripper->modifiedFiles().count(), 2u);
}

TEST(DeepMergeArray, AppendsOnlyWhatIsMissingByDeepEqualityInOrder) {
    auto identity = [](int n) {
        Value info = Value::dictionary();
        info.set("DeviceClass", Value::string("x" + std::to_string(n)));
        Value entry = Value::dictionary();
        entry.set("Info", info);
        entry.set("Number", Value::integer(n));
        return entry;
    };
    Value merged = Value::array();
    Value first = Value::array();
    Value second = Value::array();
    for (int i = 0; i < 6000; ++i) first.append(identity(i));
    for (int i = 3000; i < 9000; ++i) second.append(identity(i).deepCopy());
    ASSERT_TRUE(deepMergeArray(merged, first));
    ASSERT_TRUE(deepMergeArray(merged, second));
    ASSERT_TRUE(deepMergeArray(merged, merged));
    ASSERT_EQ(merged.count(), 9000u);
    for (int i = 0; i < 9000; i += 1499) EXPECT_TRUE(merged.at(i).equals(identity(i))) << i;
    EXPECT_TRUE(merged.at(6000).sameObject(second.at(3000)));
}

TEST(DeepMergeSet, AddsTheMissingMembersOfLargeSets) {
    Value set = Value::setOf();
    Value other = Value::setOf();
    for (int i = 0; i < 20000; ++i) set.addToSet(Value::string("a" + std::to_string(i)));
    for (int i = 10000; i < 30000; ++i) other.addToSet(Value::string("a" + std::to_string(i)));
    ASSERT_TRUE(deepMergeSet(set, other));
    ASSERT_EQ(set.count(), 30000u);
    EXPECT_EQ(set.elements()[29999].text(), "a29999");
}
