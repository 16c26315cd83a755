#include "MemoryBundleFiles.hpp"

#include <algorithm>
#include <cerrno>
#include <vector>

#include "support/Paths.hpp"

namespace whittle::test {

namespace {

constexpr int kMostLinkHops = 40;

std::string joined(const std::vector<std::string>& steps, std::size_t count) {
    std::string path;
    for (std::size_t i = 0; i < count; ++i) path += (i ? "/" : "") + steps[i];
    return path;
}

}  // namespace

MemoryBundleFiles& MemoryBundleFiles::file(const std::string& relative, std::string bytes) {
    addParentsOf(relative);
    items_[relative] = Item{Kind::File, std::move(bytes)};
    return *this;
}

MemoryBundleFiles& MemoryBundleFiles::folder(const std::string& relative) {
    addParentsOf(relative);
    items_[relative] = Item{Kind::Folder, {}};
    return *this;
}

MemoryBundleFiles& MemoryBundleFiles::link(const std::string& relative, std::string target) {
    addParentsOf(relative);
    items_[relative] = Item{Kind::Link, std::move(target)};
    return *this;
}

MemoryBundleFiles& MemoryBundleFiles::time(struct timespec when) {
    time_ = when;
    return *this;
}

void MemoryBundleFiles::addParentsOf(const std::string& relative) {
    auto steps = pathSteps(relative);
    for (std::size_t count = 1; count < steps.size(); ++count) items_.try_emplace(joined(steps, count), Item{Kind::Folder, {}});
}

std::optional<std::string> MemoryBundleFiles::resolved(std::string_view relative, bool followLast) const {
    std::vector<std::string> pending = pathSteps(relative);
    std::reverse(pending.begin(), pending.end());
    std::vector<std::string> done;
    int hops = 0;
    while (!pending.empty()) {
        std::string step = std::move(pending.back());
        pending.pop_back();
        if (step == ".") continue;
        if (step == "..") {
            if (done.empty()) return std::nullopt;
            done.pop_back();
            continue;
        }
        done.push_back(step);
        std::string here = joined(done, done.size());
        auto found = items_.find(here);
        bool last = pending.empty();
        if (found == items_.end() || found->second.kind != Kind::Link || (last && !followLast)) continue;
        const std::string& target = found->second.content;
        if (++hops > kMostLinkHops || target.empty() || target.front() == '/') return std::nullopt;
        done.pop_back();
        auto targetSteps = pathSteps(target);
        pending.insert(pending.end(), targetSteps.rbegin(), targetSteps.rend());
    }
    return joined(done, done.size());
}

const MemoryBundleFiles::Item* MemoryBundleFiles::itemAt(std::string_view relative, bool followLast) const {
    auto path = resolved(relative, followLast);
    if (!path) {
        noteEscapingLink(std::string(relative));
        return nullptr;
    }
    static const Item kRoot{Kind::Folder, {}};
    if (path->empty()) return &kRoot;
    auto found = items_.find(*path);
    return found == items_.end() ? nullptr : &found->second;
}

bool MemoryBundleFiles::exists(std::string_view relative) const { return itemAt(relative, false) != nullptr; }

bool MemoryBundleFiles::isFolder(std::string_view relative) const {
    const Item* item = itemAt(relative, false);
    return item && item->kind == Kind::Folder;
}

std::optional<std::string> MemoryBundleFiles::linkTarget(std::string_view relative) const {
    const Item* item = itemAt(relative, false);
    if (!item || item->kind != Kind::Link) return std::nullopt;
    if (!resolved(relative, true)) {
        noteEscapingLink(std::string(relative));
        return std::nullopt;
    }
    return item->content;
}

std::optional<std::string> MemoryBundleFiles::readFile(std::string_view relative, int* error) const {
    ++reads_[std::string(relative)];
    const Item* item = itemAt(relative, true);
    if (!item || item->kind != Kind::File) {
        if (error) *error = item ? 0 : ENOENT;
        return std::nullopt;
    }
    return item->content;
}

std::optional<struct timespec> MemoryBundleFiles::modificationTime(std::string_view relative) const {
    if (!exists(relative)) return std::nullopt;
    return time_;
}

std::vector<std::string> MemoryBundleFiles::entries(std::string_view relativeFolder) const {
    std::vector<std::string> names;
    auto folder = resolved(relativeFolder, true);
    if (!folder) {
        noteEscapingLink(std::string(relativeFolder));
        return names;
    }
    if (!folder->empty()) {
        auto found = items_.find(*folder);
        if (found == items_.end() || found->second.kind != Kind::Folder) return names;
    }
    // The paths below the folder stand together in the sorted map, right after its prefix.
    std::string prefix = folder->empty() ? "" : *folder + "/";
    for (auto at = items_.lower_bound(prefix); at != items_.end() && at->first.starts_with(prefix); ++at) {
        std::string_view rest = std::string_view(at->first).substr(prefix.size());
        if (!rest.empty() && rest.find('/') == std::string_view::npos) names.emplace_back(rest);
    }
    return names;
}

int MemoryBundleFiles::readsOf(const std::string& relative) const {
    auto found = reads_.find(relative);
    return found == reads_.end() ? 0 : found->second;
}

}  // namespace whittle::test
