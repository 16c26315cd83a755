// The bash completion, sourced into bash and asked as bash asks it while typing.
#include <gtest/gtest.h>

#include <algorithm>

#include "InstallTestSupport.hpp"

using namespace whittle::test;

namespace {

// Shell-quotes a word for a bash script.
std::string quoted(const std::string& word) {
    std::string out = "'";
    for (char c : word) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// The words that completing the last of `words` offers; words[0] is the program.
std::set<std::string> completions(const std::vector<std::string>& words, const std::string& folder = "") {
    std::string script = "source " + quoted(WHITTLE_COMPLETION_FILE) + " && COMP_WORDS=(";
    for (const auto& word : words) script += quoted(word) + " ";
    script += ") && COMP_CWORD=" + std::to_string(words.size() - 1) +
              " && _whittle && printf '%s\\n' \"${COMPREPLY[@]}\"";
    RunOptions options;
    options.workingDirectory = folder;
    ProgramResult result = runProgram({programOnPath("bash"), "-c", script}, options);
    EXPECT_EQ(result.status, 0) << result.err;
    std::set<std::string> offered;
    for (const auto& line : linesOf(result.out)) {
        if (!line.empty()) offered.insert(line);
    }
    return offered;
}

std::set<std::string> startingWith(const std::vector<std::string>& words, const std::string& prefix) {
    std::set<std::string> matching;
    for (const auto& word : words) {
        if (word.starts_with(prefix)) matching.insert(word);
    }
    return matching;
}

}  // namespace

TEST(Completion, RegistersItselfForWhittle) {
    ProgramResult result =
        runProgram({programOnPath("bash"), "-c", "source " + quoted(WHITTLE_COMPLETION_FILE) + " && complete -p whittle"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "complete -F _whittle whittle\n");
}

TEST(Completion, CompletesOptionsAsTheUsageTextWritesThem) {
    EXPECT_EQ(completions({whittleBinary(), "--kno"}), (std::set<std::string>{"--knownproducts", "--knownvariants"}));
    EXPECT_EQ(completions({whittleBinary(), "--validv"}), (std::set<std::string>{"--validVariants"}));
    EXPECT_EQ(completions({whittleBinary(), "--keepS"}), (std::set<std::string>{"--keepSDK"}));
    EXPECT_TRUE(completions({whittleBinary(), "--nothing"}).empty());
}

TEST(Completion, CompletesProductsFromTheCatalogue) {
    ProgramResult known = runWhittle({"--knownproducts"});
    ASSERT_EQ(known.status, 0);
    std::set<std::string> expected = startingWith(plistStrings(known.out), "x1");
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(completions({whittleBinary(), "--product", "x1"}), expected);
    EXPECT_EQ(completions({whittleBinary(), "examples/RestoreBundle", "--PRODUCT", "x1"}), expected);
}

TEST(Completion, CompletesFactoryVariantsFromTheCatalogue) {
    ProgramResult known = runWhittle({"--knownvariants"});
    ASSERT_EQ(known.status, 0);
    std::vector<std::string> variants = plistStrings(known.out);
    ASSERT_FALSE(variants.empty());
    std::string prefix = variants.front().substr(0, 2);
    EXPECT_EQ(completions({whittleBinary(), "--product", "x10", "--factory", prefix}), startingWith(variants, prefix));
}

TEST(Completion, CompletesOnAndOffAfterPersonalizedOptions) {
    EXPECT_EQ(completions({whittleBinary(), "--unpersonalized", ""}), (std::set<std::string>{"on", "off"}));
}

TEST(Completion, CompletesFoldersAndDiskImagesForTheSource) {
    TempDir dir;
    writeFile(dir / "bundle/Restore/BuildManifest.plist", "");
    writeFile(dir / "image.dmg", "");
    writeFile(dir / "archive.zip", "");
    writeFile(dir / "notes.txt", "");
    std::set<std::string> expected{"bundle", "image.dmg"};
    EXPECT_EQ(completions({whittleBinary(), ""}, dir.path()), expected);
    EXPECT_EQ(completions({whittleBinary(), "--verbose", "--source", ""}, dir.path()), expected);
}

TEST(Completion, CompletesFoldersAndTargetKindsForTheTarget) {
    TempDir dir;
    writeFile(dir / "bundle/Restore/BuildManifest.plist", "");
    for (std::string name : {"old.dmg", "old.zip", "old.bom", "notes.txt", "old.tar"}) writeFile(dir / name, "");
    std::set<std::string> expected{"bundle", "old.dmg", "old.zip", "old.bom"};
    EXPECT_EQ(completions({whittleBinary(), "bundle", ""}, dir.path()), expected);
    EXPECT_EQ(completions({whittleBinary(), "--product", "x10", "bundle", ""}, dir.path()), expected);
    EXPECT_EQ(completions({whittleBinary(), "--source", "bundle", "--target", ""}, dir.path()), expected);
    EXPECT_TRUE(completions({whittleBinary(), "bundle", "old.zip", ""}, dir.path()).empty());
}
