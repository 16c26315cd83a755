#include "platform/copy/ZipArchive.hpp"

#include <fcntl.h>
#include <libdeflate.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <ctime>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/copy/CopyCommon.hpp"
#include "platform/helper/StopCleanup.hpp"
#include "support/DescriptorIo.hpp"
#include "support/ZipFormat.hpp"

namespace whittle::copy {

namespace {

// ---- the zip format (all integers little-endian; records in support/ZipFormat.hpp) ----
using namespace whittle::zip;
constexpr std::uint16_t kVersionMadeByUnix = (3 << 8) | 30;
constexpr std::uint32_t kDosDirectoryAttribute = 0x10;
constexpr std::size_t kLocalSizesOffset = 14;  // CRC-32, compressed and uncompressed size

// ---- how the work is cut ----
// Files up to this size are compressed whole, in one piece of work; larger ones in
// parts of kPartSize, each ending on a byte boundary so that the parts join into one
// deflate stream.
constexpr std::uint64_t kLargestWholeFile = 4 << 20;
constexpr std::uint64_t kPartSize = 1 << 20;
// An entry whose data might need more than 32 bits gets 64-bit sizes from the start.
constexpr std::uint64_t kZip64Threshold = 0xF0000000;
constexpr int kCompressionLevel = 6;

// ---- compression ----

struct Compressed {
    std::string bytes;
    std::uint32_t crc = 0;
    std::uint64_t inputLength = 0;
    bool stored = false;  // bytes are the input itself
};

// A buffer that keeps its memory from one piece of work to the next, and is not
// cleared before it is filled.
class Scratch {
public:
    char* reserve(std::size_t length) {
        if (length > capacity_) {
            bytes_ = std::make_unique_for_overwrite<char[]>(length);
            capacity_ = length;
        }
        return bytes_.get();
    }

private:
    std::unique_ptr<char[]> bytes_;
    std::size_t capacity_ = 0;
};

// Reads length bytes at offset into the thread's input buffer.
std::string_view readRange(int fd, std::uint64_t offset, std::uint64_t length, const std::string& path) {
    thread_local Scratch input;
    char* bytes = input.reserve(static_cast<std::size_t>(length));
    ssize_t got = readAllAt(fd, bytes, static_cast<std::size_t>(length), offset);
    if (got < 0) failOn(path, "read", errno);
    if (static_cast<std::uint64_t>(got) < length) throw CopyError("\"" + path + "\" shrank while it was being archived");
    return {bytes, static_cast<std::size_t>(length)};
}

struct CompressorFree {
    void operator()(libdeflate_compressor* compressor) const { libdeflate_free_compressor(compressor); }
};

// A whole file: deflated, or stored when deflating does not make it smaller.
Compressed compressWhole(std::string_view input) {
    thread_local std::unique_ptr<libdeflate_compressor, CompressorFree> compressor(
        libdeflate_alloc_compressor(kCompressionLevel));
    thread_local Scratch output;
    if (!compressor) throw std::bad_alloc();
    Compressed result;
    result.inputLength = input.size();
    result.crc = libdeflate_crc32(0, input.data(), input.size());
    if (!input.empty()) {
        std::size_t bound = libdeflate_deflate_compress_bound(compressor.get(), input.size());
        char* compressed = output.reserve(bound);
        std::size_t length = libdeflate_deflate_compress(compressor.get(), input.data(), input.size(), compressed, bound);
        if (length != 0 && length < input.size()) {
            result.bytes.assign(compressed, length);
            return result;
        }
    }
    result.bytes.assign(input);
    result.stored = true;
    return result;
}

// One part of a large file, as raw deflate data that the next part continues: every
// part but the last ends with a flush to a byte boundary, the last ends the stream.
Compressed compressPart(std::string_view input, bool last) {
    z_stream stream{};
    if (deflateInit2(&stream, kCompressionLevel, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::bad_alloc();
    Compressed result;
    result.inputLength = input.size();
    result.crc = static_cast<std::uint32_t>(crc32_z(0, reinterpret_cast<const Bytef*>(input.data()), input.size()));
    thread_local Scratch output;
    std::size_t bound = deflateBound(&stream, static_cast<uLong>(input.size())) + 16;
    char* compressed = output.reserve(bound);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data()));
    stream.avail_in = static_cast<uInt>(input.size());
    stream.next_out = reinterpret_cast<Bytef*>(compressed);
    stream.avail_out = static_cast<uInt>(bound);
    int status = deflate(&stream, last ? Z_FINISH : Z_SYNC_FLUSH);
    bool complete = last ? status == Z_STREAM_END : (status == Z_OK && stream.avail_in == 0);
    result.bytes.assign(compressed, stream.total_out);
    deflateEnd(&stream);
    if (!complete) throw CopyError("cannot compress data for the archive");
    return result;
}

// A few threads doing the compression; results are collected in submission order.
class WorkerPool {
public:
    explicit WorkerPool(unsigned count) {
        // The workers inherit a mask without the stop signals: a stop is handled on the
        // main thread, which removes the partial archive.
        helper::StopSignalsBlocked stopsGoToTheMainThread;
        for (unsigned i = 0; i < count; ++i) threads_.emplace_back([this] { run(); });
    }
    ~WorkerPool() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        for (auto& thread : threads_) thread.join();
    }
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    std::future<Compressed> submit(std::function<Compressed()> work) {
        std::packaged_task<Compressed()> task(std::move(work));
        auto result = task.get_future();
        {
            std::lock_guard lock(mutex_);
            queue_.push_back(std::move(task));
        }
        wake_.notify_one();
        return result;
    }

private:
    void run() {
        for (;;) {
            std::packaged_task<Compressed()> task;
            {
                std::unique_lock lock(mutex_);
                wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
                if (queue_.empty()) return;
                task = std::move(queue_.front());
                queue_.pop_front();
            }
            task();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::packaged_task<Compressed()>> queue_;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

// ---- the archive ----

struct Entry {
    std::string name;
    std::uint32_t mode = 0;
    std::int64_t modified = 0;
    bool zip64 = false;
    std::uint16_t method = kMethodStored;
    std::uint32_t crc = 0;
    std::uint64_t compressedSize = 0;
    std::uint64_t size = 0;
    std::uint64_t headerOffset = 0;
};

std::uint16_t flagsOf(const Entry& entry) {
    bool ascii = std::all_of(entry.name.begin(), entry.name.end(), [](char c) { return (c & 0x80) == 0; });
    return ascii ? 0 : kFlagUtf8Names;
}

std::string localHeader(const Entry& entry) {
    auto [date, time] = dosDateAndTime(static_cast<std::time_t>(entry.modified));
    std::string extra = timestampExtra(entry.modified);
    if (entry.zip64) {
        put16(extra, kZip64ExtraId);
        put16(extra, 16);
        put64(extra, entry.size);
        put64(extra, entry.compressedSize);
    }
    std::string header;
    put32(header, kLocalSignature);
    put16(header, entry.zip64 ? kVersionNeededZip64 : kVersionNeeded);
    put16(header, flagsOf(entry));
    put16(header, entry.method);
    put16(header, time);
    put16(header, date);
    put32(header, entry.crc);
    put32(header, entry.zip64 ? kMax32 : static_cast<std::uint32_t>(entry.compressedSize));
    put32(header, entry.zip64 ? kMax32 : static_cast<std::uint32_t>(entry.size));
    put16(header, static_cast<std::uint16_t>(entry.name.size()));
    put16(header, static_cast<std::uint16_t>(extra.size()));
    return header + entry.name + extra;
}

std::string centralHeader(const Entry& entry) {
    auto [date, time] = dosDateAndTime(static_cast<std::time_t>(entry.modified));
    std::string extra = timestampExtra(entry.modified);
    std::string large;
    if (entry.size >= kMax32 || entry.zip64) put64(large, entry.size);
    if (entry.compressedSize >= kMax32 || entry.zip64) put64(large, entry.compressedSize);
    if (entry.headerOffset >= kMax32) put64(large, entry.headerOffset);
    if (!large.empty()) {
        put16(extra, kZip64ExtraId);
        put16(extra, static_cast<std::uint16_t>(large.size()));
        extra += large;
    }
    bool sizes64 = entry.zip64 || entry.size >= kMax32 || entry.compressedSize >= kMax32;
    std::string header;
    put32(header, kCentralSignature);
    put16(header, kVersionMadeByUnix);
    put16(header, large.empty() ? kVersionNeeded : kVersionNeededZip64);
    put16(header, flagsOf(entry));
    put16(header, entry.method);
    put16(header, time);
    put16(header, date);
    put32(header, entry.crc);
    put32(header, sizes64 ? kMax32 : static_cast<std::uint32_t>(entry.compressedSize));
    put32(header, sizes64 ? kMax32 : static_cast<std::uint32_t>(entry.size));
    put16(header, static_cast<std::uint16_t>(entry.name.size()));
    put16(header, static_cast<std::uint16_t>(extra.size()));
    put16(header, 0);  // comment
    put16(header, 0);  // disk
    put16(header, 0);  // internal attributes
    put32(header, (entry.mode << 16) | (S_ISDIR(entry.mode) ? kDosDirectoryAttribute : 0));
    put32(header, clamp32(entry.headerOffset));
    return header + entry.name + extra;
}

// The archive being written, in a temporary file that is removed unless committed,
// and also when the tool is stopped.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::string& finalPath) : finalPath_(finalPath) {
        auto nameStart = finalPath.find_last_of('/') + 1;  // 0 when there is no slash
        std::string name = finalPath.substr(0, nameStart) + "." + finalPath.substr(nameStart) + ".XXXXXX";
        {
            helper::StopSignalsBlocked blocked;  // no stop between making it and registering it
            fd_ = UniqueDescriptor(::mkostemp(name.data(), O_CLOEXEC));
            if (!fd_.valid()) failOn(finalPath, "create a file beside", errno);
            helper::removeOnStop(name);
        }
        path_ = name;
    }
    ~TemporaryFile() {
        if (path_.empty()) return;
        ::unlink(path_.c_str());
        helper::keepOnStop(path_);
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    int fd() const { return fd_.get(); }

    void commit(mode_t mode) {
        if (::fchmod(fd_.get(), mode) != 0) failOn(finalPath_, "set the mode of", errno);
        if (::close(fd_.release()) != 0) failOn(finalPath_, "write", errno);
        if (::rename(path_.c_str(), finalPath_.c_str()) != 0) failOn(finalPath_, "write", errno);
        helper::keepOnStop(path_);
        path_.clear();
    }

private:
    std::string finalPath_;
    std::string path_;
    UniqueDescriptor fd_;
};

// Goes through the plan in order, hands the compression to the workers and writes the
// entries in plan order as their data comes back, keeping only a few pieces of work
// under way so that memory stays bounded.
class ZipWriter {
public:
    ZipWriter(int sourceRoot, int outputFd, const std::string& outputPath, helper::ProgressReporter& progress)
        : sourceRoot_(sourceRoot),
          output_(outputFd),
          outputPath_(outputPath),
          progress_(progress),
          workers_(std::max(1u, std::thread::hardware_concurrency())),
          mostUnderWay_(4 * std::max(1u, std::thread::hardware_concurrency())) {}

    void write(const std::vector<PlannedItem>& plan) {
        CopyTotals totals = totalsOf(plan);
        progress_.begin("zipping", totals.files, totals.bytes);
        PlanPath planPath;
        for (const PlannedItem& item : plan) {
            std::string_view path = planPath.enter(item);
            folders_.resize(item.depth);
            if (item.depth == 0) {
                openRoot();
                continue;
            }
            addItem(item, path);
        }
        folders_.clear();
        while (!steps_.empty()) writeNextStep();
        finishArchive();
        progress_.end();
    }

private:
    // What is written next: an entry's header, a piece of its data, or its end.
    struct Step {
        enum class Kind { begin, data, end } kind;
        std::shared_ptr<Entry> entry;
        std::future<Compressed> data;
        std::string path;
    };

    void openRoot() {
        UniqueDescriptor root(::fcntl(sourceRoot_, F_DUPFD_CLOEXEC, 0));
        if (!root.valid()) throw CopyError("cannot open the source folder: " + systemMessage(errno));
        folders_.push_back(std::move(root));
    }

    void addItem(const PlannedItem& item, std::string_view path) {
        int parent = folders_.back().get();
        std::string name(item.name);
        const struct stat& source = item.source;
        auto entry = std::make_shared<Entry>();
        entry->name = std::string(path.substr(2));  // without the leading "./"
        entry->mode = source.st_mode;
        entry->modified = source.st_mtim.tv_sec;
        if (S_ISDIR(source.st_mode)) {
            entry->name += "/";
            addStoredEntry(entry, "", path);
            if (!item.hasChildren) return;
            UniqueDescriptor folder(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!folder.valid()) failOn(path, "open", errno);
            folders_.push_back(std::move(folder));
        } else if (S_ISREG(source.st_mode)) {
            addFile(entry, parent, name, path, static_cast<std::uint64_t>(source.st_size));
        } else if (S_ISLNK(source.st_mode)) {
            addStoredEntry(entry, readLinkTarget(parent, name, source.st_size, path), path);
        } else {
            throw CopyError("cannot archive \"" + std::string(path) +
                            "\": only folders, files and links go into a zip archive");
        }
    }

    void addStoredEntry(const std::shared_ptr<Entry>& entry, std::string content, std::string_view path) {
        entry->size = content.size();
        std::promise<Compressed> ready;
        Compressed stored;
        stored.crc = static_cast<std::uint32_t>(crc32_z(0, reinterpret_cast<const Bytef*>(content.data()), content.size()));
        stored.inputLength = content.size();
        stored.bytes = std::move(content);
        stored.stored = true;
        ready.set_value(std::move(stored));
        addStep({Step::Kind::begin, entry, {}, std::string(path)});
        addStep({Step::Kind::data, entry, ready.get_future(), std::string(path)});
        addStep({Step::Kind::end, entry, {}, std::string(path)});
    }

    void addFile(const std::shared_ptr<Entry>& entry, int parent, const std::string& name, std::string_view path,
                 std::uint64_t size) {
        auto file = std::make_shared<UniqueDescriptor>(
            ::openat(parent, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!file->valid()) failOn(path, "open", errno);
        entry->size = size;
        entry->zip64 = size >= kZip64Threshold;
        std::string where(path);
        addStep({Step::Kind::begin, entry, {}, where});
        if (size <= kLargestWholeFile) {
            auto work = [file, size, where] { return compressWhole(readRange(file->get(), 0, size, where)); };
            addStep({Step::Kind::data, entry, workers_.submit(work), where});
        } else {
            entry->method = kMethodDeflate;
            for (std::uint64_t offset = 0; offset < size; offset += kPartSize) {
                std::uint64_t length = std::min(kPartSize, size - offset);
                bool last = offset + length == size;
                auto work = [file, offset, length, last, where] {
                    return compressPart(readRange(file->get(), offset, length, where), last);
                };
                addStep({Step::Kind::data, entry, workers_.submit(work), where});
            }
        }
        addStep({Step::Kind::end, entry, {}, where});
    }

    void addStep(Step step) {
        if (step.kind == Step::Kind::data) ++dataUnderWay_;
        steps_.push_back(std::move(step));
        while (dataUnderWay_ > mostUnderWay_) writeNextStep();
    }

    void writeNextStep() {
        Step step = std::move(steps_.front());
        steps_.pop_front();
        Entry& entry = *step.entry;
        switch (step.kind) {
            case Step::Kind::begin:
                entry.headerOffset = position_;
                entryDataStart_ = 0;
                break;
            case Step::Kind::data: {
                --dataUnderWay_;
                Compressed piece = step.data.get();
                if (entryDataStart_ == 0) {
                    // The header goes out with the first piece, which tells the method of a
                    // whole file; its sizes and checksum are filled in at the end.
                    if (entry.method != kMethodDeflate)
                        entry.method = piece.stored ? kMethodStored : kMethodDeflate;
                    writeBytes(localHeader(entry));
                    entryDataStart_ = position_;
                }
                entry.crc = static_cast<std::uint32_t>(crc32_combine64(entry.crc, piece.crc, static_cast<z_off64_t>(piece.inputLength)));
                readSoFar_ += piece.inputLength;
                writeBytes(piece.bytes);
                if (S_ISREG(entry.mode)) progress_.advance(0, piece.inputLength);
                break;
            }
            case Step::Kind::end:
                if (entryDataStart_ == 0) {  // an entry without data pieces
                    writeBytes(localHeader(entry));
                    entryDataStart_ = position_;
                }
                if (readSoFar_ != entry.size)
                    throw CopyError("\"" + step.path + "\" changed while it was being archived");
                entry.compressedSize = position_ - entryDataStart_;
                patchLocalHeader(entry);
                central_ += centralHeader(entry);
                ++entryCount_;
                readSoFar_ = 0;
                if (!S_ISDIR(entry.mode)) progress_.advance(1, 0);
                break;
        }
    }

    void patchLocalHeader(const Entry& entry) {
        std::string header = localHeader(entry);
        writeAt(header, entry.headerOffset);
    }

    void finishArchive() {
        std::uint64_t directoryOffset = position_;
        writeBytes(central_);
        writeBytes(archiveEnd(entryCount_, directoryOffset, central_.size(), kVersionMadeByUnix));
    }

    void writeBytes(std::string_view bytes) {
        writeAt(bytes, position_);
        position_ += bytes.size();
    }

    void writeAt(std::string_view bytes, std::uint64_t offset) {
        if (!writeAllAt(output_, bytes, offset)) failOn(outputPath_, "write", errno);
    }

    int sourceRoot_;
    int output_;
    std::string outputPath_;
    helper::ProgressReporter& progress_;
    WorkerPool workers_;
    std::size_t mostUnderWay_;
    std::size_t dataUnderWay_ = 0;
    std::deque<Step> steps_;
    std::vector<UniqueDescriptor> folders_;  // the source root and the folders down to the current item
    std::uint64_t position_ = 0;
    std::uint64_t entryDataStart_ = 0;
    std::uint64_t readSoFar_ = 0;
    std::string central_;
    std::uint64_t entryCount_ = 0;
};

}  // namespace

void writeZipArchive(const std::vector<PlannedItem>& plan, int sourceRoot, const std::string& archivePath,
                     mode_t newFileMode, helper::ProgressReporter& progress) {
    TemporaryFile output(archivePath);
    {
        ZipWriter writer(sourceRoot, output.fd(), archivePath, progress);
        writer.write(plan);
    }
    output.commit(newFileMode);
}

}  // namespace whittle::copy
