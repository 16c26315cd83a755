#include "support/Trash.hpp"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "support/DescriptorIo.hpp"
#include "support/Paths.hpp"

namespace whittle {

namespace fs = std::filesystem;

namespace {

std::string homeFolder() {
    if (const char* home = std::getenv("HOME"); home && *home) return home;
    if (const passwd* user = ::getpwuid(::getuid()); user && user->pw_dir) return user->pw_dir;
    return "/";
}

std::string homeTrash() {
    if (const char* data = std::getenv("XDG_DATA_HOME"); data && *data == '/') return std::string(data) + "/Trash";
    return homeFolder() + "/.local/share/Trash";
}

// The mount point of the file system that holds the path.
std::string topFolderOf(const std::string& path) {
    struct stat item {};
    if (::lstat(path.c_str(), &item) != 0) return "/";
    fs::path current = fs::absolute(path).parent_path();
    for (;;) {
        fs::path parent = current.parent_path();
        struct stat above {};
        if (current == parent || ::stat(parent.c_str(), &above) != 0 || above.st_dev != item.st_dev) return current.string();
        current = parent;
    }
}

std::string percentEncoded(const std::string& path) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : path) {
        bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' ||
                     c == '-' || c == '_' || c == '.' || c == '~';
        if (plain) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 0xF];
        }
    }
    return out;
}

std::string deletionDate() {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
    return text;
}

bool ensureFolder(const std::string& path, mode_t mode) {
    std::error_code error;
    fs::create_directories(path, error);
    ::chmod(path.c_str(), mode);
    return fs::is_directory(path, error);
}

// Reserves a name in the trash by creating its record exclusively; answers the name.
std::string reserveTrashName(const std::string& trash, const std::string& original, std::string& error) {
    std::string base = lastPathComponent(original);
    std::string record = "[Trash Info]\nPath=" + percentEncoded(original) + "\nDeletionDate=" + deletionDate() + "\n";
    for (int attempt = 1; attempt < 10000; ++attempt) {
        std::string name = attempt == 1 ? base : base + "." + std::to_string(attempt);
        std::string info = trash + "/info/" + name + ".trashinfo";
        int fd = ::open(info.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0) {
            if (errno == EEXIST) continue;
            error = std::strerror(errno);
            return {};
        }
        bool written = writeAll(fd, record);
        ::close(fd);
        if (written) return name;
        ::unlink(info.c_str());
        error = "cannot write the trash record";
        return {};
    }
    error = "no free name in the trash";
    return {};
}

bool moveIntoTrash(const std::string& trash, const std::string& original, std::string& error) {
    if (!ensureFolder(trash + "/files", 0700) || !ensureFolder(trash + "/info", 0700)) {
        error = "cannot make the trash folder " + trash;
        return false;
    }
    std::string name = reserveTrashName(trash, original, error);
    if (name.empty()) return false;
    if (::rename(original.c_str(), (trash + "/files/" + name).c_str()) == 0) return true;
    error = std::strerror(errno);
    ::unlink((trash + "/info/" + name + ".trashinfo").c_str());
    return false;
}

}  // namespace

bool moveToTrash(const std::string& path, std::string& error) {
    std::error_code failure;
    std::string original = fs::absolute(path, failure).lexically_normal().string();
    while (original.size() > 1 && original.back() == '/') original.pop_back();
    struct stat item {};
    if (::lstat(original.c_str(), &item) != 0) {
        error = std::strerror(errno);
        return false;
    }
    if (moveIntoTrash(homeTrash(), original, error)) return true;
    // An item on another file system goes to that file system's own trash folder.
    std::string top = topFolderOf(original);
    return moveIntoTrash(top + (top == "/" ? "" : "/") + ".Trash-" + std::to_string(::getuid()), original, error);
}

bool removeItem(const std::string& path, std::string& error) {
    std::error_code failure;
    fs::remove_all(path, failure);
    if (!failure) return true;
    error = failure.message();
    return false;
}

std::string expandTilde(const std::string& path) {
    if (path == "~") return homeFolder();
    if (path.starts_with("~/")) return homeFolder() + path.substr(1);
    return path;
}

}  // namespace whittle
