// Paths as text: their components, parents, extensions and joins. Nothing here looks
// at the file system.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace whittle {

// The last component ("a/b/c.txt" -> "c.txt", "a/b/" -> "b", "/" -> "/", "" -> "").
std::string lastPathComponent(std::string_view path);
// The folder that holds the path, for paths on disk: "a/b/c" -> "a/b", "c" -> ".",
// "/c" -> "/"; trailing slashes ignored.
std::string parentFolderOf(std::string_view path);
// The same for relative paths, where the top is "": "Restore/Firmware/x.bin" ->
// "Restore/Firmware", "x.bin" -> "", "/x" -> "/"; trailing slashes ignored.
std::string deletingLastPathComponent(std::string_view path);
// The steps of a path, in order: "a//b/./../c/" -> "a", "b", ".", "..", "c". Empty
// steps are dropped; "." and ".." are kept for the caller to judge.
std::vector<std::string> pathSteps(std::string_view path);
// "folder/name", with no doubled slash after a folder that ends in one; the bare name
// when the folder is "".
std::string joinPath(std::string_view folder, std::string_view name);
// The extension of the last component without its point ("" when it has none; a leading
// point does not start one).
std::string pathExtension(std::string_view path);
// A name without its extension.
std::string withoutExtension(std::string_view name);

}  // namespace whittle
