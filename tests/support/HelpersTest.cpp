#include <gtest/gtest.h>

#include "support/Helpers.hpp"

using namespace whittle;

TEST(NiceDescription, EmptyArrayIsEmpty) { EXPECT_EQ(niceDescription(ValueArray{}), ""); }

TEST(NiceDescription, JoinsWithCommaAndSpace) {
    EXPECT_EQ(niceDescription(Value::stringArray({"a", "b"})), "a, b");
    EXPECT_EQ(niceDescription(Value::array({Value::string("x"), Value::integer(3)})), "x, 3");
}

TEST(NiceDescription, EmptyFirstElementLeavesNoSeparator) {
    EXPECT_EQ(niceDescription(Value::stringArray({"", "a"})), "a");
    EXPECT_EQ(niceDescription(Value::stringArray({"a", "", "b"})), "a, , b");
}

TEST(NiceDescription, SetsInTheirOwnOrder) {
    EXPECT_EQ(niceDescription(Value::setOf({Value::string("z"), Value::string("a")})), "z, a");
    EXPECT_EQ(niceDescription(Value::string("not a collection")), "");
}

TEST(NiceDescription, RangesOfStrings) {
    EXPECT_EQ(niceDescriptionOfStrings(std::vector<std::string>{"", "a", "b"}), "a, b");
}

TEST(BoolForKey, StringsAreTrueOnlyWhenTheyBeginWithY) {
    Value options = Value::dictionary();
    options.set("no", Value::string("no"));
    options.set("Yes", Value::string("Yes"));
    options.set("yeah", Value::string("yeah"));
    options.set("true", Value::string("true"));
    options.set("TRUE", Value::string("TRUE"));
    options.set("one", Value::string("1"));
    options.set("empty", Value::string(""));
    EXPECT_FALSE(boolForKey(options, "no"));
    EXPECT_TRUE(boolForKey(options, "Yes"));
    EXPECT_TRUE(boolForKey(options, "yeah"));
    EXPECT_FALSE(boolForKey(options, "true"));
    EXPECT_FALSE(boolForKey(options, "TRUE"));
    EXPECT_FALSE(boolForKey(options, "one"));
    EXPECT_FALSE(boolForKey(options, "empty"));
}

TEST(BoolForKey, NumbersBooleansAndOtherKinds) {
    Value options = Value::dictionary();
    options.set("two", Value::integer(2));
    options.set("zero", Value::integer(0));
    options.set("half", Value::real(0.5));
    options.set("yes", Value::boolean(true));
    options.set("off", Value::boolean(false));
    options.set("list", Value::stringArray({"YES"}));
    options.set("dict", Value::dictionary());
    options.set("data", Value::data("Y"));
    EXPECT_TRUE(boolForKey(options, "two"));
    EXPECT_FALSE(boolForKey(options, "zero"));
    EXPECT_TRUE(boolForKey(options, "half"));
    EXPECT_TRUE(boolForKey(options, "yes"));
    EXPECT_FALSE(boolForKey(options, "off"));
    EXPECT_FALSE(boolForKey(options, "list"));
    EXPECT_FALSE(boolForKey(options, "dict"));
    EXPECT_FALSE(boolForKey(options, "data"));
}

TEST(BoolForKey, MissingKeyNoneKeyAndNoDictionary) {
    Value options = Value::dictionary();
    EXPECT_FALSE(boolForKey(options, "missing"));
    EXPECT_FALSE(boolForKey(options, static_cast<const std::string*>(nullptr)));
    EXPECT_FALSE(boolForKey(Value(), "anything"));
}

TEST(PrefixSuffix, CaseInsensitiveSuffix) {
    EXPECT_TRUE(hasSuffix("Disk.DMG", ".dmg", kCaseInsensitiveSearch));
    EXPECT_FALSE(hasSuffix("Disk.DMG", ".dmg", kLiteralSearch));
    EXPECT_FALSE(hasSuffix("dmg", ".dmg", kCaseInsensitiveSearch));
    EXPECT_TRUE(hasSuffix("a.dmg", "a.dmg", kCaseInsensitiveSearch));
}

TEST(PrefixSuffix, EmptyCandidateIsNeverAPrefixOrSuffix) {
    EXPECT_FALSE(hasPrefix("abc", "", kCaseInsensitiveSearch));
    EXPECT_FALSE(hasSuffix("abc", "", kCaseInsensitiveSearch));
    EXPECT_FALSE(hasPrefix("", "", kLiteralSearch));
}

TEST(PrefixSuffix, Prefixes) {
    EXPECT_TRUE(hasPrefix("Restore/Firmware", "restore/", kCaseInsensitiveSearch));
    EXPECT_FALSE(hasPrefix("Restore/Firmware", "restore/", kLiteralSearch));
    EXPECT_FALSE(hasPrefix("ab", "abc", kCaseInsensitiveSearch));
}

TEST(CaseInsensitive, CompareAndSort) {
    EXPECT_EQ(compareIgnoringCase("Restore/a.dmg", "Restore/B.dmg"), -1);
    EXPECT_EQ(compareIgnoringCase("ABC", "abc"), 0);
    EXPECT_EQ(compareIgnoringCase("ab", "abc"), -1);
    std::vector<std::string> names{"x30", "X20", "x10", "x20", "K1"};
    sortIgnoringCase(names);
    EXPECT_EQ(names, (std::vector<std::string>{"K1", "x10", "X20", "x20", "x30"}));
}

TEST(CaseInsensitive, ContainsStringSkipsNonStrings) {
    Value array = Value::array({Value::integer(10), Value::string("X10"), Value::string("repair")});
    EXPECT_TRUE(containsCaseInsensitiveString(array, "x10"));
    EXPECT_TRUE(containsCaseInsensitiveString(array, "REPAIR"));
    EXPECT_FALSE(containsCaseInsensitiveString(array, "10"));
    EXPECT_FALSE(containsCaseInsensitiveString(array, "x1"));
    EXPECT_FALSE(containsCaseInsensitiveString(Value(), "x10"));
}

TEST(CaseInsensitive, LowerAndUpperCaseTouchOnlyAsciiLetters) {
    EXPECT_EQ(lowercased("X10AP-Dev_1.\xc3\x89"), "x10ap-dev_1.\xc3\x89");
    EXPECT_EQ(uppercased("x10ap-dev_1.\xc3\xa9"), "X10AP-DEV_1.\xc3\xa9");
    EXPECT_EQ(lowercased(""), "");
    EXPECT_EQ(uppercased("@[`{"), "@[`{");
}
