#include "platform/diskimage/CreateImage.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <memory>
#include <optional>

#include "platform/diskimage/BlockTables.hpp"
#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/DiskImageFormat.hpp"
#include "platform/diskimage/EncryptedContainer.hpp"
#include "platform/diskimage/FileIo.hpp"
#include "platform/diskimage/PartitionMaps.hpp"
#include "platform/diskimage/Subprocess.hpp"

namespace whittle::diskimage {

namespace fmt = format;

namespace {

std::string inQuotes(const std::string& text) { return "\"" + text + "\""; }

bool endsWithIgnoringCase(std::string_view text, std::string_view suffix) {
    if (text.size() < suffix.size()) return false;
    return std::equal(
        suffix.begin(), suffix.end(), text.end() - static_cast<std::ptrdiff_t>(suffix.size()), [](char a, char b) {
            return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
        });
}

std::string askNewPassphrase(const std::string& imagePath, const PassphrasePrompt& askPassphrase) {
    auto first = askPassphrase("Enter a new passphrase for " + inQuotes(lastComponentOf(imagePath)) + ": ");
    if (!first) throw DiskImageError("encryption needs a passphrase, and there is no terminal to ask for one");
    auto second = askPassphrase("Enter the passphrase again: ");
    if (!second) throw DiskImageError("encryption needs a passphrase, and there is no terminal to ask for one");
    if (*first != *second) throw DiskImageError("the passphrases do not match");
    return *first;
}

// Zero runs this long and longer lose their disk blocks.
constexpr std::uint64_t kShortestPunchedRun = 64 << 10;
// With this many bytes of zeros the volume's data is moved together so that the image
// is small, not just sparse.
constexpr std::uint64_t kCompactionThreshold = 32 << 20;

class MappedFile {
public:
    MappedFile(int fd, std::uint64_t length) : length_(static_cast<std::size_t>(length)) {
        base_ = ::mmap(nullptr, length_, PROT_READ, MAP_SHARED | MAP_POPULATE, fd, 0);
        if (base_ == MAP_FAILED) throwSystemError("cannot read xorriso's output", errno);
    }
    ~MappedFile() { ::munmap(base_, length_); }
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;
    std::string_view bytes() const { return {static_cast<const char*>(base_), length_}; }

private:
    void* base_;
    std::size_t length_;
};

std::vector<std::string> xorrisoArguments(const ToolSettings& settings, const std::string& sourceFolder,
                                          const std::string& outputPath) {
    // Level 3 allows files of 4 GiB and more; the ISO 9660 half of the hybrid is
    // dropped, so no Rock Ridge or Joliet trees are asked for. Names are read as UTF-8
    // whatever the locale.
    return {settings.xorriso,
            "-as",
            "mkisofs",
            "-quiet",
            "-input-charset",
            "UTF-8",
            "-V",
            volumeNameFor(sourceFolder),
            "-iso-level",
            "3",
            "-hfsplus",
            "-no-pad",
            "-o",
            outputPath,
            sourceFolder};
}

void runXorriso(const ToolSettings& settings, const std::string& sourceFolder, const std::string& outputPath) {
    ChildProcess builder(xorrisoArguments(settings, sourceFolder, outputPath));
    if (builder.wait() != 0)
        throw DiskImageError("xorriso could not build the volume of " + inQuotes(sourceFolder) + " in " +
                             inQuotes(outputPath) + ": " + builder.failureReason());
}

void checkHfsSignature(std::string_view volume) {
    std::uint64_t at = fmt::hfs::kVolumeHeaderOffset;
    std::string_view signature = volume.size() >= at + 2 ? volume.substr(at, 2) : std::string_view();
    if (signature != fmt::hfs::kPlusSignature && signature != fmt::hfs::kExtendedSignature)
        throw DiskImageError("xorriso's HFS+ volume has no volume header");
}

// Makes a range read as zeros, freeing its blocks where the file system can.
void zeroRange(int fd, std::uint64_t offset, std::uint64_t length, const std::string& path) {
    if (length == 0) return;
    if (::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                    static_cast<off_t>(length)) == 0)
        return;
    static const std::string zeros(1 << 20, '\0');
    while (length > 0) {
        std::size_t step = static_cast<std::size_t>(std::min<std::uint64_t>(length, zeros.size()));
        writeAllAt(fd, std::string_view(zeros).substr(0, step), offset, path);
        offset += step;
        length -= step;
    }
}

void freeZeroRuns(int fd, const ChunkTable& table) {
    for (const Chunk& chunk : table.chunks) {
        std::uint64_t bytes = chunk.sectorCount * fmt::kSectorSize;
        if (chunk.type == fmt::chunks::kTypeZeroFill && bytes >= kShortestPunchedRun)
            ::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(chunk.storedOffset),
                        static_cast<off_t>(bytes));
    }
}

