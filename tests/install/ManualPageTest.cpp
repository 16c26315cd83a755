// The manual page describes every option that the usage text offers, and no other.
#include <gtest/gtest.h>

#include <cctype>
#include <regex>

#include "InstallTestSupport.hpp"

using namespace whittle::test;

namespace {

// The options that a text names: "--word", and "--[strip|keep]Word" as both of its forms.
std::set<std::string> optionsNamedIn(const std::string& text) {
    std::set<std::string> options;
    std::regex pair(R"(--\[strip\|keep\]([A-Za-z]+))");
    for (auto it = std::sregex_iterator(text.begin(), text.end(), pair); it != std::sregex_iterator(); ++it) {
        options.insert("--strip" + (*it)[1].str());
        options.insert("--keep" + (*it)[1].str());
    }
    std::regex single(R"((^|[^A-Za-z-])(--[A-Za-z][A-Za-z]*))");
    for (auto it = std::sregex_iterator(text.begin(), text.end(), single); it != std::sregex_iterator(); ++it) {
        options.insert((*it)[2].str());
    }
    return options;
}

// The manual page's roff source as plain text: font changes and zero-width marks
// dropped, "\-" as "-".
std::string manualPageText() {
    std::string roff = readFile(WHITTLE_MANUAL_PAGE);
    roff = std::regex_replace(roff, std::regex(R"(\\f[BIRP]|\\&)"), "");
    roff = std::regex_replace(roff, std::regex(R"(\\-)"), "-");
    return roff;
}

std::string lowercase(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::set<std::string> usageOptions() {
    ProgramResult usage = runWhittle({"--help"});
    EXPECT_EQ(usage.status, 0);
    return optionsNamedIn(usage.out);
}

}  // namespace

TEST(ManualPage, UsageTextNamesTheOptionsThisTestLooksFor) {
    std::set<std::string> options = usageOptions();
    EXPECT_TRUE(options.contains("--product"));
    EXPECT_TRUE(options.contains("--stripAPFirmware"));
    EXPECT_TRUE(options.contains("--keepAPFirmware"));
    EXPECT_TRUE(options.contains("--validVariants"));
    EXPECT_TRUE(options.contains("--source"));
    EXPECT_GE(options.size(), 30u);
}

TEST(ManualPage, NamesEveryOptionOfTheUsageText) {
    std::set<std::string> described = optionsNamedIn(manualPageText());
    for (const auto& option : usageOptions()) EXPECT_TRUE(described.contains(option)) << option << " is not in whittle(1)";
}

TEST(ManualPage, NamesNoOptionThatWhittleDoesNotHave) {
    // whittle matches options without regard to letter case, and so does this check.
    std::set<std::string> offered;
    for (const auto& option : usageOptions()) offered.insert(lowercase(option));
    offered.insert("--dotest");  // a diagnostic pass that the usage text leaves out
    offered.insert("--list");    // whittle-bom's, in the helpers' section
    for (const auto& option : optionsNamedIn(manualPageText())) {
        EXPECT_TRUE(offered.contains(lowercase(option))) << option << " is in whittle(1) but not in the usage text";
    }
}

TEST(ManualPage, DescribesTheFilesAndExitStatuses) {
    std::string page = manualPageText();
    for (std::string part : {"/tmp/Whittle.log", "Trash", WHITTLE_VOLUMES_DIR, "whittle-bom", "whittle-copy",
                             "whittle-diskimage", "libexec/whittle", "17", "22"}) {
        EXPECT_NE(page.find(part), std::string::npos) << part;
    }
}
