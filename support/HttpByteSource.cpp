#include "support/HttpByteSource.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <charconv>
#include <mutex>
#include <optional>

#include "support/Helpers.hpp"

namespace whittle {

namespace {

constexpr std::string_view kRangeUnit = "bytes ";

struct ContentRange {
    std::optional<std::uint64_t> first;  // none in "bytes */total"
    std::uint64_t last = 0;
    std::optional<std::uint64_t> total;  // none in "bytes first-last/*"
};

std::optional<std::uint64_t> parseNumber(std::string_view text) {
    std::uint64_t value = 0;
    if (text.empty()) return std::nullopt;
    auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (problem != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::optional<ContentRange> parseContentRange(std::string_view text) {
    if (!text.starts_with(kRangeUnit)) return std::nullopt;
    text.remove_prefix(kRangeUnit.size());
    auto slash = text.find('/');
    if (slash == std::string_view::npos) return std::nullopt;
    std::string_view span = text.substr(0, slash);
    std::string_view total = text.substr(slash + 1);
    ContentRange range;
    if (total != "*") {
        range.total = parseNumber(total);
        if (!range.total) return std::nullopt;
    }
    if (span == "*") {
        if (!range.total) return std::nullopt;
        return range;
    }
    auto dash = span.find('-');
    if (dash == std::string_view::npos) return std::nullopt;
    range.first = parseNumber(span.substr(0, dash));
    auto last = parseNumber(span.substr(dash + 1));
    if (!range.first || !last || *last < *range.first) return std::nullopt;
    if (range.total && *last >= *range.total) return std::nullopt;
    range.last = *last;
    return range;
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' || text.back() == '\n'))
        text.remove_suffix(1);
    return text;
}

std::string seconds(std::chrono::milliseconds duration) {
    auto count = duration.count();
    if (count % 1000 == 0) return std::to_string(count / 1000) + " s";
    std::string text = std::to_string(count / 1000) + "." + std::to_string(1000 + count % 1000).substr(1);
    while (text.back() == '0') text.pop_back();
    return text + " s";
}

long wholeSeconds(std::chrono::milliseconds duration) {
    return std::max<long>(1, static_cast<long>((duration.count() + 999) / 1000));
}

std::string rangeText(std::uint64_t first, std::uint64_t last) {
    return std::to_string(first) + "-" + std::to_string(last);
}

// The failure of an answer that ended short of what was asked.
std::string shortAnswer(std::uint64_t sent, std::uint64_t asked) {
    return "the server sent " + std::to_string(sent) + " bytes where " + std::to_string(asked) + " were asked";
}

std::uint64_t endOf(const ByteRange& range) { return range.offset + range.length; }

// The ranges inside the first `size` bytes, in order, overlapping and touching ones
// made one.
std::vector<ByteRange> coalescedWithin(const std::vector<ByteRange>& ranges, std::uint64_t size) {
    std::vector<ByteRange> spans;
    for (const auto& range : ranges)
        if (range.length > 0 && range.offset < size)
            spans.push_back({range.offset, std::min(range.length, size - range.offset)});
    std::sort(spans.begin(), spans.end(), [](const ByteRange& a, const ByteRange& b) { return a.offset < b.offset; });
    std::vector<ByteRange> kept;
    for (const auto& span : spans) {
        if (!kept.empty() && span.offset <= endOf(kept.back()))
            kept.back().length = std::max(endOf(kept.back()), endOf(span)) - kept.back().offset;
        else
            kept.push_back(span);
    }
    return kept;
}

// Joins neighbouring ranges across the gaps between them, smallest gaps first, each at
// most maxGap long and all of them together at most `allowance` bytes.
std::vector<ByteRange> bridged(const std::vector<ByteRange>& kept, std::uint64_t maxGap, std::uint64_t allowance) {
    auto gapAfter = [&](std::size_t i) { return kept[i + 1].offset - endOf(kept[i]); };
    std::vector<std::size_t> gaps;
    for (std::size_t i = 0; i + 1 < kept.size(); ++i) gaps.push_back(i);
    std::stable_sort(gaps.begin(), gaps.end(), [&](std::size_t a, std::size_t b) { return gapAfter(a) < gapAfter(b); });
    std::vector<bool> bridgedAfter(kept.size(), false);
    for (std::size_t i : gaps) {
        std::uint64_t gap = gapAfter(i);
        if (gap > maxGap || gap > allowance) break;
        bridgedAfter[i] = true;
        allowance -= gap;
    }
    std::vector<ByteRange> joined;
    for (std::size_t i = 0; i < kept.size(); ++i) {
        if (i > 0 && bridgedAfter[i - 1])
            joined.back().length = endOf(kept[i]) - joined.back().offset;
        else
            joined.push_back(kept[i]);
    }
    return joined;
}

void initialiseCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

// One request and what its answer said so far.
struct HttpByteSource::Transfer {
    HttpByteSource* source = nullptr;
    // Asked for: the last tailLength bytes (when opening), or [offset, fetchEnd).
    bool tail = false;
    std::uint64_t tailLength = 0;
    std::uint64_t offset = 0;
    std::uint64_t sinkEnd = 0;
    std::uint64_t fetchEnd = 0;
    const std::function<bool(std::string_view)>* sink = nullptr;

    // The answer's status line and headers (of the last answer, after redirects).
    long status = 0;
    std::string statusText;
    std::string contentRange;
    std::string etag;
    std::string lastModified;
    std::optional<std::uint64_t> contentLength;
    bool hasLocation = false;

    std::uint64_t received = 0;
    std::string window;       // bytes past sinkEnd
    std::string failure;      // what a callback found wrong; the transfer was stopped
    bool stoppedBySink = false;
    bool emptyFile = false;   // opening found a file of no bytes

    std::uint64_t expected() const { return fetchEnd - offset; }
};

bool HttpByteSource::isHttpAddress(std::string_view text) {
    auto startsWithLetters = [&](std::string_view prefix) {
        return text.size() > prefix.size() && hasPrefix(text, prefix, kCaseInsensitiveSearch);
    };
    return startsWithLetters("http://") || startsWithLetters("https://");
}

std::unique_ptr<HttpByteSource> HttpByteSource::open(const std::string& url, std::string& error,
                                                     const HttpLimits& limits) {
    error.clear();
    if (!isHttpAddress(url)) {
        error = "unable to read \"" + url + "\" - only http:// and https:// addresses can be read";
        return nullptr;
    }
    std::unique_ptr<HttpByteSource> source(new HttpByteSource(url, limits));
    if (!source->curl_) {
        error = source->failure("the transfer library could not be started");
        return nullptr;
    }
    if (!source->openTail(error)) return nullptr;
    return source;
}

HttpByteSource::HttpByteSource(std::string url, const HttpLimits& limits)
    : url_(std::move(url)), effectiveUrl_(url_), limits_(limits) {
    initialiseCurlOnce();
    CURL* curl = curl_easy_init();
    curl_ = curl;
    if (!curl) return;
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, limits_.maxRedirects);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(limits_.connectTimeout.count()));
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, wholeSeconds(limits_.stallTimeout));
    curl_easy_setopt(curl, CURLOPT_USERAGENT, "whittle");
}

HttpByteSource::~HttpByteSource() {
    if (curl_) curl_easy_cleanup(static_cast<CURL*>(curl_));
}

std::string HttpByteSource::failure(const std::string& reason) const {
    return "unable to read \"" + url_ + "\" - " + reason;
}

bool HttpByteSource::openTail(std::string& error) {
    Transfer transfer;
    transfer.tail = true;
    transfer.tailLength = std::max<std::uint64_t>(1, limits_.tailBytes);
    if (!perform(transfer, error)) return false;
    char* effective = nullptr;
    if (curl_easy_getinfo(static_cast<CURL*>(curl_), CURLINFO_EFFECTIVE_URL, &effective) == CURLE_OK && effective)
        effectiveUrl_ = effective;
    validator_ = {transfer.etag, transfer.lastModified};
    if (transfer.emptyFile) return true;
    windowOffset_ = transfer.offset;
    window_ = std::move(transfer.window);
    return true;
}

bool HttpByteSource::read(std::uint64_t offset, std::size_t length, std::string& out, std::string& error) {
    out.clear();
    out.reserve(length);
    return stream({offset, length}, [&out](std::string_view piece) {
        out.append(piece);
        return true;
    }, error);
}

bool HttpByteSource::stream(const ByteRange& range, const std::function<bool(std::string_view)>& sink,
                            std::string& error) {
    error.clear();
    lastFailure_.clear();
    if (range.offset > size_ || range.length > size_ - range.offset) {
        error = failure("bytes " + std::to_string(range.offset) + " to " +
                        std::to_string(range.offset + range.length) + " lie past its end (" +
                        std::to_string(size_) + " bytes)");
        return false;
    }
    std::uint64_t offset = range.offset;
    std::uint64_t end = range.offset + range.length;
    std::uint64_t windowEnd = windowOffset_ + window_.size();
    if (offset >= windowOffset_ && offset < windowEnd) {
        std::uint64_t upTo = std::min(end, windowEnd);
        if (!sink(std::string_view(window_).substr(offset - windowOffset_, upTo - offset))) return false;
        offset = upTo;
    }
    if (offset == end) return true;
    bool fetched = fetch(offset, end, fetchEndFor(offset, end), sink, error);
    if (!fetched) lastFailure_ = error;
    return fetched;
}

void HttpByteSource::willRead(const std::vector<ByteRange>& ranges) {
    std::vector<ByteRange> kept = coalescedWithin(ranges, size_);
    std::uint64_t keptBytes = 0;
    for (const auto& span : kept) keptBytes += span.length;
    std::uint64_t allowance = keptBytes / 10000 * limits_.overFetchPerTenThousand +
                              keptBytes % 10000 * limits_.overFetchPerTenThousand / 10000;
    planned_ = bridged(kept, limits_.mergeGap, allowance);
}

std::uint64_t HttpByteSource::fetchEndFor(std::uint64_t offset, std::uint64_t end) const {
    auto after = std::upper_bound(planned_.begin(), planned_.end(), offset,
                                  [](std::uint64_t value, const ByteRange& span) { return value < span.offset; });
    if (after == planned_.begin()) return end;
    const ByteRange& span = *std::prev(after);
    std::uint64_t spanEnd = span.offset + span.length;
    if (end >= spanEnd) return end;
    return std::min(spanEnd, end + limits_.readAheadBytes);
}

bool HttpByteSource::fetch(std::uint64_t offset, std::uint64_t sinkEnd, std::uint64_t fetchEnd,
                           const std::function<bool(std::string_view)>& sink, std::string& error) {
    Transfer transfer;
    transfer.offset = offset;
    transfer.sinkEnd = sinkEnd;
    transfer.fetchEnd = fetchEnd;
    transfer.sink = &sink;
    bool done = perform(transfer, error);
    // A request without read-ahead leaves the kept bytes (such as the file's tail) kept.
    if (!transfer.window.empty() || fetchEnd > sinkEnd) {
        windowOffset_ = sinkEnd;
        window_ = std::move(transfer.window);
    }
    return done;
}

// What the answer's headers say about the request; empty when the body may come.
std::string HttpByteSource::checkAnswer(const Transfer& transfer) const {
    if (transfer.status == 206) return checkPartialAnswer(transfer);
    if (transfer.status == 200) {
        if (transfer.tail && transfer.contentLength == std::uint64_t(0)) return {};
        if (!transfer.tail)
            if (auto changed = checkSameFile(transfer); !changed.empty()) return changed;
        return "the server does not honour byte ranges";
    }
    if (transfer.status == 416) {
        auto range = parseContentRange(transfer.contentRange);
        if (transfer.tail && range && range->total == std::uint64_t(0)) return {};
        if (!transfer.tail)
            if (auto changed = checkSameFile(transfer); !changed.empty()) return changed;
    }
    std::string answer = "the server answered " + std::to_string(transfer.status);
    if (!transfer.statusText.empty()) answer += " " + transfer.statusText;
    return answer;
}

// A partial answer must carry the bytes asked for, of the file first opened.
std::string HttpByteSource::checkPartialAnswer(const Transfer& transfer) const {
    if (transfer.contentRange.empty()) return "the server's partial answer has no Content-Range";
    auto range = parseContentRange(transfer.contentRange);
    if (!range || !range->first)
        return "the server answered with a malformed Content-Range \"" + transfer.contentRange + "\"";
    if (transfer.tail) {
        if (!range->total) return "the server does not tell the file's size";
        std::uint64_t expectedFirst = *range->total - std::min(transfer.tailLength, *range->total);
        if (*range->first != expectedFirst || range->last + 1 != *range->total)
            return "the server sent bytes " + rangeText(*range->first, range->last) + " where the last " +
                   std::to_string(transfer.tailLength) + " were asked";
        return {};
    }
    if (auto changed = checkSameFile(transfer); !changed.empty()) return changed;
    std::uint64_t last = transfer.fetchEnd - 1;
    if (*range->first == transfer.offset && range->last < last)
        return shortAnswer(range->last + 1 - transfer.offset, transfer.expected());
    if (*range->first != transfer.offset || range->last != last)
        return "the server sent bytes " + rangeText(*range->first, range->last) + " where " +
               rangeText(transfer.offset, last) + " were asked";
    return {};
}

// Empty when the answer is about the file first opened: same size, same validator.
std::string HttpByteSource::checkSameFile(const Transfer& transfer) const {
    const std::string changed = "the file changed on the server while it was read";
    std::optional<std::uint64_t> total;
    if (auto range = parseContentRange(transfer.contentRange); range && transfer.status != 200)
        total = range->total;
    else if (transfer.status == 200)
        total = transfer.contentLength;
    if (total && *total != size_)
        return changed + " (its size went from " + std::to_string(size_) + " to " + std::to_string(*total) +
               " bytes)";
    if (!validator_.etag.empty() && !transfer.etag.empty() && transfer.etag != validator_.etag)
        return changed + " (its ETag went from " + validator_.etag + " to " + transfer.etag + ")";
    if (!validator_.lastModified.empty() && !transfer.lastModified.empty() &&
        transfer.lastModified != validator_.lastModified)
        return changed + " (its Last-Modified went from " + validator_.lastModified + " to " +
               transfer.lastModified + ")";
    if (transfer.status == 200 && (!validator_.etag.empty() || !validator_.lastModified.empty()) &&
        transfer.etag.empty() && transfer.lastModified.empty())
        return changed;
    return {};
}

std::string HttpByteSource::transferFailure(const Transfer& transfer, int code) const {
    CURL* curl = static_cast<CURL*>(curl_);
    switch (code) {
    case CURLE_OPERATION_TIMEDOUT: {
        curl_off_t connected = 0;
        curl_easy_getinfo(curl, CURLINFO_CONNECT_TIME_T, &connected);
        if (connected == 0) return "no connection to the server could be made within " + seconds(limits_.connectTimeout);
        return "the server sent nothing for " + std::to_string(wholeSeconds(limits_.stallTimeout)) + " s";
    }
    case CURLE_COULDNT_CONNECT:
    case CURLE_COULDNT_RESOLVE_HOST:
        return std::string("no connection to the server could be made (") +
               curl_easy_strerror(static_cast<CURLcode>(code)) + ")";
    case CURLE_TOO_MANY_REDIRECTS:
        return "the server redirects too many times (more than " + std::to_string(limits_.maxRedirects) + ")";
    case CURLE_PARTIAL_FILE:
        return shortAnswer(transfer.received, transfer.expected());
    default:
        return std::string("the transfer failed (") + curl_easy_strerror(static_cast<CURLcode>(code)) + ")";
    }
}

bool HttpByteSource::perform(Transfer& transfer, std::string& error) {
    CURL* curl = static_cast<CURL*>(curl_);
    std::string range = transfer.tail ? "-" + std::to_string(transfer.tailLength)
                                      : rangeText(transfer.offset, transfer.fetchEnd - 1);
    curl_slist* headers = nullptr;
    // If-Range only takes a strong validator; a weak ETag would make every answer whole.
    if (!transfer.tail && !validator_.etag.empty() && !validator_.etag.starts_with("W/"))
        headers = curl_slist_append(headers, ("If-Range: " + validator_.etag).c_str());
    else if (!transfer.tail && !validator_.lastModified.empty())
        headers = curl_slist_append(headers, ("If-Range: " + validator_.lastModified).c_str());

    char message[CURL_ERROR_SIZE] = {};
    transfer.source = this;
    curl_easy_setopt(curl, CURLOPT_URL, effectiveUrl_.c_str());
    // The command line is the only configuration: no proxy named in the environment.
    curl_easy_setopt(curl, CURLOPT_PROXY, "");
    curl_easy_setopt(curl, CURLOPT_RANGE, range.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, message);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, headerCallback);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, bodyCallback);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &transfer);
    CURLcode code = curl_easy_perform(curl);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, nullptr);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
    curl_slist_free_all(headers);

    long redirects = 0;
    curl_easy_getinfo(curl, CURLINFO_REDIRECT_COUNT, &redirects);
    requestCount_ += 1 + static_cast<std::uint64_t>(redirects);
    if (requestObserver_)
        requestObserver_({{transfer.offset, transfer.fetchEnd - transfer.offset}, transfer.status, transfer.received,
                          redirects});

    if (!transfer.failure.empty()) {
        error = failure(transfer.failure);
        return false;
    }
    if (transfer.stoppedBySink) return false;
    if (code != CURLE_OK) {
        error = failure(transferFailure(transfer, code));
        return false;
    }
    if (!transfer.emptyFile && transfer.received != transfer.expected()) {
        error = failure(shortAnswer(transfer.received, transfer.expected()));
        return false;
    }
    return true;
}