// Moves the stored chunks of the volume together over the zero runs between them;
// answers where the data fork now ends.
std::uint64_t compactVolume(int fd, ChunkTable& table, std::uint64_t volumeStart, const std::string& path) {
    std::uint64_t end = volumeStart;
    for (Chunk& chunk : table.chunks) {
        if (chunk.type == fmt::chunks::kTypeRaw) {
            // Read whole before written: the target lies before the source.
            if (chunk.storedOffset != end)
                writeAllAt(fd, readAt(fd, chunk.storedOffset, static_cast<std::size_t>(chunk.storedLength), path), end,
                           path);
            chunk.storedOffset = end;
            end += chunk.storedLength;
        } else {
            chunk.storedOffset = end;
        }
    }
    return end;
}

// The disk made of xorriso's hybrid: its HFS+ volume, where it lies in the file, and
// the partition table around it; and the chunk tables describing all of it.
struct DiskPlan {
    MappedPartition volume;
    std::optional<GptDisk> disk;
    BlockTableBuilder tables;
};

DiskPlan planDisk(int fd, const std::string& path) {
    namespace l = fmt::layout;
    auto fileSize = static_cast<std::uint64_t>(statusOf(fd, path).st_size);
    if (fileSize < fmt::apm::kSystemAreaSize) throw DiskImageError("xorriso's output is too short");
    MappedFile hybrid(fd, fileSize);
    DiskPlan plan;
    plan.volume = findHfsPartition(readPartitionMap(hybrid.bytes().substr(0, fmt::apm::kSystemAreaSize)));
    const MappedPartition& volume = plan.volume;
    if (volume.firstByte < fmt::apm::kSystemAreaSize || volume.byteCount % fmt::kSectorSize != 0 ||
        volume.byteCount > fileSize - volume.firstByte)
        throw DiskImageError("xorriso placed the HFS+ volume unexpectedly");
    std::string_view volumeBytes = hybrid.bytes().substr(volume.firstByte, volume.byteCount);
    checkHfsSignature(volumeBytes);

    const GptDisk& disk = plan.disk.emplace(volume.byteCount / fmt::kSectorSize);
    std::string table = disk.table();
    BlockTableBuilder& tables = plan.tables;
    tables.beginEntry(l::kProtectiveMbrName, l::kProtectiveMbrType);
    tables.addSectors(disk.protectiveMbr(), l::kMbrAt);
    tables.beginEntry(l::kGptHeaderName, l::kPrimaryGptHeaderType);
    tables.addSectors(disk.primaryHeader(), l::kPrimaryHeaderAt);
    tables.beginEntry(l::kGptTableName, l::kPrimaryGptTableType);
    tables.addSectors(table, l::kPrimaryTableAt);
    tables.beginEntry(l::kVolumePartitionName, l::kVolumePartitionType);
    tables.addSectors(volumeBytes, volume.firstByte);
    tables.beginEntry(l::kGptTableName, l::kBackupGptTableType);
    tables.addSectors(table, l::kBackupTableAt);
    tables.beginEntry(l::kGptHeaderName, l::kBackupGptHeaderType);
    tables.addSectors(disk.backupHeader(), l::kBackupHeaderAt);
    tables.endEntry();
    if (tables.diskSectors() != disk.totalSectors()) throw DiskImageError("internal error: disk size mismatch");
    return plan;
}

