#include "platform/diskimage/StopCleanup.hpp"
#include "platform/diskimage/BlockTables.hpp"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "platform/diskimage/Crc32.hpp"
#include "platform/diskimage/DiskImageError.hpp"
#include "platform/diskimage/DiskImageFormat.hpp"

namespace whittle::diskimage {

namespace fmt = format;

namespace {

constexpr std::size_t kSector = fmt::kSectorSize;
constexpr std::uint64_t kLargestChunk = fmt::chunks::kLargestWrittenChunkSectors;

bool isZeroSector(const char* sector) {
    std::uint64_t words[kSector / sizeof(std::uint64_t)];
    std::memcpy(words, sector, kSector);
    if (words[0] != 0) return false;  // the common case, decided by one word
    std::uint64_t any = 0;
    for (std::uint64_t word : words) any |= word;
    return any == 0;
}

}  // namespace

void BlockTableBuilder::beginEntry(std::string_view partitionName, std::string_view partitionType) {
    if (inEntry_) endEntry();
    // IDs count from -1 and descriptors from 0, as in the platform's GPT images.
    auto index = static_cast<std::int64_t>(entries_.size());
    BlockTableEntry entry;
    entry.name = std::string(partitionName) + " (" + std::string(partitionType) + " : " + std::to_string(index) + ")";
    entry.id = std::to_string(index - 1);
    entry.table.firstSector = diskSectors_;
    entry.table.blockDescriptor = static_cast<std::uint32_t>(index);
    entries_.push_back(std::move(entry));
    inEntry_ = true;
    entrySectors_ = 0;
    entryCrc_ = 0;
}

namespace {

// Scans one part of a span, on whatever thread.
class SectorScanner {
public:
    explicit SectorScanner(ScannedSectors& result) : result_(result) {}

    void scan(std::string_view sectors, std::uint64_t dataForkOffset) {
        const std::size_t count = sectors.size() / kSector;
        auto bytesOf = [&](std::size_t first, std::size_t end) {
            return sectors.substr(first * kSector, (end - first) * kSector);
        };
        std::size_t runStart = 0;
        std::size_t zeroRun = 0;  // zero sectors just before index
        for (std::size_t index = 0; index < count; ++index) {
            if (isZeroSector(sectors.data() + index * kSector)) {
                ++zeroRun;
                continue;
            }
            // A long run of zeros ends the data before it; a short one stays inside.
            if (zeroRun >= fmt::chunks::kShortestZeroRunSectors) {
                std::size_t zeroStart = index - zeroRun;
                addRaw(bytesOf(runStart, zeroStart), dataForkOffset + runStart * kSector);
                addZeros(zeroRun, dataForkOffset + zeroStart * kSector);
                runStart = index;
            } else if (index + 1 - runStart >= kLargestChunk) {
                // A full chunk is summed while its bytes are still in the cache.
                addRaw(bytesOf(runStart, index + 1), dataForkOffset + runStart * kSector);
                runStart = index + 1;
            }
            zeroRun = 0;
        }
        std::size_t zeroStart = count - zeroRun;
        addRaw(bytesOf(runStart, zeroStart), dataForkOffset + runStart * kSector);
        addZeros(zeroRun, dataForkOffset + zeroStart * kSector);
    }

private:
    void addRaw(std::string_view sectors, std::uint64_t dataForkOffset) {
        while (!sectors.empty()) {
            std::size_t length = std::min<std::size_t>(sectors.size(), kLargestChunk * kSector);
            result_.crc = crc32Update(result_.crc, sectors.substr(0, length));
            add(fmt::chunks::kTypeRaw, length / kSector, dataForkOffset, length);
            sectors.remove_prefix(length);
            dataForkOffset += length;
        }
    }