void HttpByteSource::takeBody(Transfer& transfer, std::string_view bytes) {
    if (bytes.size() > transfer.expected() - transfer.received) {
        transfer.failure = "the server sent more bytes than the " + std::to_string(transfer.expected()) + " asked";
        return;
    }
    std::uint64_t position = transfer.offset + transfer.received;
    transfer.received += bytes.size();
    bytesFetched_ += bytes.size();
    if (fetchObserver_) fetchObserver_(bytesFetched_, size_);
    if (position < transfer.sinkEnd) {
        auto forSink = static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), transfer.sinkEnd - position));
        if (!(*transfer.sink)(bytes.substr(0, forSink))) {
            transfer.stoppedBySink = true;
            return;
        }
        bytes.remove_prefix(forSink);
    }
    transfer.window.append(bytes);
}

// Called by the transfer library with each header line of each answer, redirects
// included, and with the empty line that ends an answer's headers.
std::size_t HttpByteSource::headerCallback(char* data, std::size_t size, std::size_t count, void* context) {
    auto& transfer = *static_cast<Transfer*>(context);
    return transfer.source->takeHeader(transfer, std::string_view(data, size * count)) ? size * count : 0;
}

std::size_t HttpByteSource::bodyCallback(char* data, std::size_t size, std::size_t count, void* context) {
    auto& transfer = *static_cast<Transfer*>(context);
    transfer.source->takeBody(transfer, std::string_view(data, size * count));
    return transfer.failure.empty() && !transfer.stoppedBySink ? size * count : 0;
}

