// whittle-bom: makes simple BOMs from file lists and lists the paths of any BOM.

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/bom/BomReader.hpp"
#include "platform/bom/BomWriter.hpp"
#include "platform/bom/FileBytes.hpp"
#include "platform/helper/StopCleanup.hpp"
#include "support/DescriptorIo.hpp"

namespace {

using whittle::bom::BomError;

constexpr int kFailure = 1;
constexpr int kUsageError = 2;
constexpr std::uint64_t kLargestFileList = 1ull << 30;

constexpr const char* kUsage =
    "usage: whittle-bom -s -i FILELIST BOMPATH\n"
    "       whittle-bom --list BOMPATH\n"
    "\n"
    "  -s -i FILELIST BOMPATH  write a simple (path-only) BOM of the paths in FILELIST:\n"
    "                          a first line \".\", then one \"./relative/path\" per line\n"
    "  -l, --list BOMPATH      print the paths in BOMPATH, one per line, each folder\n"
    "                          followed by its contents\n"
    "  -h, --help              print this help\n";

struct UsageError {
    std::string message;
};

struct MakeRequest {
    std::string fileList;
    std::string bomPath;
};

struct Command {
    enum class Kind { help, make, list } kind = Kind::help;
    MakeRequest make;
    std::string listPath;
};

Command parseMakeArguments(const std::vector<std::string>& arguments) {
    Command command;
    command.kind = Command::Kind::make;
    bool simple = false, haveList = false;
    std::vector<std::string> operands;
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        const std::string& argument = arguments[index];
        if (argument == "-s") {
            simple = true;
        } else if (argument == "-i") {
            if (index + 1 == arguments.size()) throw UsageError{"-i needs a file list"};
            command.make.fileList = arguments[++index];
            haveList = true;
        } else if (argument.size() > 1 && argument[0] == '-') {
            throw UsageError{"unknown option " + argument};
        } else {
            operands.push_back(argument);
        }
    }
    if (!simple) throw UsageError{"only simple BOMs (-s) can be made"};
    if (!haveList) throw UsageError{"a file list (-i FILELIST) is needed"};
    if (operands.size() != 1) throw UsageError{"exactly one BOM path is needed"};
    command.make.bomPath = operands[0];
    return command;
}

Command parseArguments(const std::vector<std::string>& arguments) {
    if (arguments.empty()) throw UsageError{"nothing to do"};
    const std::string& first = arguments[0];
    if (first == "-h" || first == "--help") {
        if (arguments.size() != 1) throw UsageError{first + " takes no further arguments"};
        return {};
    }
    if (first == "-l" || first == "--list") {
        if (arguments.size() != 2) throw UsageError{first + " needs exactly one BOM path"};
        Command command;
        command.kind = Command::Kind::list;
        command.listPath = arguments[1];
        return command;
    }
    return parseMakeArguments(arguments);
}

void makeBom(const MakeRequest& request) {
    std::string list = whittle::bom::readFileBytes(request.fileList, kLargestFileList);
    std::string bytes = whittle::bom::writeSimpleBom(whittle::bom::entriesFromFileList(list));
    whittle::bom::writeFileAtomically(request.bomPath, bytes);
}

class OutputBuffer {
public:
    void line(std::string_view text) {
        buffer_.append(text);
        buffer_.push_back('\n');
        if (buffer_.size() >= kFlushSize) flush();
    }
    void flush() {
        if (!whittle::writeAll(STDOUT_FILENO, buffer_))
            throw BomError(std::string("cannot write the listing: ") + std::strerror(errno));
        buffer_.clear();
    }

private:
    static constexpr std::size_t kFlushSize = 1 << 20;
    std::string buffer_;
};

void listBom(const std::string& path) {
    whittle::bom::BomPaths paths = whittle::bom::BomPaths::load(path);
    OutputBuffer out;
    paths.forEachPath([&out](const whittle::bom::PathVisit& visit) { out.line(visit.path); });
    out.flush();
}

}  // namespace

int main(int argc, char** argv) {
    whittle::helper::tieToCaller();
    std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    Command command;
    try {
        command = parseArguments(arguments);
    } catch (const UsageError& error) {
        std::fprintf(stderr, "whittle-bom: %s (see whittle-bom --help)\n", error.message.c_str());
        return kUsageError;
    }
    try {
        switch (command.kind) {
            case Command::Kind::help:
                std::fputs(kUsage, stdout);
                break;
            case Command::Kind::make:
                makeBom(command.make);
                break;
            case Command::Kind::list:
                listBom(command.listPath);
                break;
        }
    } catch (const BomError& error) {
        std::fprintf(stderr, "whittle-bom: %s\n", error.what());
        return kFailure;
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "whittle-bom: out of memory\n");
        return kFailure;
    }
    return 0;
}
