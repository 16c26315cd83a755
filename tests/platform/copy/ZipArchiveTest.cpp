#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <random>
#include <set>
#include <thread>

#include "CopyTestSupport.hpp"

using namespace whittle::test;

namespace {

class ZipArchiveTest : public ::testing::Test {
protected:
    void SetUp() override {
        source = temp / "Bundle";
        writeFile(source + "/Info.txt", std::string(20000, 'a'));
        writeFile(source + "/Firmware/image.bin", "\x01\x02\x03 firmware");
        writeFile(source + "/Firmware/private.key", "private");
        writeFile(source + "/Firmware/unlisted.bin", "no");
        writeFile(source + "/Unlisted/file", "no");
        std::filesystem::create_directories(source + "/Empty");
        ::symlink("Firmware/image.bin", (source + "/Current").c_str());
        ::chmod((source + "/Firmware/private.key").c_str(), 0600);
        setModificationTime(source + "/Firmware/image.bin", 1234567890);
        listed = {"./Info.txt", "./Firmware", "./Firmware/image.bin", "./Firmware/private.key", "./Empty", "./Current"};
        bom = temp / "bundle.bom";
        writeBom(bom, listed);
        archive = temp / "bundle.zip";
    }

    // What an archive listing should hold: names without "./", folders with or
    // without a trailing slash.
    std::set<std::string> expectedNames(bool slashAfterFolders) {
        std::set<std::string> names;
        for (const std::string& path : listed) {
            std::string name = path.substr(2);
            bool folder = name == "Firmware" || name == "Empty";
            names.insert(folder && slashAfterFolders ? name + "/" : name);
        }
        return names;
    }

    static std::string run(const std::vector<std::string>& argv, const std::string& workingDirectory = {}) {
        RunOptions options;
        options.workingDirectory = workingDirectory;
        ProgramResult result = runProgram(argv, options);
        EXPECT_EQ(result.status, 0) << argv[0] << ": " << result.err;
        return result.out;
    }

    TempDir temp;
    std::string source, bom, archive;
    std::vector<std::string> listed;
};

// "unzip -Z" prints one line per entry: mode, version, system, size, flags,
// method, date, time, name.
std::map<std::string, std::vector<std::string>> zipInfoByName(const std::string& text) {
    std::map<std::string, std::vector<std::string>> entries;
    for (const std::string& line : linesOf(text)) {
        std::vector<std::string> fields;
        std::size_t start = 0;
        for (int field = 0; field < 8 && start < line.size(); ++field) {
            start = line.find_first_not_of(' ', start);
            std::size_t end = line.find(' ', start);
            fields.push_back(line.substr(start, end - start));
            start = end;
        }
        if (fields.size() < 8 || fields[0].size() != 10) continue;
        start = line.find_first_not_of(' ', start);
        entries[line.substr(start)] = fields;
    }
    return entries;
}

}  // namespace

TEST_F(ZipArchiveTest, UnzipListsExactlyTheListedPaths) {
    ProgramResult zipped = copyIntoZip(bom, source, archive);
    ASSERT_EQ(zipped.status, 0) << zipped.err;
    EXPECT_EQ(zipped.out, "");
    std::set<std::string> names;
    for (const std::string& line : linesOf(run({"/usr/bin/unzip", "-Z1", archive}))) names.insert(line);
    EXPECT_EQ(names, expectedNames(true));
    std::string listing = run({"/usr/bin/unzip", "-l", archive});
    for (const std::string& name : expectedNames(true))
        EXPECT_NE(listing.find(" " + name + "\n"), std::string::npos) << name;
    EXPECT_NE(run({"/usr/bin/unzip", "-t", archive}).find("No errors detected"), std::string::npos);
}

TEST_F(ZipArchiveTest, SevenZipListsExactlyTheListedPathsAndTheLinkAsALink) {
    ASSERT_EQ(copyIntoZip(bom, source, archive).status, 0);
    if (::access("/usr/bin/7zz", X_OK) != 0) GTEST_SKIP() << "7zz is not installed";
    std::set<std::string> names;
    std::map<std::string, std::string> attributes;
    std::string current;
    for (const std::string& line : linesOf(run({"/usr/bin/7zz", "l", "-slt", archive}))) {
        if (line.rfind("Path = ", 0) == 0) {
            current = line.substr(7);
            if (current != archive) names.insert(current);
        } else if (line.rfind("Attributes = ", 0) == 0) {
            attributes[current] = line.substr(13);
        }
    }
    EXPECT_EQ(names, expectedNames(false));
    EXPECT_NE(attributes["Current"].find("lrwxrwxrwx"), std::string::npos) << attributes["Current"];
    EXPECT_NE(attributes["Firmware/private.key"].find("-rw-------"), std::string::npos);
    EXPECT_NE(attributes["Empty"].find("D"), std::string::npos);
}

TEST_F(ZipArchiveTest, KeepsModesLinksAndDeflatesData) {
    ASSERT_EQ(copyIntoZip(bom, source, archive).status, 0);
    auto entries = zipInfoByName(run({"/usr/bin/unzip", "-Z", archive}));
    ASSERT_EQ(entries.size(), listed.size());
    EXPECT_EQ(entries.at("Current")[0], "lrwxrwxrwx");
    EXPECT_EQ(entries.at("Firmware/private.key")[0], "-rw-------");
    EXPECT_EQ(entries.at("Firmware/")[0][0], 'd');
    EXPECT_EQ(entries.at("Info.txt")[2], "unx");
    EXPECT_EQ(entries.at("Info.txt")[5], "defN");
}

