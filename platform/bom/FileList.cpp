// Reading the text file list that a simple BOM is made from.
//
// The list's first line is "."; then comes one "./relative/path" line per file or
// folder, parents before their contents. How far other tools forgive odd lists is not
// known, so this reader settles each case in the way that keeps the BOM a proper tree
// of clean paths:
//   - the root is always entry 1, whether or not the list starts with ".";
//   - blank lines are skipped, and a repeated path keeps its first position;
//   - "//", a trailing "/" and "." components are tidied away ("./a//b/" is "./a/b");
//   - a line that does not start with "./", or has a ".." component or a NUL byte,
//     is an error;
//   - a missing parent folder is added just before its first listed content.
// Folders cannot be told from files by name alone, and the tool is not told which
// folder the list describes (it runs from an unrelated working directory), so the
// root and every path with listed contents is recorded as a folder and everything
// else as a file.

#include <unordered_map>

#include "platform/bom/BomWriter.hpp"

namespace whittle::bom {

namespace {

constexpr std::uint32_t kRootId = 1;

class FileListReader {
public:
    FileListReader() {
        entries_.push_back({0, ".", EntryType::directory});
        idsByPath_.emplace(".", kRootId);
    }

    void addLine(std::string_view line, std::size_t lineNumber) {
        if (line.empty()) return;
        if (line.find('\0') != std::string_view::npos) fail(lineNumber, "holds a NUL byte");
        if (line == ".") return;
        if (!line.starts_with("./")) fail(lineNumber, "does not start with \"./\"");
        std::string path = ".";
        std::uint32_t parentId = kRootId;
        std::string_view rest = line.substr(2);
        while (!rest.empty()) {
            auto slash = rest.find('/');
            std::string_view component = rest.substr(0, slash);
            rest = slash == std::string_view::npos ? std::string_view{} : rest.substr(slash + 1);
            if (component.empty() || component == ".") continue;
            if (component == "..") fail(lineNumber, "has a \"..\" component");
            path += '/';
            path += component;
            parentId = idFor(path, parentId, component);
        }
    }

    std::vector<SimpleEntry> take() { return std::move(entries_); }

private:
    std::uint32_t idFor(const std::string& path, std::uint32_t parentId, std::string_view name) {
        auto [position, inserted] = idsByPath_.try_emplace(path, static_cast<std::uint32_t>(entries_.size() + 1));
        if (inserted) {
            entries_[parentId - 1].type = EntryType::directory;
            entries_.push_back({parentId, std::string(name), EntryType::file});
        }
        return position->second;
    }

    [[noreturn]] static void fail(std::size_t lineNumber, const char* problem) {
        throw BomError("file list line " + std::to_string(lineNumber) + " " + problem);
    }

    std::vector<SimpleEntry> entries_;
    std::unordered_map<std::string, std::uint32_t> idsByPath_;
};

}  // namespace

std::vector<SimpleEntry> entriesFromFileList(std::string_view text) {
    FileListReader reader;
    std::size_t lineNumber = 0;
    while (!text.empty()) {
        ++lineNumber;
        auto end = text.find('\n');
        reader.addLine(text.substr(0, end), lineNumber);
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
    }
    return reader.take();
}

}  // namespace whittle::bom
