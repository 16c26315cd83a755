// Folding the work items' partial results into the run's stripped manifest and
// modified files.
#include <set>

#include "legacy/DeepMerge.hpp"
#include "legacy/Stripper2Internals.hpp"
#include "support/Helpers.hpp"

namespace whittle {

namespace {

// How the log names a modified file's kind.
const char* kindWord(const Value& content) {
    if (content.isData()) return "symlink";
    if (content.isString()) return "text file";
    if (content.isDictionary()) return "plist";
    return "file";
}

// Unites two versions of a text file block by block: a version already contained in
// the first stays out, any other is appended on a line of its own.
void mergeText(Value& existing, const Value& incoming) {
    std::string* text = existing.asMutableString();
    std::string addition(incoming.text());
    if (!addition.empty() && text->find(addition) != std::string::npos) return;
    if (!text->empty() && text->back() != '\n') *text += '\n';
    *text += addition;
    if (!addition.empty() && addition.back() != '\n') *text += '\n';
}

}  // namespace

int Stripper2::mergeStrippedManifests() {
    strippedManifest_ = Value();
    std::set<std::string> paths;
    std::size_t count = strippedManifestsList_.count();
    for (std::size_t i = 0; i < count; ++i) {
        Log("||| merging %2d/%2d stripped manifests.", i + 1, count);
        for (const auto& path : strippedManifestsList_.at(i).elements()) {
            if (path.isString()) paths.insert(std::string(path.text()));
        }
    }
    std::vector<std::string> sorted(paths.begin(), paths.end());
    sortIgnoringCase(sorted);
    strippedManifest_ = Value::stringArray(sorted);
    return 0;
}

int Stripper2::mergeModifiedFiles() {
    std::size_t count = modifiedFilesList_.count();
    Value merged = Value::dictionary();
    for (std::size_t i = 0; i < count; ++i) {
        Log("||| merging %2d/%2d modified file lists.", i + 1, count);
        Value files = modifiedFilesList_.at(i);
        const auto* entries = files.asDictionary();
        if (!entries) continue;
        // Both groups are taken before anything of this list goes in.
        std::vector<std::string> newPaths, commonPaths;
        for (const auto& entry : *entries) (merged.get(entry.first).isNone() ? newPaths : commonPaths).push_back(entry.first);

        for (const auto& path : newPaths) {
            Value content = files.get(path);
            Log("+++ adding %@ %@.", kindWord(content), path);
            merged.set(path, content);
        }
        for (const auto& path : commonPaths) {
            Value incoming = files.get(path);
            Value existing = merged.get(path);
            Log("||| merging %@ %@.", kindWord(incoming), path);
            if (existing.isDictionary() && incoming.isDictionary()) {
                if (!deepMergeDictionary(existing, incoming)) {
                    Log("XXX ERROR: Cannot merge dictionaries at %@.", path);
                    modifiedFiles_ = Value();
                    return 1;
                }
            } else if (existing.isString() && incoming.isString()) {
                mergeText(existing, incoming);
            } else if (!existing.isData() || !incoming.isData()) {
                Log("XXX ERROR: Cannot merge modified files at %@.", path);
                modifiedFiles_ = Value();
                return 1;
            } else if (!existing.equals(incoming)) {
                // The first link target stays.
                Log("!!! WARNING: multiple values to create symlink %@.", path);
            }
        }
    }
    modifiedFiles_ = merged;
    return 0;
}

}  // namespace whittle
