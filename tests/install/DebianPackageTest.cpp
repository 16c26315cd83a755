// The Debian package: what it holds, what it depends on, that lintian accepts it, and
// that it installs and strips the example bundle.
//
// The package is made with cpack from this build folder, so in the test build its
// programs carry the sanitizers and depend on their run-time libraries too (dpkg-shlibdeps
// finds them, and the package description says it is for testing only). The package
// users get is made from a Release build by scripts/package.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <regex>
#include <sstream>

#include "InstallTestSupport.hpp"

using namespace whittle::test;
namespace fs = std::filesystem;

namespace {

const std::string kPackageFile = "whittle_7.4.10_amd64.deb";

const std::vector<std::string> kProgramPaths{"usr/bin/whittle", "usr/libexec/whittle/whittle-bom",
                                             "usr/libexec/whittle/whittle-copy",
                                             "usr/libexec/whittle/whittle-diskimage"};

// Packaging tools can take a while on a busy machine.
RunOptions slowTool(const std::string& workingDirectory = "") {
    RunOptions options;
    options.workingDirectory = workingDirectory;
    options.timeoutSeconds = 300;
    return options;
}

class DebianPackage : public testing::Test {
protected:
    static void SetUpTestSuite() {
        dpkgDeb_ = programOnPath("dpkg-deb");
        if (dpkgDeb_.empty() || ::access(WHITTLE_CPACK_COMMAND, X_OK) != 0) return;
        root_ = new TempDir;
        made_ = runProgram({WHITTLE_CPACK_COMMAND, "-G", "DEB", "--config", std::string(WHITTLE_BUILD_DIR) + "/CPackConfig.cmake",
                            "-B", *root_ / "out"},
                           slowTool(root_->path()));
    }
    static void TearDownTestSuite() {
        delete root_;
        root_ = nullptr;
    }

    void SetUp() override {
        if (!root_) GTEST_SKIP() << "cpack or dpkg-deb is not installed; the package is not made";
        ASSERT_EQ(made_.status, 0) << made_.out << made_.err;
        ASSERT_TRUE(pathExists(package())) << made_.out;
    }

    static std::string package() { return *root_ / ("out/" + kPackageFile); }

    static std::string field(const std::string& name) {
        ProgramResult result = runProgram({dpkgDeb_, "--field", package(), name});
        EXPECT_EQ(result.status, 0) << result.err;
        while (!result.out.empty() && result.out.back() == '\n') result.out.pop_back();
        return result.out;
    }

    // The package names of the Depends field, without versions.
    static std::set<std::string> dependedOn() {
        std::set<std::string> names;
        std::stringstream list(field("Depends"));
        std::string entry;
        while (std::getline(list, entry, ',')) {
            std::smatch name;
            if (std::regex_search(entry, name, std::regex("[a-z0-9][a-z0-9.+-]+"))) names.insert(name.str());
        }
        return names;
    }

