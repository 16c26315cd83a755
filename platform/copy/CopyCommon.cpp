#include "platform/copy/CopyCommon.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace whittle::copy {

namespace {

constexpr std::size_t kLargestLinkTarget = std::size_t{1} << 16;

}  // namespace

std::string systemMessage(int error) { return std::strerror(error); }

void failOn(std::string_view path, const char* action, int error) {
    throw CopyError("cannot " + std::string(action) + " \"" + std::string(path) + "\": " + systemMessage(error));
}

std::string readLinkTarget(int folder, const std::string& name, off_t sizeHint, std::string_view path) {
    std::size_t capacity = sizeHint > 0 ? static_cast<std::size_t>(sizeHint) + 1 : 256;
    for (;;) {
        std::string target(capacity, '\0');
        ssize_t length = ::readlinkat(folder, name.c_str(), target.data(), capacity);
        if (length < 0) failOn(path, "read link", errno);
        if (static_cast<std::size_t>(length) < capacity) {
            target.resize(static_cast<std::size_t>(length));
            return target;
        }
        if (capacity >= kLargestLinkTarget) throw CopyError("link \"" + std::string(path) + "\" is too long");
        capacity *= 2;
    }
}

}  // namespace whittle::copy
