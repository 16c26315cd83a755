// Reading a file on a web server by byte ranges: against a real web server started on
// 127.0.0.1 for each test, and against a small scripted server inside the test for
// answers no well-behaved server gives (stalls, bad ranges, short answers).
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "TestSupport.hpp"
#include "WebServers.hpp"
#include "support/HttpByteSource.hpp"

using namespace whittle;
using namespace whittle::test;
using namespace std::chrono_literals;

namespace {

// Bytes that differ from one offset to the next, so that a misplaced range shows.
std::string patternBytes(std::size_t size, std::uint32_t seed) {
    std::string bytes(size, '\0');
    std::uint32_t state = seed * 2654435761u + 1;
    for (auto& byte : bytes) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = static_cast<char>(state);
    }
    return bytes;
}

class HttpByteSourceTest : public testing::Test {
protected:
    void SetUp() override {
        if (nginxBinary().empty()) GTEST_SKIP() << "nginx is not installed (scripts/install-deps installs it)";
        server = std::make_unique<WebServer>();
        ASSERT_TRUE(server->running()) << "nginx did not start on 127.0.0.1";
    }

    std::string serve(const std::string& name, std::size_t size, std::uint32_t seed = 1) {
        std::string bytes = patternBytes(size, seed);
        writeFile(server->file(name), bytes);
        return bytes;
    }

    std::unique_ptr<HttpByteSource> openOrFail(const std::string& path, const HttpLimits& limits = {}) {
        std::string error;
        auto source = HttpByteSource::open(server->url(path), error, limits);
        EXPECT_TRUE(source) << error;
        EXPECT_EQ(error, "");
        return source;
    }

    std::string openingFailure(const std::string& path, const HttpLimits& limits = {}) {
        std::string error;
        EXPECT_FALSE(HttpByteSource::open(server->url(path), error, limits));
        return error;
    }

    std::string reason(const std::string& path, const std::string& text) const {
        return "unable to read \"" + server->url(path) + "\" - " + text;
    }

    std::unique_ptr<WebServer> server;
};

HttpLimits smallTail(std::uint64_t tailBytes) {
    HttpLimits limits;
    limits.tailBytes = tailBytes;
    return limits;
}

}  // namespace