    static std::string dpkgDeb_;
    static ProgramResult made_;
    static TempDir* root_;
};

std::string DebianPackage::dpkgDeb_;
ProgramResult DebianPackage::made_;
TempDir* DebianPackage::root_ = nullptr;

// The files (not folders) that dpkg-deb lists in a package.
std::set<std::string> filesListed(const std::string& contents) {
    std::set<std::string> files;
    for (const auto& line : linesOf(contents)) {
        if (line.empty() || line[0] == 'd') continue;
        auto at = line.find(" ./");
        if (at != std::string::npos) files.insert(line.substr(at + 3));
    }
    return files;
}

// The shared libraries that a program itself names (its NEEDED entries; what those load
// in turn is their own packages' business), by the path the loader finds for each.
std::vector<std::string> sharedLibrariesOf(const std::string& program) {
    ProgramResult dynamic = runProgram({programOnPath("readelf"), "--dynamic", program});
    EXPECT_EQ(dynamic.status, 0) << dynamic.err;
    std::set<std::string> needed;
    std::regex neededEntry(R"(\(NEEDED\).*\[(.+)\])");
    for (const auto& line : linesOf(dynamic.out)) {
        std::smatch match;
        if (std::regex_search(line, match, neededEntry)) needed.insert(match[1].str());
    }
    EXPECT_FALSE(needed.empty()) << program;

    std::vector<std::string> libraries;
    ProgramResult ldd = runProgram({programOnPath("ldd"), program});
    EXPECT_EQ(ldd.status, 0) << ldd.err;
    std::regex resolved(R"(^\s*(\S+)\s+=>\s+(/\S+))");
    for (const auto& line : linesOf(ldd.out)) {
        std::smatch match;
        if (std::regex_search(line, match, resolved) && needed.erase(match[1].str())) libraries.push_back(match[2].str());
    }
    // The dynamic loader itself is named by path, not found through ldd's "=>" lines.
    std::erase_if(needed, [](const std::string& name) { return name.starts_with("ld-linux"); });
    EXPECT_TRUE(needed.empty()) << program << " needs libraries that the loader cannot find";
    return libraries;
}

// The installed package that owns a file, or empty; tries the file's /usr twin too, as
// the loader's path and the package's may differ by the /usr merge.
std::string owningPackage(const std::string& path) {
    std::vector<std::string> tries{path, fs::weakly_canonical(path).string()};
    if (path.starts_with("/usr/")) tries.push_back(path.substr(4)); else tries.push_back("/usr" + path);
    for (const auto& candidate : tries) {
        ProgramResult owner = runProgram({programOnPath("dpkg-query"), "--search", candidate});
        if (owner.status == 0) {
            std::string name = owner.out.substr(0, owner.out.find(':'));
            return name;
        }
    }
    return {};
}

// Purges the package with the given dpkg command, at the latest when it goes.
class PackageRemoval {
public:
    explicit PackageRemoval(std::vector<std::string> dpkgCommand) : command_(std::move(dpkgCommand)) {
        command_.insert(command_.end(), {"--purge", "whittle"});
    }
    ~PackageRemoval() {
        if (!done_) purge();
    }
    PackageRemoval(const PackageRemoval&) = delete;
    PackageRemoval& operator=(const PackageRemoval&) = delete;

    int purge() {
        done_ = true;
        ProgramResult removed = runProgram(command_, slowTool());
        if (removed.status != 0) ADD_FAILURE() << removed.out << removed.err;
        return removed.status;
    }

private:
    std::vector<std::string> command_;
    bool done_ = false;
};

}  // namespace

TEST_F(DebianPackage, IsNamedAfterTheProjectVersion) {
    EXPECT_EQ(field("Package"), "whittle");
    EXPECT_EQ(field("Version"), "7.4.10");
    EXPECT_EQ(field("Architecture"), "amd64");
}

TEST_F(DebianPackage, HoldsTheProgramHelpersManualPageAndCompletion) {
    ProgramResult contents = runProgram({dpkgDeb_, "--contents", package()});
    ASSERT_EQ(contents.status, 0) << contents.err;
    std::set<std::string> expected(kProgramPaths.begin(), kProgramPaths.end());
    expected.insert({"usr/share/man/man1/whittle.1.gz", "usr/share/bash-completion/completions/whittle",
                     "usr/share/doc/whittle/changelog.gz", "usr/share/doc/whittle/copyright"});
    EXPECT_EQ(filesListed(contents.out), expected) << contents.out;
}

TEST_F(DebianPackage, DependsOnTheProgramsItRuns) {
    std::set<std::string> depends = dependedOn();
    for (std::string tool : {"7zip", "zip", "openssl"}) EXPECT_TRUE(depends.contains(tool)) << tool;
}