// Writes the partition table's sectors where the chunk tables say they are, and clears
// the rest of the space in front of the volume.
void writeDiskStructures(int fd, const DiskPlan& plan, const std::string& path) {
    namespace l = fmt::layout;
    const GptDisk& disk = *plan.disk;
    // Only the table's first sector holds entries; its other sectors are zero chunks.
    std::string tableStart = disk.table().substr(0, fmt::kSectorSize);
    writeAllAt(fd, disk.protectiveMbr(), l::kMbrAt, path);
    writeAllAt(fd, disk.primaryHeader(), l::kPrimaryHeaderAt, path);
    writeAllAt(fd, tableStart, l::kPrimaryTableAt, path);
    writeAllAt(fd, tableStart, l::kBackupTableAt, path);
    writeAllAt(fd, disk.backupHeader(), l::kBackupHeaderAt, path);
    // The hybrid's own partition map and ISO 9660 descriptors must not be found there.
    zeroRange(fd, l::kFrontEnd, plan.volume.firstByte - l::kFrontEnd, path);
}

// Leaves the volume's data where it is and frees the blocks of long zero runs, or,
// when zeros are plenty, moves the data together; answers where the data fork ends.
std::uint64_t settleVolumeData(int fd, DiskPlan& plan, const std::string& path) {
    ChunkTable& volumeTable = plan.tables.entries()[3].table;
    if (plan.tables.zeroBytes() >= kCompactionThreshold)
        return compactVolume(fd, volumeTable, plan.volume.firstByte, path);
    freeZeroRuns(fd, volumeTable);
    return plan.volume.firstByte + plan.volume.byteCount;
}

// Turns xorriso's hybrid image, in place, into a read-only disk image: a GUID
// partition table whose one partition is the hybrid's HFS+ volume, which stays where
// it is; the image's chunk tables describe it there.
void convertInPlace(int fd, const std::string& path) {
    DiskPlan plan = planDisk(fd, path);
    writeDiskStructures(fd, plan, path);
    std::uint64_t dataForkLength = settleVolumeData(fd, plan, path);
    if (::ftruncate(fd, static_cast<off_t>(dataForkLength)) != 0)
        throwSystemError("cannot write " + inQuotes(path), errno);
    writeAllAt(fd, imageTail(plan.tables.entries(), dataForkLength, fmt::trailer::kVariantDevice), dataForkLength,
               path);
}

void encryptInto(int plainFd, const std::string& plainPath, ByteSink& sink) {
    auto size = static_cast<std::uint64_t>(statusOf(plainFd, plainPath).st_size);
    constexpr std::size_t kPiece = 1 << 20;
    for (std::uint64_t offset = 0; offset < size; offset += kPiece)
        sink.write(readAt(plainFd, offset, static_cast<std::size_t>(std::min<std::uint64_t>(kPiece, size - offset)),
                          plainPath));
    sink.finish();
}

}  // namespace

std::string imagePathFor(const std::string& requestedPath) {
    if (endsWithIgnoringCase(requestedPath, fmt::create::kImageExtension)) return requestedPath;
    return requestedPath + std::string(fmt::create::kImageExtension);
}

std::string volumeNameFor(const std::string& folderPath) {
    std::string name = lastComponentOf(folderPath);
    if (name.empty() || name == "/" || name == "." || name == "..") return "untitled";
    if (name.size() <= fmt::create::kLongestVolumeName) return name;
    std::size_t cut = fmt::create::kLongestVolumeName;
    // Back up over UTF-8 continuation bytes so that no character is split.
    while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) --cut;
    return name.substr(0, cut);
}

std::string createImage(const CreateOptions& options, const ToolSettings& settings,
                        const PassphrasePrompt& askPassphrase) {
    std::string sourceFolder = canonicalPath(options.sourceFolder);
    struct stat status {};
    if (::stat(sourceFolder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        throw DiskImageError(inQuotes(options.sourceFolder) + " is not a folder");
    std::string imagePath = imagePathFor(options.imagePath);
    if (::lstat(imagePath.c_str(), &status) == 0) throw DiskImageError(inQuotes(imagePath) + " already exists");

    std::string passphrase;
    if (options.encrypt) passphrase = askNewPassphrase(imagePath, askPassphrase);

    TemporaryFile plain(imagePath);
    runXorriso(settings, sourceFolder, plain.path());
    convertInPlace(plain.fd(), plain.path());
    if (!options.encrypt) {
        plain.commit();
    } else {
        TemporaryFile encrypted(imagePath);
        EncryptingSink sink(encrypted.fd(), imagePath, passphrase);
        encryptInto(plain.fd(), plain.path(), sink);
        encrypted.commit();
    }
    return imagePath;
}

}  // namespace whittle::diskimage
