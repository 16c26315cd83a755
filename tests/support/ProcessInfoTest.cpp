#include <gtest/gtest.h>

#include <cstring>
#include <regex>

#include "support/ProcessInfo.hpp"

namespace whittle {
namespace {

TEST(ProcessInfo, ArgumentsAreKeptExactlyAsGiven) {
    auto before = processArguments();
    setProcessArguments({"/usr/bin/whittle", "", "--product", "x10 y"});
    EXPECT_EQ(processArguments(), (std::vector<std::string>{"/usr/bin/whittle", "", "--product", "x10 y"}));
    setProcessArguments({});
    EXPECT_TRUE(processArguments().empty());
    setProcessArguments(before);
}

TEST(ProcessInfo, BuildDateAndTimeHaveTheirUsualForms) {
    EXPECT_TRUE(std::regex_match(buildDate(), std::regex("[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{4}"))) << buildDate();
    EXPECT_TRUE(std::regex_match(buildTime(), std::regex("[0-9]{2}:[0-9]{2}:[0-9]{2}"))) << buildTime();
}

}  // namespace
}  // namespace whittle
