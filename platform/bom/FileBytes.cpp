#include "platform/bom/FileBytes.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/bom/BomFormat.hpp"
#include "platform/helper/StopCleanup.hpp"
#include "support/DescriptorIo.hpp"

namespace whittle::bom {

namespace {

BomError systemError(const std::string& what, const std::string& path) {
    int error = errno;
    return BomError(what + " \"" + path + "\": " + std::strerror(error));
}

mode_t currentUmask() {
    mode_t mask = ::umask(0);
    ::umask(mask);
    return mask;
}

// A hidden name beside the path, for mkostemp to complete.
std::string temporaryTemplateFor(const std::string& path) {
    auto nameStart = path.find_last_of('/') + 1;  // 0 when there is no slash
    return path.substr(0, nameStart) + "." + path.substr(nameStart) + ".XXXXXX";
}

}  // namespace

std::string readFileBytes(const std::string& path, std::uint64_t maxBytes) {
    // Non-blocking, so that a named pipe in place of the file cannot stall us.
    UniqueDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (fd.get() < 0) throw systemError("cannot open", path);
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0) throw systemError("cannot read", path);
    if (!S_ISREG(info.st_mode)) throw BomError("\"" + path + "\" is not a regular file");
    if (static_cast<std::uint64_t>(info.st_size) > maxBytes) throw BomError("\"" + path + "\" is too large");
    std::string bytes(static_cast<std::size_t>(info.st_size), '\0');
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        ssize_t got = ::read(fd.get(), bytes.data() + filled, bytes.size() - filled);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) throw systemError("cannot read", path);
        if (got == 0) break;  // it shrank while we read: keep what is there
        filled += static_cast<std::size_t>(got);
    }
    bytes.resize(filled);
    return bytes;
}

void writeFileAtomically(const std::string& path, std::string_view bytes) {
    std::string temporaryName = temporaryTemplateFor(path);
    std::vector<char> nameBuffer(temporaryName.begin(), temporaryName.end());
    nameBuffer.push_back('\0');
    int created = -1;
    {
        helper::StopSignalsBlocked blocked;  // no stop between making it and registering it
        created = ::mkostemp(nameBuffer.data(), O_CLOEXEC);
        if (created < 0) throw systemError("cannot create a file beside", path);
        helper::removeOnStop(nameBuffer.data());
    }
    UniqueDescriptor fd(created);
    temporaryName.assign(nameBuffer.data());
    try {
        if (!writeAll(fd.get(), bytes)) throw BomError(std::strerror(errno));
        // mkostemp makes the file private; give it the usual mode of a new file.
        if (::fchmod(fd.get(), 0666 & ~currentUmask()) != 0) throw BomError(std::strerror(errno));
        if (::fsync(fd.get()) != 0) throw BomError(std::strerror(errno));
        if (::close(fd.release()) != 0) throw BomError(std::strerror(errno));
        if (::rename(temporaryName.c_str(), path.c_str()) != 0) throw BomError(std::strerror(errno));
    } catch (const BomError& error) {
        ::unlink(temporaryName.c_str());
        helper::keepOnStop(temporaryName);
        throw BomError("cannot write \"" + path + "\": " + error.what());
    }
    helper::keepOnStop(temporaryName);
}

}  // namespace whittle::bom
