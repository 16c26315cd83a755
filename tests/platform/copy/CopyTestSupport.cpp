#include "CopyTestSupport.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "platform/bom/BomWriter.hpp"

namespace whittle::test {

namespace {

ProgramResult runWith(const char* binary, const std::vector<std::string>& arguments) {
    std::vector<std::string> argv{binary};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return runProgram(argv);
}

void snapshotInto(const std::string& folder, const std::string& relative, std::map<std::string, TreeItem>& tree) {
    for (const std::string& name : folderEntries(folder)) {
        std::string path = folder + "/" + name;
        std::string key = relative + "/" + name;
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0) throw std::runtime_error("lstat " + path);
        TreeItem item;
        item.permissions = info.st_mode & 07777;
        item.modifiedNanoseconds = info.st_mtim.tv_sec * 1'000'000'000LL + info.st_mtim.tv_nsec;
        if (S_ISDIR(info.st_mode)) {
            item.type = 'd';
        } else if (S_ISREG(info.st_mode)) {
            item.type = 'f';
            item.content = readFile(path);
        } else if (S_ISLNK(info.st_mode)) {
            item.type = 'l';
            item.content = std::filesystem::read_symlink(path).string();
        }
        tree[key] = item;
        if (item.type == 'd') snapshotInto(path, key, tree);
    }
}

}  // namespace

ProgramResult runCopyTool(const std::vector<std::string>& arguments) { return runWith(WHITTLE_COPY_BINARY, arguments); }

ProgramResult runBomTool(const std::vector<std::string>& arguments) { return runWith(WHITTLE_BOM_BINARY, arguments); }

ProgramResult copyIntoFolder(const std::string& bom, const std::string& source, const std::string& destination) {
    return runCopyTool({"-vV", "--noextattr", "--noacl", "--bom", bom, source, destination});
}

ProgramResult copyIntoZip(const std::string& bom, const std::string& source, const std::string& archive) {
    return runCopyTool({"-ck", "--noextattr", "--noacl", "--bom", bom, source, archive});
}

void writeBom(const std::string& bomPath, const std::vector<std::string>& paths,
              const std::vector<std::pair<std::string, std::string>>& replacements) {
    std::string list = ".\n";
    for (const std::string& path : paths) list += path + "\n";
    std::string bytes = bom::writeSimpleBom(bom::entriesFromFileList(list));
    for (const auto& [placeholder, name] : replacements) {
        if (placeholder.size() != name.size()) throw std::logic_error("replacement must keep the length");
        // Names sit in file key blocks, each followed by a NUL.
        std::string pattern = placeholder + '\0';
        auto at = bytes.find(pattern);
        if (at == std::string::npos) throw std::logic_error("placeholder not found: " + placeholder);
        bytes.replace(at, name.size(), name);
    }
    writeFile(bomPath, bytes);
}

std::map<std::string, TreeItem> snapshotTree(const std::string& root) {
    std::map<std::string, TreeItem> tree;
    snapshotInto(root, ".", tree);
    return tree;
}

void setModificationTime(const std::string& path, long long seconds, long nanoseconds) {
    struct timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    if (::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0)
        throw std::runtime_error("utimensat " + path);
}

void makeTreeRemovable(const std::string& root) {
    struct stat info {};
    if (::lstat(root.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return;
    ::chmod(root.c_str(), (info.st_mode & 07777) | 0700);
    for (const std::string& name : folderEntries(root)) makeTreeRemovable(root + "/" + name);
}

std::vector<std::string> folderEntries(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace whittle::test
