// Small file chores shared by the whole program.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace whittle {

// The whole content of a regular file; none if it is missing, not a regular file,
// unreadable or larger than 4 GiB.
std::optional<std::string> readWholeFile(const std::string& path);
// The same for a file already open for reading; the descriptor stays open.
std::optional<std::string> readWholeDescriptor(int fd);

// Writes every byte to a descriptor, going on after short writes and interruptions.
bool writeAll(int fd, std::string_view bytes);

// Writes the text to standard output and flushes it. A failure is remembered.
void writeToStandardOutput(std::string_view text);
// The system's error number of the first failed write to standard output (flushing
// first), or 0 when every write succeeded.
int standardOutputError();

// Writes bytes to a temporary file beside the path and renames it over the path, so
// that readers see the old content or the new, never a part. On failure returns
// false and sets the error's description, and nothing is left behind.
bool writeFileAtomically(const std::string& path, std::string_view bytes, std::string& error);

// The names in a folder, "." and ".." included, in the order the system gives them;
// none for a folder that cannot be read.
std::vector<std::string> namesInFolder(const std::string& folder);

// The last path component ("a/b/c.txt" -> "c.txt"; trailing slashes ignored).
std::string lastPathComponent(std::string_view path);
// The folder that holds the path ("a/b/c" -> "a/b", "c" -> ".", "/c" -> "/"; trailing slashes ignored).
std::string parentFolderOf(std::string_view path);
// "folder/name", with no doubled slash after a folder that ends in one.
std::string joinFolderAndName(std::string_view folder, std::string_view name);
// The extension of the last component without its point ("" when it has none; a leading
// point does not start one).
std::string pathExtension(std::string_view path);
// A name without its extension.
std::string withoutExtension(std::string_view name);

}  // namespace whittle