bool HttpByteSource::takeHeader(Transfer& transfer, std::string_view line) {
    if (line.starts_with("HTTP/")) {
        startAnswer(transfer, line);
        return true;
    }
    std::string_view text = trimmed(line);
    if (text.empty()) return endHeaders(transfer);
    auto colon = text.find(':');
    if (colon == std::string_view::npos) return true;
    std::string_view header = text.substr(0, colon);
    std::string value(trimmed(text.substr(colon + 1)));
    if (equalsIgnoringCase(header, "Content-Range"))
        transfer.contentRange = value;
    else if (equalsIgnoringCase(header, "ETag"))
        transfer.etag = value;
    else if (equalsIgnoringCase(header, "Last-Modified"))
        transfer.lastModified = value;
    else if (equalsIgnoringCase(header, "Content-Length"))
        transfer.contentLength = parseNumber(value);
    else if (equalsIgnoringCase(header, "Location"))
        transfer.hasLocation = true;
    return true;
}

// A status line: "HTTP/1.1 206 Partial Content", or "HTTP/2 206".
void HttpByteSource::startAnswer(Transfer& transfer, std::string_view line) {
    transfer.status = 0;
    transfer.statusText.clear();
    transfer.contentRange.clear();
    transfer.etag.clear();
    transfer.lastModified.clear();
    transfer.contentLength.reset();
    transfer.hasLocation = false;
    std::string_view text = trimmed(line);
    auto space = text.find(' ');
    if (space == std::string_view::npos) return;
    text = text.substr(space + 1);
    auto end = text.find(' ');
    if (auto code = parseNumber(text.substr(0, end))) transfer.status = static_cast<long>(*code);
    if (end != std::string_view::npos) transfer.statusText = trimmed(text.substr(end + 1));
}

// Answers false, with the transfer's failure set, to stop an answer whose body is not
// wanted: an error, or a whole file where a range was asked.
bool HttpByteSource::endHeaders(Transfer& transfer) {
    if (transfer.status >= 100 && transfer.status < 200) return true;
    if (transfer.status >= 300 && transfer.status < 400 && transfer.hasLocation) return true;
    transfer.failure = checkAnswer(transfer);
    if (!transfer.failure.empty()) return false;
    if (transfer.tail) {
        auto range = parseContentRange(transfer.contentRange);
        if (transfer.status == 206) {
            transfer.offset = *range->first;
            transfer.fetchEnd = range->last + 1;
            size_ = *range->total;
        } else {
            transfer.emptyFile = true;
        }
        transfer.sinkEnd = transfer.offset;
    }
    return true;
}

}  // namespace whittle
