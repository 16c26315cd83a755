// Building work items and reading their values.
#include <gtest/gtest.h>

#include "engine/WorkItems.hpp"
#include "support/LogObject.hpp"

using namespace whittle;

TEST(WorkItems, CopyWithAddsAndOverridesWithoutTouchingTheBase) {
    Value base = Value::dictionary();
    base.set("workProduct", Value::string("x10"));
    base.set("workName", Value::string("old"));
    Value item = copyWith(base, {{"workName", Value::string("new")}, {"workSelector", Value::string("s:")}});
    EXPECT_EQ(item.get("workProduct").text(), "x10");
    EXPECT_EQ(item.get("workName").text(), "new");
    EXPECT_EQ(item.get("workSelector").text(), "s:");
    EXPECT_EQ(base.get("workName").text(), "old");
    EXPECT_TRUE(base.get("workSelector").isNone());
}

TEST(WorkItems, SetIfPresentSkipsNone) {
    Value item = Value::dictionary();
    setIfPresent(item, "workModel", Value());
    setIfPresent(item, "workProcessorID", Value::string("soc100x"));
    EXPECT_TRUE(item.get("workModel").isNone());
    EXPECT_EQ(item.count(), 1u);
    EXPECT_EQ(item.get("workProcessorID").text(), "soc100x");
}

TEST(WorkItems, AsListKeepsArraysAndNoneAndWrapsAnythingElse) {
    Value array = Value::stringArray({"a", "b"});
    EXPECT_TRUE(asList(array).sameObject(array));
    EXPECT_TRUE(asList(Value()).isNone());
    Value wrapped = asList(Value::string("User"));
    ASSERT_TRUE(wrapped.isArray());
    ASSERT_EQ(wrapped.count(), 1u);
    EXPECT_EQ(wrapped.at(0).text(), "User");
}

TEST(WorkItems, HoldsStringLooksInArraysAndSetsByExactText) {
    EXPECT_TRUE(holdsString(Value::stringArray({"FullInternalOS", "UserOS"}), "UserOS"));
    EXPECT_FALSE(holdsString(Value::stringArray({"FullInternalOS"}), "fullinternalos"));
    EXPECT_TRUE(holdsString(Value::setOf({Value::string("UserOS")}), "UserOS"));
    EXPECT_FALSE(holdsString(Value::array({Value::integer(1)}), "1"));
    EXPECT_FALSE(holdsString(Value(), ""));
}

TEST(WorkItems, ClosingStepsEndWithInvisiblesAndCookie) {
    Value workList = Value::array();
    Value base = Value::dictionary();
    base.set("workAllProducts", Value::setOf());
    const ClosingStep own[] = {{"Own step", "own:"}, kSupportFilesStep};
    appendClosingSteps(workList, base, own);
    ASSERT_EQ(workList.count(), 4u);
    const char* names[] = {"Own step", "Strip support files", "Strip invisibles", "Leaving cookie for Santa"};
    const char* selectors[] = {"own:", "stripCommonWork:", "stripInvisibles:", "leaveCookie:"};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(workList.at(i).get("workName").text(), names[i]);
        EXPECT_EQ(workList.at(i).get("workSelector").text(), selectors[i]);
        EXPECT_TRUE(workList.at(i).get("workAllProducts").sameObject(base.get("workAllProducts")));
    }
    EXPECT_TRUE(base.get("workName").isNone());
}

TEST(WorkItems, LogWorkListWritesTheBannerThenTheListInVerboseMode) {
    LogObject& logger = LogObject::sharedLogger();
    logger.setUseTTY(false);
    bool wasVerbose = logger.verbose();
    logger.setVerbose(true);
    std::string before = logger.historicalLog();
    testing::internal::CaptureStdout();
    logWorkList(Value::stringArray({"only-item"}));
    std::string printed = testing::internal::GetCapturedStdout();
    logger.setVerbose(wasVerbose);
    EXPECT_EQ(logger.historicalLog().substr(before.size()), ">>> Work List\n");
    auto banner = printed.find(">>> Work List");
    auto list = printed.find("only-item");
    ASSERT_NE(banner, std::string::npos) << printed;
    ASSERT_NE(list, std::string::npos) << printed;
    EXPECT_LT(banner, list);
}