TEST_F(DebianPackage, DependsOnThePackageOfEverySharedLibraryItsProgramsLoad) {
    for (std::string tool : {"ldd", "readelf", "dpkg-query"}) {
        if (programOnPath(tool).empty()) GTEST_SKIP() << tool << " is not installed";
    }
    TempDir unpacked;
    ASSERT_EQ(runProgram({dpkgDeb_, "--extract", package(), unpacked.path()}).status, 0);
    std::set<std::string> depends = dependedOn();
    std::set<std::string> owners;
    for (const auto& program : kProgramPaths) {
        for (const auto& library : sharedLibrariesOf(unpacked / program)) {
            std::string owner = owningPackage(library);
            ASSERT_FALSE(owner.empty()) << library << " belongs to no installed package";
            owners.insert(owner);
            EXPECT_TRUE(depends.contains(owner)) << program << " loads " << library << " of " << owner
                                                 << ", which the package does not depend on";
        }
    }
    // libplist is linked by whittle itself, libdeflate by the copy helper.
    EXPECT_TRUE(std::any_of(owners.begin(), owners.end(), [](const std::string& name) { return name.starts_with("libplist"); }));
    EXPECT_TRUE(std::any_of(owners.begin(), owners.end(), [](const std::string& name) { return name.starts_with("libdeflate"); }));
}

TEST_F(DebianPackage, LintianReportsNoErrors) {
    std::string lintian = programOnPath("lintian");
    if (lintian.empty()) GTEST_SKIP() << "lintian is not installed";
    ProgramResult result = runProgram({lintian, "--fail-on", "error", package()}, slowTool());
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_FALSE(contains(result.out, "\nE: ") || result.out.starts_with("E: ")) << result.out;
}

TEST_F(DebianPackage, InstallsAndStripsTheExampleBundle) {
    std::string dpkg = programOnPath("dpkg");
    if (dpkg.empty()) GTEST_SKIP() << "dpkg is not installed";
    const char* ci = std::getenv("CI");
    bool alreadyInstalled = runProgram({programOnPath("dpkg-query"), "--show", "--showformat=${db:Status-Status}", "whittle"}).out == "installed";
    bool forReal = ::geteuid() == 0 && ci && std::string(ci) == "true" && !alreadyInstalled;

    std::cout << (forReal ? "installing the package into this system, and purging it afterwards\n"
                          : "installing the package into a scratch root (for real only as root with CI=true)\n");
    TempDir scratch;
    std::string root = forReal ? "" : scratch / "root";
    std::vector<std::string> dpkgCommand{dpkg, "--log=/dev/null"};
    if (!forReal) {
        // An empty package database of its own; dependencies cannot be met in there.
        fs::create_directories(root + "/var/lib/dpkg/info");
        fs::create_directories(root + "/var/lib/dpkg/updates");
        writeFile(root + "/var/lib/dpkg/status", "");
        dpkgCommand.insert(dpkgCommand.end(), {"--root=" + root, "--force-depends", "--force-not-root"});
    }
    std::vector<std::string> install = dpkgCommand;
    install.insert(install.end(), {"--install", package()});
    ProgramResult installed = runProgram(install, slowTool());
    // Removed again however the test ends, so that a real installation is not left behind.
    PackageRemoval removal{dpkgCommand};
    ASSERT_EQ(installed.status, 0) << installed.out << installed.err;

    std::string whittle = root + "/usr/bin/whittle";
    TempDir work;
    TargetNames names;
    ProgramResult validated = runExample(whittle, work.path(), names.folder);
    EXPECT_EQ(validated.status, 0) << validated.out << validated.err;
    EXPECT_TRUE(pathExists(work / (names.folder + "/Restore/BuildManifest.plist")));
    ProgramResult image = runExample(whittle, work.path(), names.dmg);
    EXPECT_EQ(image.status, 0) << image.out << image.err;
    EXPECT_TRUE(pathExists(work / names.dmg));

    EXPECT_EQ(removal.purge(), 0);
    EXPECT_FALSE(pathExists(whittle));
}
