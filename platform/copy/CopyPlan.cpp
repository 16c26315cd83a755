#include "platform/copy/CopyPlan.hpp"

#include <fcntl.h>

#include <cerrno>

#include "platform/copy/CopyCommon.hpp"
#include "support/DescriptorIo.hpp"

namespace whittle::copy {

namespace {

bool isPlainComponent(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

class SourceScan {
public:
    SourceScan(int sourceRoot, std::vector<PlannedItem>& plan) : plan_(plan) {
        UniqueDescriptor root(::fcntl(sourceRoot, F_DUPFD_CLOEXEC, 0));
        if (!root.valid()) throw CopyError("cannot open the source folder: " + systemMessage(errno));
        folders_.push_back(std::move(root));
    }

    void add(const bom::PathVisit& visit) {
        PlannedItem item;
        item.name = visit.name;
        item.depth = visit.depth;
        item.hasChildren = visit.hasChildren;
        if (visit.depth == 0) {
            statRoot(item);
        } else {
            if (!isPlainComponent(visit.name))
                throw CopyError("refusing unsafe path \"" + std::string(visit.path) + "\" listed in the BOM");
            statChild(visit, item);
        }
        plan_.push_back(item);
    }

private:
    void statRoot(PlannedItem& item) {
        if (::fstat(folders_[0].get(), &item.source) != 0)
            throw CopyError("cannot examine the source folder: " + systemMessage(errno));
    }

    void statChild(const bom::PathVisit& visit, PlannedItem& item) {
        // The walk is depth first, so the open folders are exactly this path's parents.
        folders_.resize(visit.depth);
        int parent = folders_.back().get();
        std::string name(visit.name);
        if (::fstatat(parent, name.c_str(), &item.source, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT)
                throw CopyError("\"" + std::string(visit.path) + "\" is missing from the source folder");
            throw CopyError("cannot examine \"" + std::string(visit.path) + "\": " + systemMessage(errno));
        }
        if (!visit.hasChildren) return;
        if (S_ISLNK(item.source.st_mode))
            throw CopyError("refusing \"" + std::string(visit.path) +
                            "\": it is a symbolic link in the source folder, and the BOM lists paths inside it");
        if (!S_ISDIR(item.source.st_mode))
            throw CopyError("\"" + std::string(visit.path) +
                            "\" is not a folder in the source folder, but the BOM lists paths inside it");
        UniqueDescriptor folder(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!folder.valid())
            throw CopyError("cannot open \"" + std::string(visit.path) + "\": " + systemMessage(errno));
        folders_.push_back(std::move(folder));
    }

    std::vector<PlannedItem>& plan_;
    std::vector<UniqueDescriptor> folders_;  // the source root and the folders down to the current path
};

}  // namespace

std::vector<PlannedItem> planCopy(const bom::BomPaths& paths, int sourceRoot) {
    std::vector<PlannedItem> plan;
    plan.reserve(paths.size());
    SourceScan scan(sourceRoot, plan);
    paths.forEachPath([&scan](const bom::PathVisit& visit) { scan.add(visit); });
    return plan;
}

bool countsAsFile(const PlannedItem& item) { return !S_ISDIR(item.source.st_mode); }

CopyTotals totalsOf(const std::vector<PlannedItem>& plan) {
    CopyTotals totals;
    for (const PlannedItem& item : plan) {
        if (!countsAsFile(item)) continue;
        ++totals.files;
        if (S_ISREG(item.source.st_mode)) totals.bytes += static_cast<std::uint64_t>(item.source.st_size);
    }
    return totals;
}

std::string_view PlanPath::enter(const PlannedItem& item) {
    lengths_.resize(item.depth);
    path_.resize(lengths_.empty() ? 0 : lengths_.back());
    if (item.depth > 0) path_ += '/';
    path_ += item.name;
    lengths_.push_back(path_.size());
    return path_;
}

}  // namespace whittle::copy