TEST_F(ZipArchiveTest, ExtractsToTheListedTree) {
    ASSERT_EQ(copyIntoZip(bom, source, archive).status, 0);
    std::string extracted = temp / "extracted";
    std::filesystem::create_directories(extracted);
    run({"/usr/bin/unzip", "-q", archive}, extracted);
    auto sourceTree = snapshotTree(source);
    auto extractedTree = snapshotTree(extracted);
    std::set<std::string> extractedPaths;
    for (const auto& [path, item] : extractedTree) extractedPaths.insert(path);
    EXPECT_EQ(extractedPaths, std::set<std::string>(listed.begin(), listed.end()));
    for (const std::string& path : listed) {
        SCOPED_TRACE(path);
        EXPECT_EQ(extractedTree[path].type, sourceTree[path].type);
        EXPECT_EQ(extractedTree[path].content, sourceTree[path].content);
        if (sourceTree[path].type == 'f') {
            EXPECT_EQ(extractedTree[path].permissions, sourceTree[path].permissions);
        }
    }
    // Zip keeps whole seconds.
    EXPECT_EQ(extractedTree["./Firmware/image.bin"].modifiedNanoseconds, 1234567890LL * 1'000'000'000);
}

TEST_F(ZipArchiveTest, AFailureLeavesNoArchiveAndKeepsAnOldOne) {
    writeBom(bom, {"./Info.txt", "./Missing.txt"});
    ProgramResult zipped = copyIntoZip(bom, source, archive);
    EXPECT_EQ(zipped.status, 1);
    EXPECT_NE(zipped.err.find("./Missing.txt"), std::string::npos) << zipped.err;
    EXPECT_FALSE(pathExists(archive));

    writeFile(archive, "an older archive");
    writeFile(source + "/Unreadable.bin", "data");
    writeBom(bom, {"./Info.txt", "./Unreadable.bin"});
    // A named pipe is something a zip archive cannot hold.
    ::unlink((source + "/Unreadable.bin").c_str());
    ASSERT_EQ(::mkfifo((source + "/Unreadable.bin").c_str(), 0644), 0);
    zipped = copyIntoZip(bom, source, archive);
    EXPECT_EQ(zipped.status, 1);
    EXPECT_NE(zipped.err.find("./Unreadable.bin"), std::string::npos) << zipped.err;
    EXPECT_EQ(readFile(archive), "an older archive");
    std::vector<std::string> names = folderEntries(temp.path());
    EXPECT_EQ(names, (std::vector<std::string>{"Bundle", "bundle.bom", "bundle.zip"}));
}

TEST_F(ZipArchiveTest, ReplacesAnExistingArchive) {
    writeFile(archive, "an older archive");
    ASSERT_EQ(copyIntoZip(bom, source, archive).status, 0);
    EXPECT_NE(run({"/usr/bin/unzip", "-t", archive}).find("No errors detected"), std::string::npos);
    struct stat info {};
    ASSERT_EQ(::stat(archive.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0600, 0600u);
}

TEST_F(ZipArchiveTest, TheSameSourceGivesTheSameArchiveAnywhereAndAnyTime) {
    ASSERT_EQ(copyIntoZip(bom, source, archive).status, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    std::string elsewhere = temp / "elsewhere/deeper/Bundle";
    std::filesystem::create_directories(temp / "elsewhere/deeper");
    run({"/bin/cp", "-a", source, elsewhere});
    std::string second = temp / "second.zip";
    ASSERT_EQ(copyIntoZip(bom, elsewhere, second).status, 0);
    EXPECT_TRUE(readFile(archive) == readFile(second)) << "the two archives differ";

    // The entry's time is the file's own.
    setModificationTime(elsewhere + "/Info.txt", 1500000000);
    std::string third = temp / "third.zip";
    ASSERT_EQ(copyIntoZip(bom, elsewhere, third).status, 0);
    EXPECT_FALSE(readFile(archive) == readFile(third));
}

TEST_F(ZipArchiveTest, LargeFilesAreDeflatedInPartsThatReadersJoin) {
    // Compressible text, then random bytes, then text again: 11 MB in parts of 1 MB.
    std::string content;
    while (content.size() < (4u << 20)) content += "Firmware/all_flash/LLB.img4 and its manifest entry\n";
    std::mt19937 random(7);
    for (int i = 0; i < (3 << 20); ++i) content += static_cast<char>(random());
    while (content.size() < (11u << 20) + 12345) content += "tail text of a large file\n";
    writeFile(source + "/Firmware/large.bin", content);
    writeBom(bom, {"./Firmware", "./Firmware/large.bin", "./Info.txt"});
    ASSERT_EQ(copyIntoZip(bom, source, archive).status, 0);
    EXPECT_LT(std::filesystem::file_size(archive), content.size() / 2);

    EXPECT_NE(run({"/usr/bin/unzip", "-t", archive}).find("No errors detected"), std::string::npos);
    EXPECT_TRUE(run({"/usr/bin/unzip", "-p", archive, "Firmware/large.bin"}) == content);
    if (::access("/usr/bin/7zz", X_OK) == 0) {
        EXPECT_NE(run({"/usr/bin/7zz", "t", archive}).find("Everything is Ok"), std::string::npos);
    }
    if (::access("/usr/bin/python3", X_OK) == 0) {
        std::string script =
            "import sys, zipfile, zlib\n"
            "z = zipfile.ZipFile(sys.argv[1])\n"
            "data = z.read('Firmware/large.bin')\n"
            "print(len(data), zlib.crc32(data), z.testzip())\n";
        std::string expected = std::to_string(content.size()) + " " +
                               std::to_string(crc32(0, reinterpret_cast<const Bytef*>(content.data()),
                                                    static_cast<uInt>(content.size()))) +
                               " None\n";
        EXPECT_EQ(run({"/usr/bin/python3", "-c", script, archive}), expected);
    }
}
