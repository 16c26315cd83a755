// whittle-copy: copies exactly the paths a BOM lists from a source folder, either
// into a destination folder or into a zip archive.

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "platform/bom/BomReader.hpp"
#include "platform/copy/CopyCommon.hpp"
#include "platform/copy/CopyPlan.hpp"
#include "platform/copy/FolderCopy.hpp"
#include "platform/copy/ZipArchive.hpp"
#include "platform/helper/ProgressReporter.hpp"
#include "platform/helper/StopCleanup.hpp"
#include "support/DescriptorIo.hpp"

namespace {

using whittle::copy::CopyError;
using whittle::UniqueDescriptor;

constexpr int kFailure = 1;
constexpr int kUsageError = 2;

constexpr const char* kUsage =
    "usage: whittle-copy -vV --noextattr --noacl --bom BOM SRC DST\n"
    "       whittle-copy -ck --noextattr --noacl --bom BOM SRC ZIP\n"
    "\n"
    "Copies exactly the paths listed in BOM from the folder SRC: into the folder DST\n"
    "(made if missing; each copied path is printed), or into a new zip archive ZIP.\n"
    "Modes and modification times are kept and symbolic links stay links; extended\n"
    "attributes and access control lists are never copied.\n";

enum class Mode { help, folder, zip };

struct Request {
    Mode mode = Mode::help;
    std::string bomPath;
    std::string source;
    std::string destination;
};

struct UsageError {
    std::string message;
};

Request parseArguments(const std::vector<std::string>& arguments) {
    if (arguments.size() == 1 && (arguments[0] == "-h" || arguments[0] == "--help")) return {};
    if (arguments.size() != 7) throw UsageError{"wrong number of arguments"};
    Request request;
    if (arguments[0] == "-vV") {
        request.mode = Mode::folder;
    } else if (arguments[0] == "-ck") {
        request.mode = Mode::zip;
    } else {
        throw UsageError{"the first argument must be -vV or -ck"};
    }
    if (arguments[1] != "--noextattr" || arguments[2] != "--noacl" || arguments[3] != "--bom")
        throw UsageError{"expected --noextattr --noacl --bom after " + arguments[0]};
    request.bomPath = arguments[4];
    request.source = arguments[5];
    request.destination = arguments[6];
    for (const std::string* operand : {&request.bomPath, &request.source, &request.destination})
        if (operand->empty()) throw UsageError{"paths must not be empty"};
    return request;
}

UniqueDescriptor openSourceFolder(const std::string& path) {
    UniqueDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.valid())
        throw CopyError("cannot open source folder \"" + path + "\": " + whittle::copy::systemMessage(errno));
    return folder;
}

void refuseSameFolder(int source, int destination) {
    struct stat sourceInfo {
    }, destinationInfo{};
    if (::fstat(source, &sourceInfo) != 0 || ::fstat(destination, &destinationInfo) != 0)
        throw CopyError("cannot examine the source and destination folders: " + whittle::copy::systemMessage(errno));
    if (sourceInfo.st_dev == destinationInfo.st_dev && sourceInfo.st_ino == destinationInfo.st_ino)
        throw CopyError("the source and destination are the same folder");
}

void run(const Request& request, mode_t umaskAtStart, whittle::helper::ProgressReporter& progress) {
    whittle::bom::BomPaths paths = whittle::bom::BomPaths::load(request.bomPath);
    UniqueDescriptor source = openSourceFolder(request.source);
    std::vector<whittle::copy::PlannedItem> plan = whittle::copy::planCopy(paths, source.get());
    if (request.mode == Mode::zip) {
        whittle::copy::writeZipArchive(plan, source.get(), request.destination, 0666 & ~umaskAtStart, progress);
        return;
    }
    whittle::copy::Destination destination(request.destination, 0777 & ~umaskAtStart);
    refuseSameFolder(source.get(), destination.fd());
    whittle::copy::copyIntoFolder(plan, source.get(), destination, stdout, progress);
    destination.keep();
}

}  // namespace

int main(int argc, char** argv) {
    whittle::helper::tieToCaller();
    auto progress = whittle::helper::ProgressReporter::fromEnvironment();
    // Everything is created with the source's exact modes.
    mode_t umaskAtStart = ::umask(0);
    std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    Request request;
    try {
        request = parseArguments(arguments);
    } catch (const UsageError& error) {
        std::fprintf(stderr, "whittle-copy: %s (see whittle-copy --help)\n", error.message.c_str());
        return kUsageError;
    }
    if (request.mode == Mode::help) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    static char outputBuffer[1 << 16];
    std::setvbuf(stdout, outputBuffer, _IOFBF, sizeof outputBuffer);
    int status = 0;
    try {
        run(request, umaskAtStart, progress);
    } catch (const CopyError& error) {
        std::fprintf(stderr, "whittle-copy: %s\n", error.what());
        status = kFailure;
    } catch (const whittle::bom::BomError& error) {
        std::fprintf(stderr, "whittle-copy: %s\n", error.what());
        status = kFailure;
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "whittle-copy: out of memory\n");
        status = kFailure;
    }
    // The listing is flushed line by line, so a failed write may have been an earlier one.
    if ((std::fflush(stdout) != 0 || std::ferror(stdout)) && status == 0) {
        std::fprintf(stderr, "whittle-copy: cannot write to standard output\n");
        status = kFailure;
    }
    return status;
}
