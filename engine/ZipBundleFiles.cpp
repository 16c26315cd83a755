#include "engine/ZipBundleFiles.hpp"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <utility>

#include "support/Paths.hpp"
#include "support/LogObject.hpp"

namespace whittle {

namespace {

bool later(const struct timespec& a, const struct timespec& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

}  // namespace

struct ZipBundleFiles::Node {
    ItemKind kind = ItemKind::Folder;
    const ZipEntry* entry = nullptr;
    std::string linkText;
    struct timespec modified {};
    std::map<std::string, std::unique_ptr<Node>, std::less<>> children;

    const Node* child(std::string_view name) const {
        auto found = children.find(name);
        return found == children.end() ? nullptr : found->second.get();
    }
};

ZipBundleFiles::ZipBundleFiles(std::shared_ptr<const ZipArchive> archive)
    : BundleFiles(archive->name()), archive_(std::move(archive)), rootNode_(std::make_unique<Node>()) {
    chooseRoot();

    // Link texts are read now, all of them announced first so that a far archive can
    // bring them in few requests.
    std::vector<ByteRange> linkRanges;
    for (const auto& entry : archive_->entries()) {
        if (entry.isSymlink) linkRanges.push_back({entry.localHeaderOffset, entry.extentLimit - entry.localHeaderOffset});
    }
    if (!linkRanges.empty()) archive_->source().willRead(linkRanges);

    for (const auto& entry : archive_->entries()) {
        if (!entry.path.starts_with(prefix_)) {
            if (entry.path + "/" == prefix_) rootNode_->modified = entry.modified;
            continue;
        }
        addEntry(entry, std::string_view(entry.path).substr(prefix_.size()));
    }
}

ZipBundleFiles::~ZipBundleFiles() = default;

void ZipBundleFiles::chooseRoot() {
    const auto& entries = archive_->entries();
    if (entries.empty()) return;
    std::string top = entries.front().path.substr(0, entries.front().path.find('/'));
    bool topIsFolder = true;
    bool holdsRestore = false;
    for (const auto& entry : entries) {
        std::string_view path = entry.path;
        if (path == top) {
            topIsFolder = topIsFolder && entry.isFolder;
            continue;
        }
        if (!path.starts_with(top + "/")) return;
        std::string_view below = path.substr(top.size() + 1);
        holdsRestore = holdsRestore || below.starts_with("Restore/") || (below == "Restore" && entry.isFolder);
    }
    if (topIsFolder && holdsRestore) prefix_ = top + "/";
}

void ZipBundleFiles::warnLeftOut(const ZipEntry& entry, std::string_view reason) const {
    warnZipEntryLeftOut(archive_->name(), entry.storedName, reason);
}

// An entry that cannot be read is warned about; when the archive itself could not be
// read (a far server that failed or changed the file), that is an error of the whole
// archive, said once.
void ZipBundleFiles::reportReadFailure(const std::string& reason) const {
    std::string sourceFailure = archive_->source().lastFailure();
    if (sourceFailure.empty()) {
        Log("!!! WARNING: %@", reason);
    } else if (!sourceFailureSaid_) {
        Log("XXX ERROR: %@.", sourceFailure);
        sourceFailureSaid_ = true;
    }
}

void ZipBundleFiles::addEntry(const ZipEntry& entry, std::string_view relative) {
    ItemKind kind = entry.isFolder ? ItemKind::Folder : entry.isSymlink ? ItemKind::Link : ItemKind::File;
    std::string linkText;
    if (kind == ItemKind::Link) {
        std::string error;
        if (!archive_->readEntry(entry, linkText, error, ZipArchive::kMaxLinkLength)) {
            reportReadFailure(error);
            return;
        }
        // No link on disk can hold these.
        if (linkText.empty() || linkText.find('\0') != std::string::npos) {
            warnLeftOut(entry, "its link text is empty or holds a NUL byte");
            return;
        }
    }
    // Finds or makes the folders on the way, then places the entry.
    std::vector<std::string> steps = pathSteps(relative);
    std::vector<Node*> path{rootNode_.get()};
    for (std::size_t index = 0; index + 1 < steps.size(); ++index) {
        auto& slot = path.back()->children[steps[index]];
        if (!slot) slot = std::make_unique<Node>();
        if (slot->kind != ItemKind::Folder) {
            warnLeftOut(entry, format("\"%@\" above it is not a folder", slot->entry->path));
            return;
        }
        path.push_back(slot.get());
    }
    auto& slot = path.back()->children[steps.back()];
    if (slot) {
        // Only a folder implied by earlier entries can already stand here.
        if (kind != ItemKind::Folder || slot->entry) {
            warnLeftOut(entry, "other entries need a folder of that name");
            return;
        }
    } else {
        slot = std::make_unique<Node>();
        slot->kind = kind;
        slot->linkText = std::move(linkText);
    }
    slot->entry = &entry;
    slot->modified = entry.modified;
    for (Node* folder : path) {
        if (!folder->entry && later(entry.modified, folder->modified)) folder->modified = entry.modified;
    }
}

// Walks the path from the root as the system walks one beneath a folder: ".." never
// above the root, links followed (the last one only when asked), an absolute link or
// a climb above the root counting as leaving the bundle.
ZipBundleFiles::Resolution ZipBundleFiles::resolve(std::string_view relative, bool followLastLink) const {
    std::vector<std::string> given = pathSteps(relative);
    // Each pending step remembers which given step it comes from, to name the way out.
    std::deque<std::pair<std::string, std::size_t>> pending;
    for (std::size_t index = 0; index < given.size(); ++index) pending.emplace_back(given[index], index);
    std::vector<const Node*> walked{rootNode_.get()};
    int hops = 0;
    auto leave = [&](std::size_t origin) {
        std::string step;
        for (std::size_t index = 0; index <= origin; ++index) step = joinPath(step, given[index]);
        noteEscape(step);
        return Resolution{nullptr, ENOENT, true};
    };
    while (!pending.empty()) {
        auto [name, origin] = std::move(pending.front());
        pending.pop_front();
        const Node* current = walked.back();
        if (current->kind != ItemKind::Folder) return {nullptr, ENOTDIR};
        if (name == ".") continue;
        if (name == "..") {
            if (walked.size() == 1) return leave(origin);
            walked.pop_back();
            continue;
        }
        const Node* next = current->child(name);
        if (!next) return {nullptr, ENOENT};
        if (next->kind == ItemKind::Link && (!pending.empty() || followLastLink)) {
            if (++hops > kMaxLinkHops) return {nullptr, ELOOP};
            if (next->linkText.starts_with('/')) return leave(origin);
            std::vector<std::string> target = pathSteps(next->linkText);
            for (auto step = target.rbegin(); step != target.rend(); ++step) pending.emplace_front(*step, origin);
            continue;
        }
        walked.push_back(next);
    }
    return {walked.back(), 0};
}

void ZipBundleFiles::noteEscape(const std::string& step) const { noteEscapingLink(step); }

bool ZipBundleFiles::exists(std::string_view relative) const { return resolve(relative, false).node != nullptr; }

bool ZipBundleFiles::isFolder(std::string_view relative) const {
    const Node* node = resolve(relative, false).node;
    return node && node->kind == ItemKind::Folder;
}

std::optional<std::string> ZipBundleFiles::linkTarget(std::string_view relative) const {
    const Node* node = resolve(relative, false).node;
    if (!node || node->kind != ItemKind::Link) return std::nullopt;
    // A link that leads outside is treated as if it were not there; one that leads
    // nowhere, or round in a loop, stays a link.
    if (resolve(relative, true).leftBundle) return std::nullopt;
    return node->linkText;
}

std::optional<std::string> ZipBundleFiles::readFile(std::string_view relative, int* error) const {
    auto fail = [error](int number) -> std::optional<std::string> {
        if (error) *error = number;
        return std::nullopt;
    };
    Resolution found = resolve(relative, true);
    if (!found.node) return fail(found.error);
    if (found.node->kind != ItemKind::File) return fail(0);
    const ZipEntry& entry = *found.node->entry;
    if (entry.uncompressedSize > kMaxWholeRead) return fail(EFBIG);
    std::string content;
    std::string reason;
    if (!archive_->readEntry(entry, content, reason, kMaxWholeRead)) {
        reportReadFailure(reason);
        return fail(EIO);
    }
    return content;
}

std::optional<struct timespec> ZipBundleFiles::modificationTime(std::string_view relative) const {
    const Node* node = resolve(relative, false).node;
    if (!node) return std::nullopt;
    return node->modified;
}

std::vector<std::string> ZipBundleFiles::entries(std::string_view relativeFolder) const {
    std::vector<std::string> names;
    const Node* folder = resolve(relativeFolder, true).node;
    if (!folder || folder->kind != ItemKind::Folder) return names;
    for (const auto& [name, child] : folder->children) names.push_back(name);
    return names;
}

void ZipBundleFiles::listDeep(std::string_view relativeFolder, std::vector<std::string>& out) const {
    const Node* folder = resolve(relativeFolder, true).node;
    if (!folder || folder->kind != ItemKind::Folder) return;
    // Depth first, each folder's children in name order, without recursion: a hostile
    // archive may nest thousands of folders.
    std::vector<std::pair<std::string, const Node*>> toVisit;
    auto pushChildren = [&toVisit](const std::string& path, const Node* node) {
        for (auto child = node->children.rbegin(); child != node->children.rend(); ++child) {
            toVisit.emplace_back(joinPath(path, child->first), child->second.get());
        }
    };
    pushChildren(std::string(relativeFolder), folder);
    while (!toVisit.empty()) {
        auto [path, node] = std::move(toVisit.back());
        toVisit.pop_back();
        out.push_back(path);
        if (node->kind == ItemKind::Folder) pushChildren(path, node);
    }
}

std::optional<ZipBundleFiles::Item> ZipBundleFiles::itemAt(std::string_view relative) const {
    const Node* node = resolve(relative, false).node;
    if (!node) return std::nullopt;
    return Item{node->kind, node->entry};
}

}  // namespace whittle