    void addZeros(std::uint64_t sectors, std::uint64_t dataForkOffset) {
        result_.zeroBytes += sectors * kSector;
        while (sectors > 0) {
            std::uint64_t step = std::min(sectors, kLargestChunk);
            result_.crc = crc32AppendZeros(result_.crc, step * kSector);
            // Chunks without bytes still point at a real data-fork position: a reader that
            // takes an offset of 0 as "relative to the previous entry" is never misled.
            add(fmt::chunks::kTypeZeroFill, step, dataForkOffset, 0);
            sectors -= step;
            dataForkOffset += step * kSector;
        }
    }

    void add(std::uint32_t type, std::uint64_t sectors, std::uint64_t storedOffset, std::uint64_t storedLength) {
        Chunk chunk;
        chunk.type = type;
        chunk.firstSector = sectorsSoFar_;
        chunk.sectorCount = sectors;
        chunk.storedOffset = storedOffset;
        chunk.storedLength = storedLength;
        result_.chunks.push_back(chunk);
        sectorsSoFar_ += sectors;
    }

    ScannedSectors& result_;
    std::uint64_t sectorsSoFar_ = 0;
};

// Spans smaller than this are not worth a second thread.
constexpr std::size_t kSmallestParallelSpan = 64 << 20;

// Appends the chunks of the next part of a span, partBytes long.
void append(ScannedSectors& whole, const ScannedSectors& part, std::uint64_t partBytes) {
    std::uint64_t sectorsBefore = 0;
    if (!whole.chunks.empty()) sectorsBefore = whole.chunks.back().firstSector + whole.chunks.back().sectorCount;
    for (Chunk chunk : part.chunks) {
        chunk.firstSector += sectorsBefore;
        whole.chunks.push_back(chunk);
    }
    whole.crc = static_cast<std::uint32_t>(crc32_combine64(whole.crc, part.crc, static_cast<z_off64_t>(partBytes)));
    whole.zeroBytes += part.zeroBytes;
}

}  // namespace

ScannedSectors scanSectors(std::string_view sectors, std::uint64_t dataForkOffset) {
    std::size_t threads = std::min<std::size_t>(std::max(1u, std::thread::hardware_concurrency()), 4);
    if (sectors.size() < kSmallestParallelSpan) threads = 1;
    // Parts hold whole largest chunks, so that splitting changes no raw chunk.
    const std::size_t granule = kLargestChunk * kSector;
    std::size_t partSize = (sectors.size() / threads + granule - 1) / granule * granule;
    std::vector<ScannedSectors> parts(threads);
    std::vector<std::thread> workers;
    for (std::size_t i = 0; i < threads; ++i) {
        std::size_t first = std::min(i * partSize, sectors.size());
        std::string_view part = sectors.substr(first, std::min(partSize, sectors.size() - first));
        auto work = [&parts, i, part, offset = dataForkOffset + first] { SectorScanner(parts[i]).scan(part, offset); };
        if (i + 1 == threads) {
            work();
        } else {
            StopSignalsBlocked stopsGoToTheMainThread;  // inherited by the worker
            workers.emplace_back(work);
        }
    }
    for (auto& worker : workers) worker.join();

    ScannedSectors whole = std::move(parts[0]);
    for (std::size_t i = 1; i < threads; ++i) {
        std::size_t first = std::min(i * partSize, sectors.size());
        append(whole, parts[i], std::min(partSize, sectors.size() - first));
    }
    return whole;
}

void BlockTableBuilder::addSectors(std::string_view sectors, std::uint64_t dataForkOffset) {
    if (!inEntry_ || sectors.size() % kSector != 0) throw DiskImageError("internal error: sectors outside an entry");
    ScannedSectors scanned = scanSectors(sectors, dataForkOffset);
    for (const Chunk& chunk : scanned.chunks) appendChunk(chunk.type, chunk.sectorCount, chunk.storedOffset);
    if (!sectors.empty()) entryEnd_ = dataForkOffset + sectors.size();
    entryCrc_ =
        static_cast<std::uint32_t>(crc32_combine64(entryCrc_, scanned.crc, static_cast<z_off64_t>(sectors.size())));
    zeroBytes_ += scanned.zeroBytes;
}

void BlockTableBuilder::addStoredSectors(std::uint64_t byteCount, std::uint64_t dataForkOffset, std::uint32_t crc) {
    if (!inEntry_ || byteCount % kSector != 0) throw DiskImageError("internal error: sectors outside an entry");
    appendChunk(fmt::chunks::kTypeRaw, byteCount / kSector, dataForkOffset);
    entryCrc_ = static_cast<std::uint32_t>(crc32_combine64(entryCrc_, crc, static_cast<z_off64_t>(byteCount)));
}

void BlockTableBuilder::addZeroSectors(std::uint64_t sectors, std::uint64_t dataForkOffset) {
    if (!inEntry_) throw DiskImageError("internal error: sectors outside an entry");
    appendChunk(fmt::chunks::kTypeZeroFill, sectors, dataForkOffset);
    entryCrc_ = crc32AppendZeros(entryCrc_, sectors * kSector);
    zeroBytes_ += sectors * kSector;
}

void BlockTableBuilder::appendChunk(std::uint32_t type, std::uint64_t sectors, std::uint64_t dataForkOffset) {
    std::vector<Chunk>& chunks = entries_.back().table.chunks;
    const bool raw = type == fmt::chunks::kTypeRaw;
    while (sectors > 0) {
        Chunk* last = chunks.empty() ? nullptr : &chunks.back();
        bool joins = last && last->type == type && last->sectorCount < kLargestChunk &&
                     (raw ? last->storedOffset + last->storedLength == dataForkOffset : true);
        if (!joins) {
            Chunk chunk;
            chunk.type = type;
            chunk.firstSector = entrySectors_;
            // Chunks without bytes still point at a real data-fork position: a reader that
            // takes an offset of 0 as "relative to the previous entry" is never misled.
            chunk.storedOffset = dataForkOffset;
            chunks.push_back(chunk);
            last = &chunks.back();
        }
        std::uint64_t step = std::min(sectors, kLargestChunk - last->sectorCount);
        last->sectorCount += step;
        if (raw) last->storedLength += step * kSector;
        entrySectors_ += step;
        sectors -= step;
        if (raw) dataForkOffset += step * kSector;
    }
    entryEnd_ = raw ? dataForkOffset : std::max(entryEnd_, dataForkOffset);
}

void BlockTableBuilder::endEntry() {
    if (!inEntry_) return;
    ChunkTable& table = entries_.back().table;
    Chunk terminator;
    terminator.type = fmt::chunks::kTypeTerminator;
    terminator.firstSector = entrySectors_;
    terminator.storedOffset = entryEnd_;
    table.chunks.push_back(terminator);
    table.sectorCount = entrySectors_;
    table.checksum = ChecksumRecord::crc32(entryCrc_);
    diskSectors_ += entrySectors_;
    inEntry_ = false;
}

std::string imageTail(const std::vector<BlockTableEntry>& entries, std::uint64_t dataForkLength,
                      std::uint32_t imageVariant) {
    if (entries.empty()) throw DiskImageError("internal error: an image without entries");
    std::string xml = resourceListXml(entries);
    Trailer trailer;
    trailer.version = fmt::trailer::kVersion;
    trailer.headerSize = fmt::trailer::kSize;
    trailer.flags = fmt::trailer::kFlagFlattened;
    trailer.dataForkOffset = 0;
    trailer.dataForkLength = dataForkLength;
    trailer.xmlOffset = dataForkLength;
    trailer.xmlLength = xml.size();
    trailer.masterChecksum = ChecksumRecord::crc32(masterChecksumOf(entries));
    trailer.imageVariant = imageVariant;
    for (const auto& entry : entries) trailer.sectorCount += entry.table.sectorCount;
    return xml + serializeTrailer(trailer);
}

}  // namespace whittle::diskimage