TEST_F(HttpByteSourceTest, ReadsTheFilesBytesAtAnyOffset) {
    std::string bytes = serve("data.bin", 3'000'000);
    auto source = openOrFail("/data.bin", smallTail(4096));
    ASSERT_TRUE(source);
    EXPECT_EQ(source->size(), bytes.size());
    EXPECT_EQ(source->name(), server->url("/data.bin"));
    std::string out, error;
    for (ByteRange range : {ByteRange{0, 1}, ByteRange{0, 70'000}, ByteRange{1'234'567, 300'000},
                            ByteRange{2'999'000, 1000}, ByteRange{2'990'000, 10'000}}) {
        ASSERT_TRUE(source->read(range.offset, range.length, out, error)) << error;
        EXPECT_EQ(out, bytes.substr(range.offset, range.length)) << range.offset;
    }
}

TEST_F(HttpByteSourceTest, OpeningFetchesTheTailOnceAndReadsThereAskNothingMore) {
    std::string bytes = serve("data.bin", 1'000'000);
    auto source = openOrFail("/data.bin", smallTail(65'536));
    ASSERT_TRUE(source);
    EXPECT_EQ(source->requestCount(), 1u);
    EXPECT_EQ(source->bytesFetched(), 65'536u);
    std::string out, error;
    ASSERT_TRUE(source->read(1'000'000 - 22, 22, out, error)) << error;
    EXPECT_EQ(out, bytes.substr(1'000'000 - 22));
    ASSERT_TRUE(source->read(1'000'000 - 65'536, 1000, out, error)) << error;
    EXPECT_EQ(out, bytes.substr(1'000'000 - 65'536, 1000));
    EXPECT_EQ(source->requestCount(), 1u);
    EXPECT_EQ(server->served("/data.bin", 1).bodyBytes, 65'536u);
}

TEST_F(HttpByteSourceTest, SmallFileIsWhollyFetchedWhenOpened) {
    std::string bytes = serve("small.bin", 300);
    auto source = openOrFail("/small.bin");
    ASSERT_TRUE(source);
    EXPECT_EQ(source->size(), 300u);
    std::string out, error;
    ASSERT_TRUE(source->read(0, 300, out, error)) << error;
    EXPECT_EQ(out, bytes);
    EXPECT_EQ(source->requestCount(), 1u);
}

TEST_F(HttpByteSourceTest, EmptyFileHasNoBytes) {
    writeFile(server->file("empty.bin"), "");
    auto source = openOrFail("/empty.bin");
    ASSERT_TRUE(source);
    EXPECT_EQ(source->size(), 0u);
    std::string out, error;
    EXPECT_TRUE(source->read(0, 0, out, error)) << error;
    EXPECT_FALSE(source->read(0, 1, out, error));
}

TEST_F(HttpByteSourceTest, StreamHandsOverSmallPiecesFromOneRequest) {
    std::string bytes = serve("data.bin", 4'000'000);
    auto source = openOrFail("/data.bin", smallTail(1024));
    ASSERT_TRUE(source);
    std::string joined, error;
    std::size_t largestPiece = 0;
    ASSERT_TRUE(source->stream({100, 3'500'000}, [&](std::string_view piece) {
        largestPiece = std::max(largestPiece, piece.size());
        joined.append(piece);
        return true;
    }, error)) << error;
    EXPECT_EQ(joined, bytes.substr(100, 3'500'000));
    EXPECT_LE(largestPiece, 1u << 20);
    EXPECT_EQ(source->requestCount(), 2u);
    Served served = server->served("/data.bin", 2);
    EXPECT_EQ(served.requests, 2u);
    EXPECT_EQ(served.bodyBytes, 1024u + 3'500'000u);
}

TEST_F(HttpByteSourceTest, SinkThatStopsEndsTheStreamWithoutAReason) {
    serve("data.bin", 4'000'000);
    auto source = openOrFail("/data.bin", smallTail(1024));
    ASSERT_TRUE(source);
    std::string error = "untouched";
    std::size_t taken = 0;
    EXPECT_FALSE(source->stream({0, 3'000'000}, [&](std::string_view piece) {
        taken += piece.size();
        return taken < 100'000;
    }, error));
    EXPECT_EQ(error, "");
    EXPECT_LT(source->bytesFetched(), 1024u + 3'000'000u);
}

TEST_F(HttpByteSourceTest, ReadsWithoutAnnouncementFetchExactlyTheirBytes) {
    std::string bytes = serve("data.bin", 2'000'000);
    auto source = openOrFail("/data.bin", smallTail(1000));
    ASSERT_TRUE(source);
    std::string out, error;
    for (std::uint64_t offset : {0u, 10'000u, 20'000u}) {
        ASSERT_TRUE(source->read(offset, 500, out, error)) << error;
        EXPECT_EQ(out, bytes.substr(offset, 500));
    }
    EXPECT_EQ(source->requestCount(), 4u);
    EXPECT_EQ(source->bytesFetched(), 1000u + 3 * 500u);
    EXPECT_EQ(server->served("/data.bin", 4).bodyBytes, 1000u + 3 * 500u);
}

TEST_F(HttpByteSourceTest, NearRangesAreMergedWithinTheOverFetchBound) {
    auto source = [&] {
        serve("data.bin", 1'000'000);
        return openOrFail("/data.bin", smallTail(100));
    }();
    ASSERT_TRUE(source);
    // 100,000 kept bytes allow 1,000 bytes of gaps: the gaps of 300 and 500 are
    // bridged, the one of 600 is not, nor the one of 100,000 (over the gap limit).
    source->willRead({{0, 40'000}, {40'600, 20'000}, {61'100, 20'000}, {81'400, 10'000}, {191'400, 10'000}});
    std::vector<std::pair<std::uint64_t, std::uint64_t>> merged;
    for (const auto& range : source->mergedRanges()) merged.emplace_back(range.offset, range.length);
    EXPECT_EQ(merged, (std::vector<std::pair<std::uint64_t, std::uint64_t>>{
                          {0, 40'000}, {40'600, 50'800}, {191'400, 10'000}}));
}

TEST_F(HttpByteSourceTest, AnnouncedReadsAreServedByFewRequestsAndFetchLittleMore) {
    constexpr std::size_t kFileSize = 8'000'000;
    std::string bytes = serve("data.bin", kFileSize);
    const std::uint64_t tail = 4096;
    auto source = openOrFail("/data.bin", smallTail(tail));
    ASSERT_TRUE(source);

    // Entries as an archive lays them out: a header, then the data, close together,
    // with now and then a long stretch that is not wanted.
    std::vector<ByteRange> wanted;
    std::uint32_t state = 7;
    auto next = [&state](std::uint32_t bound) {
        state = state * 1103515245u + 12345u;
        return (state >> 8) % bound;
    };
    for (std::uint64_t offset = 0; wanted.size() < 400;) {
        std::uint64_t length = 100 + next(20'000);
        if (offset + length > kFileSize - tail) break;
        wanted.push_back({offset, length});
        offset += length + (wanted.size() % 25 == 0 ? 150'000 : next(120));
    }
    std::uint64_t keptBytes = 0;
    for (const auto& range : wanted) keptBytes += range.length;

    source->willRead(wanted);
    std::string out, error;
    for (const auto& range : wanted) {
        ASSERT_TRUE(source->read(range.offset, range.length, out, error)) << error;
        ASSERT_EQ(out, bytes.substr(range.offset, range.length)) << range.offset;
    }
    std::uint64_t bound = tail + keptBytes + keptBytes / 100;
    Served served = server->served("/data.bin", source->requestCount());
    EXPECT_EQ(served.requests, source->requestCount());
    EXPECT_EQ(served.bodyBytes, source->bytesFetched());
    EXPECT_LE(source->bytesFetched(), bound);
    EXPECT_LE(source->requestCount(), 1 + source->mergedRanges().size() + keptBytes / HttpLimits{}.readAheadBytes + 1);
    EXPECT_LT(source->requestCount(), wanted.size() / 4);
    std::printf("[ figures  ] %zu announced reads of %llu bytes: %zu merged ranges, %llu requests "
                "(opening included), %llu bytes fetched (bound %llu), server sent %llu bytes\n",
                wanted.size(), static_cast<unsigned long long>(keptBytes), source->mergedRanges().size(),
                static_cast<unsigned long long>(source->requestCount()),
                static_cast<unsigned long long>(source->bytesFetched()), static_cast<unsigned long long>(bound),
                static_cast<unsigned long long>(served.bodyBytes));

    auto unannounced = openOrFail("/data.bin", smallTail(tail));
    ASSERT_TRUE(unannounced);
    for (const auto& range : wanted) ASSERT_TRUE(unannounced->read(range.offset, range.length, out, error)) << error;
    std::printf("[ figures  ] the same reads unannounced: %llu requests, %llu bytes fetched\n",
                static_cast<unsigned long long>(unannounced->requestCount()),
                static_cast<unsigned long long>(unannounced->bytesFetched()));
    EXPECT_EQ(unannounced->requestCount(), 1 + wanted.size());
}

TEST_F(HttpByteSourceTest, ProgressIsToldAsBytesArrive) {
    serve("data.bin", 1'000'000);
    auto source = openOrFail("/data.bin", smallTail(1000));
    ASSERT_TRUE(source);
    std::vector<std::uint64_t> told;
    std::vector<HttpRequestRecord> requests;
    source->onFetched([&](std::uint64_t fetched, std::uint64_t size) {
        EXPECT_EQ(size, 1'000'000u);
        told.push_back(fetched);
    });
    source->onRequest([&](const HttpRequestRecord& record) { requests.push_back(record); });
    std::string out, error;
    ASSERT_TRUE(source->read(0, 500'000, out, error)) << error;
    ASSERT_FALSE(told.empty());
    EXPECT_TRUE(std::is_sorted(told.begin(), told.end()));
    EXPECT_EQ(told.back(), 501'000u);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].range.offset, 0u);
    EXPECT_EQ(requests[0].range.length, 500'000u);
    EXPECT_EQ(requests[0].status, 206);
    EXPECT_EQ(requests[0].bodyBytes, 500'000u);
}

TEST_F(HttpByteSourceTest, ServerIgnoringRangesIsRefusedWithoutDownloadingTheFile) {
    constexpr std::uint64_t kFileSize = 64ull << 20;
    writeFile(server->file("big.bin"), "");
    std::filesystem::resize_file(server->file("big.bin"), kFileSize);
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(openingFailure("/whole/big.bin"), reason("/whole/big.bin", "the server does not honour byte ranges"));
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
    Served served = server->served("/whole/big.bin", 1);
    EXPECT_EQ(served.requests, 1u);
    EXPECT_LT(served.bodyBytes, kFileSize / 2);
}

TEST_F(HttpByteSourceTest, ServerErrorIsNamed) {
    EXPECT_EQ(openingFailure("/broken"), reason("/broken", "the server answered 500 Internal Server Error"));
}

TEST_F(HttpByteSourceTest, MissingFileIsNamed) {
    EXPECT_EQ(openingFailure("/missing.zip"), reason("/missing.zip", "the server answered 404 Not Found"));
}

TEST_F(HttpByteSourceTest, RedirectLoopIsGivenUp) {
    EXPECT_EQ(openingFailure("/loop"), reason("/loop", "the server redirects too many times (more than 5)"));
}

TEST_F(HttpByteSourceTest, RedirectIsFollowedOnceAndItsTargetReadAfterwards) {
    std::string bytes = serve("data.bin", 500'000);
    auto source = openOrFail("/moved", smallTail(100));
    ASSERT_TRUE(source);
    EXPECT_EQ(source->name(), server->url("/moved"));
    std::string out, error;
    ASSERT_TRUE(source->read(1000, 2000, out, error)) << error;
    EXPECT_EQ(out, bytes.substr(1000, 2000));
    EXPECT_EQ(source->requestCount(), 3u);
    EXPECT_EQ(server->served("/data.bin", 2).requests, 2u);
    EXPECT_EQ(server->served("/moved", 1).requests, 1u);
}

TEST_F(HttpByteSourceTest, FileReplacedByOneOfAnotherSizeIsReported) {
    serve("data.bin", 500'000);
    auto source = openOrFail("/data.bin", smallTail(100));
    ASSERT_TRUE(source);
    std::string replacement = patternBytes(400'000, 2);
    writeFile(server->file("next.bin"), replacement);
    std::filesystem::rename(server->file("next.bin"), server->file("data.bin"));
    std::string out, error;
    EXPECT_FALSE(source->read(0, 1000, out, error));
    EXPECT_EQ(error, reason("/data.bin", "the file changed on the server while it was read "
                                         "(its size went from 500000 to 400000 bytes)"));
    EXPECT_LT(source->bytesFetched(), 1000u);
}

TEST_F(HttpByteSourceTest, FileReplacedByOneOfTheSameSizeIsReportedByItsETag) {
    serve("data.bin", 500'000);
    auto source = openOrFail("/data.bin", smallTail(100));
    ASSERT_TRUE(source);
    serve("data.bin", 500'000, 3);
    timeval later[2] = {{2'000'000'000, 0}, {2'000'000'000, 0}};
    ASSERT_EQ(::utimes(server->file("data.bin").c_str(), later), 0);
    std::string out, error;
    EXPECT_FALSE(source->read(0, 1000, out, error));
    EXPECT_TRUE(error.starts_with(reason("/data.bin", "the file changed on the server while it was read (its ETag went from \"")))
        << error;
    // The server's ETag is the time and the size in hexadecimal.
    EXPECT_TRUE(error.ends_with("\" to \"77359400-7a120\")")) << error;
}

TEST_F(HttpByteSourceTest, ReadPastTheEndIsRefused) {
    serve("data.bin", 1000);
    auto source = openOrFail("/data.bin");
    ASSERT_TRUE(source);
    std::string out, error;
    EXPECT_FALSE(source->read(900, 200, out, error));
    EXPECT_EQ(error, reason("/data.bin", "bytes 900 to 1100 lie past its end (1000 bytes)"));
}

TEST(HttpByteSource, OnlyWebAddressesAreOpened) {
    std::string error;
    EXPECT_FALSE(HttpByteSource::open("ftp://example.invalid/a.zip", error));
    EXPECT_EQ(error, "unable to read \"ftp://example.invalid/a.zip\" - only http:// and https:// addresses can be read");
    EXPECT_TRUE(HttpByteSource::isHttpAddress("HTTPS://host/a.zip"));
    EXPECT_FALSE(HttpByteSource::isHttpAddress("/tmp/http://a.zip"));
}

TEST(HttpByteSource, ClosedPortIsNamed) {
    std::string url = "http://127.0.0.1:" + std::to_string(freePort()) + "/a.zip";
    std::string error;
    EXPECT_FALSE(HttpByteSource::open(url, error));
    EXPECT_EQ(error, "unable to read \"" + url + "\" - no connection to the server could be made (Couldn't connect to server)");
}

// A port whose queue of connections waiting to be accepted is full: the system drops
// further connection requests, so that a connection cannot be made in time.
TEST(HttpByteSource, ConnectionNotMadeInTimeIsNamed) {
    int port = 0;
    int listener = listeningSocket(port);
    ASSERT_EQ(::listen(listener, 0), 0);
    std::vector<int> queued;
    for (int i = 0; i < 4; ++i) {
        int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_in address = loopback(port);
        (void)::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        queued.push_back(fd);
    }
    std::this_thread::sleep_for(100ms);
    HttpLimits limits;
    limits.connectTimeout = 1500ms;
    std::string url = "http://127.0.0.1:" + std::to_string(port) + "/a.zip";
    std::string error;
    auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(HttpByteSource::open(url, error, limits));
    EXPECT_LT(std::chrono::steady_clock::now() - started, 8s);
    EXPECT_EQ(error, "unable to read \"" + url + "\" - no connection to the server could be made within 1.5 s");
    for (int fd : queued) ::close(fd);
    ::close(listener);
}

// ---- answers no well-behaved server gives ----

namespace {

HttpLimits quickLimits() {
    HttpLimits limits;
    limits.tailBytes = 100;
    limits.connectTimeout = 2s;
    limits.stallTimeout = 2s;
    return limits;
}

std::string reasonFor(const ScriptedServer& server, const std::string& text) {
    return "unable to read \"" + server.url() + "\" - " + text;
}

const std::string kContent = patternBytes(1000, 9);

}  // namespace

TEST(HttpByteSourceAnswers, LaterRequestsCarryTheValidatorInIfRange) {
    ScriptedServer server({{partial(kContent, 900, 999)}, {partial(kContent, 0, 99)}});
    std::string error, out;
    auto source = HttpByteSource::open(server.url(), error, quickLimits());
    ASSERT_TRUE(source) << error;
    ASSERT_TRUE(source->read(0, 100, out, error)) << error;
    EXPECT_EQ(out, kContent.substr(0, 100));
    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_NE(requests[0].find("Range: bytes=-100\r\n"), std::string::npos) << requests[0];
    EXPECT_EQ(requests[0].find("If-Range"), std::string::npos) << requests[0];
    EXPECT_NE(requests[1].find("Range: bytes=0-99\r\n"), std::string::npos) << requests[1];
    EXPECT_NE(requests[1].find("If-Range: \"v1\"\r\n"), std::string::npos) << requests[1];
}

TEST(HttpByteSourceAnswers, SilentServerIsGivenUpAfterTheStallTime) {
    ScriptedServer server({{"", true}});
    std::string error;
    auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(HttpByteSource::open(server.url(), error, quickLimits()));
    auto took = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(error, reasonFor(server, "the server sent nothing for 2 s"));
    EXPECT_GE(took, 1500ms);
    EXPECT_LT(took, 8s);
}

TEST(HttpByteSourceAnswers, ServerStallingInTheBodyIsGivenUp) {
    std::string stalled = partial(kContent, 0, 499);
    stalled.resize(stalled.size() - 300);
    ScriptedServer server({{partial(kContent, 900, 999)}, {stalled, true}});
    std::string error, out;
    auto source = HttpByteSource::open(server.url(), error, quickLimits());
    ASSERT_TRUE(source) << error;
    auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(source->read(0, 500, out, error));
    EXPECT_LT(std::chrono::steady_clock::now() - started, 8s);
    EXPECT_EQ(error, reasonFor(server, "the server sent nothing for 2 s"));
}

TEST(HttpByteSourceAnswers, MalformedContentRangeIsNamed) {
    ScriptedServer server({{answer("206 Partial Content", {"Content-Range: bytes 900-999", "Content-Length: 100"},
                                   kContent.substr(900))}});
    std::string error;
    EXPECT_FALSE(HttpByteSource::open(server.url(), error, quickLimits()));
    EXPECT_EQ(error, reasonFor(server, "the server answered with a malformed Content-Range \"bytes 900-999\""));
}

TEST(HttpByteSourceAnswers, AnswerShorterThanAskedIsNamed) {
    ScriptedServer server({{partial(kContent, 900, 999)}, {partial(kContent, 0, 49)}});
    std::string error, out;
    auto source = HttpByteSource::open(server.url(), error, quickLimits());
    ASSERT_TRUE(source) << error;
    EXPECT_FALSE(source->read(0, 100, out, error));
    EXPECT_EQ(error, reasonFor(server, "the server sent 50 bytes where 100 were asked"));
}

TEST(HttpByteSourceAnswers, BodyEndingEarlyIsNamed) {
    std::string cut = partial(kContent, 0, 99);
    cut.resize(cut.size() - 40);
    ScriptedServer server({{partial(kContent, 900, 999)}, {cut}});
    std::string error, out;
    auto source = HttpByteSource::open(server.url(), error, quickLimits());
    ASSERT_TRUE(source) << error;
    EXPECT_FALSE(source->read(0, 100, out, error));
    EXPECT_EQ(error, reasonFor(server, "the server sent 60 bytes where 100 were asked"));
}

TEST(HttpByteSourceAnswers, SizeChangingWithoutAValidatorIsReported) {
    std::string longer = kContent + "more";
    ScriptedServer server({{partial(kContent, 900, 999, {})}, {partial(longer, 0, 99, {})}});
    std::string error, out;
    auto source = HttpByteSource::open(server.url(), error, quickLimits());
    ASSERT_TRUE(source) << error;
    EXPECT_FALSE(source->read(0, 100, out, error));
    EXPECT_EQ(error, reasonFor(server, "the file changed on the server while it was read "
                                       "(its size went from 1000 to 1004 bytes)"));
}

TEST(HttpByteSourceAnswers, WholeAnswerToALaterRequestOfTheSameFileMeansNoRanges) {
    ScriptedServer server({{partial(kContent, 900, 999)},
                           {answer("200 OK", {"ETag: \"v1\"", "Content-Length: 1000"}, kContent)}});
    std::string error, out;
    auto source = HttpByteSource::open(server.url(), error, quickLimits());
    ASSERT_TRUE(source) << error;
    EXPECT_FALSE(source->read(0, 100, out, error));
    EXPECT_EQ(error, reasonFor(server, "the server does not honour byte ranges"));
    EXPECT_EQ(source->bytesFetched(), 100u);
}

TEST(HttpByteSourceAnswers, LastFailureTellsWhyTheLatestReadFailedAtTheServer) {
    ScriptedServer server({{partial(kContent, 900, 999)}, {partial(kContent, 0, 49)}, {partial(kContent, 0, 99)}});
    std::string error, out;
    auto source = HttpByteSource::open(server.url(), error, quickLimits());
    ASSERT_TRUE(source) << error;
    EXPECT_EQ(source->lastFailure(), "");
    EXPECT_FALSE(source->read(0, 100, out, error));
    EXPECT_EQ(source->lastFailure(), reasonFor(server, "the server sent 50 bytes where 100 were asked"));
    ASSERT_TRUE(source->read(0, 100, out, error)) << error;
    EXPECT_EQ(source->lastFailure(), "");
    EXPECT_FALSE(source->read(990, 20, out, error));
    EXPECT_EQ(source->lastFailure(), "") << "a read past the end is the reader's mistake, not the server's";
}

TEST(HttpLimits, GiveUpAfterThirtySecondsOfSilenceAndFiveRedirects) {
    whittle::HttpLimits limits;
    EXPECT_EQ(limits.stallTimeout, std::chrono::seconds(30));
    EXPECT_EQ(limits.connectTimeout, std::chrono::seconds(30));
    EXPECT_EQ(limits.maxRedirects, 5);
}
