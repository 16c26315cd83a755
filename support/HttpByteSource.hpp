// A file on a web server (an http:// or https:// address) read by byte ranges, so
// that a few parts of an archive of several gigabytes can be read without bringing
// the whole of it here. Nothing is written to disk.
//
// Opening asks for the file's last bytes ("Range: bytes=-N"): the answer tells the
// size and the validator (ETag, Last-Modified), and its bytes are kept, as an
// archive's reader starts with its end. Every later request names one range and
// carries the validator in If-Range; each answer's validator and total size are
// checked against the first, so that a file replaced on the server while it is read
// is reported, not mixed up.
//
// Every reason handed back names the address: `unable to read "URL" - ...`.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/ByteSource.hpp"

namespace whittle {

struct HttpLimits {
    // Time to make the connection.
    std::chrono::milliseconds connectTimeout{std::chrono::seconds(30)};
    // A transfer that receives nothing for this long is given up (counted in whole
    // seconds, at least one).
    std::chrono::milliseconds stallTimeout{std::chrono::seconds(30)};
    long maxRedirects = 5;
    // Bytes asked for at the end of the file when it is opened.
    std::uint64_t tailBytes = 128 * 1024;
    // Two announced ranges closer than this may be fetched as one...
    std::uint64_t mergeGap = 64 * 1024;
    // ...as long as all the bytes fetched between them stay within this share of the
    // announced bytes (per ten thousand: 100 is 1%).
    std::uint64_t overFetchPerTenThousand = 100;
    // Most bytes fetched ahead of a read, within announced ranges, and kept in memory.
    std::size_t readAheadBytes = 8 * 1024 * 1024;
};

// One request made to the server, for verbose output.
struct HttpRequestRecord {
    ByteRange range;              // the bytes asked for
    long status = 0;              // the final answer's status, 0 if none came
    std::uint64_t bodyBytes = 0;  // bytes of the answer's body received
    long redirects = 0;
};

class HttpByteSource : public ByteSource {
public:
    using FetchObserver = std::function<void(std::uint64_t fetchedSoFar, std::uint64_t size)>;
    using RequestObserver = std::function<void(const HttpRequestRecord&)>;

    // Answers null, with the reason in `error`, when the file cannot be read by ranges.
    static std::unique_ptr<HttpByteSource> open(const std::string& url, std::string& error,
                                                const HttpLimits& limits = {});

    ~HttpByteSource() override;
    HttpByteSource(const HttpByteSource&) = delete;
    HttpByteSource& operator=(const HttpByteSource&) = delete;

    const std::string& name() const override { return url_; }
    std::uint64_t size() const override { return size_; }
    bool read(std::uint64_t offset, std::size_t length, std::string& out, std::string& error) override;
    bool stream(const ByteRange& range, const std::function<bool(std::string_view)>& sink,
                std::string& error) override;
    // Replaces the ranges announced before. Reads inside the announced ranges then fetch
    // ahead, to the end of the merged range they fall in (within readAheadBytes).
    void willRead(const std::vector<ByteRange>& ranges) override;
    std::uint64_t bytesFetched() const override { return bytesFetched_; }
    std::string lastFailure() const override { return lastFailure_; }

    // Requests made so far, redirects included.
    std::uint64_t requestCount() const { return requestCount_; }
    // The ranges fetched for the announced ones, after merging.
    const std::vector<ByteRange>& mergedRanges() const { return planned_; }

    // Told after each piece of a body received (for a progress line).
    void onFetched(FetchObserver observer) { fetchObserver_ = std::move(observer); }
    // Told after each request.
    void onRequest(RequestObserver observer) { requestObserver_ = std::move(observer); }

    static bool isHttpAddress(std::string_view text);

private:
    struct Transfer;
    struct Validator {
        std::string etag;
        std::string lastModified;
    };

    HttpByteSource(std::string url, const HttpLimits& limits);

    bool openTail(std::string& error);
    // Fetches [offset, fetchEnd): the bytes before sinkEnd go to the sink, the rest
    // becomes the kept window.
    bool fetch(std::uint64_t offset, std::uint64_t sinkEnd, std::uint64_t fetchEnd,
               const std::function<bool(std::string_view)>& sink, std::string& error);
    bool perform(Transfer& transfer, std::string& error);
    std::string checkAnswer(const Transfer& transfer) const;
    std::string checkPartialAnswer(const Transfer& transfer) const;
    std::string checkSameFile(const Transfer& transfer) const;
    std::string transferFailure(const Transfer& transfer, int code) const;
    std::uint64_t fetchEndFor(std::uint64_t offset, std::uint64_t end) const;
    static std::size_t headerCallback(char* data, std::size_t size, std::size_t count, void* context);
    static std::size_t bodyCallback(char* data, std::size_t size, std::size_t count, void* context);
    bool takeHeader(Transfer& transfer, std::string_view line);
    void startAnswer(Transfer& transfer, std::string_view line);
    bool endHeaders(Transfer& transfer);
    void takeBody(Transfer& transfer, std::string_view bytes);
    std::string failure(const std::string& reason) const;

    std::string url_;
    std::string effectiveUrl_;  // after the redirects of the first request
    HttpLimits limits_;
    void* curl_ = nullptr;
    std::uint64_t size_ = 0;
    Validator validator_;
    std::vector<ByteRange> planned_;
    std::uint64_t windowOffset_ = 0;
    std::string window_;
    std::uint64_t bytesFetched_ = 0;
    std::string lastFailure_;
    std::uint64_t requestCount_ = 0;
    FetchObserver fetchObserver_;
    RequestObserver requestObserver_;
};

}  // namespace whittle
