// Helpers of the tests of installed trees and packages.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "TestSupport.hpp"

namespace whittle::test {

// The full path of a program found on PATH, or empty.
std::string programOnPath(const std::string& name);

// The example bundle of the source tree.
std::string exampleBundle();

// The request that the example runs use: product x10, factory variant repair.
const std::vector<std::string>& exampleRequest();

// The target names of the four kinds, each with its own stem (a zip target makes
// STEM.bom beside itself, so a BOM target must not share the zip's stem).
struct TargetNames {
    std::string folder = "stripped";
    std::string bom = "list.bom";
    std::string zip = "archive.zip";
    std::string dmg = "image.dmg";
};

// Runs a whittle binary on the example bundle to `target` in `folder` (from inside it),
// with the Trash kept inside `folder`.
ProgramResult runExample(const std::string& whittle, const std::string& folder, const std::string& target);

// The strings of an XML property list's top-level array.
std::vector<std::string> plistStrings(const std::string& xml);

// The words of a text separated by blanks and line ends.
std::set<std::string> wordsOf(const std::string& text);

// Installs the build folder into `prefix` with cmake --install.
ProgramResult installBuildInto(const std::string& prefix);

}  // namespace whittle::test
