// The piece-by-piece reading every byte source has unless it brings its own.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/ByteSource.hpp"

namespace whittle {
namespace {

// Bytes in memory, counting the reads asked of it; fails any read that touches failAt.
class MemorySource : public ByteSource {
public:
    explicit MemorySource(std::string bytes) : bytes_(std::move(bytes)) {}
    const std::string& name() const override { return name_; }
    std::uint64_t size() const override { return bytes_.size(); }
    bool read(std::uint64_t offset, std::size_t length, std::string& out, std::string& error) override {
        reads.push_back({offset, length});
        if (offset + length > bytes_.size() || (failAt >= offset && failAt < offset + length)) {
            error = "cannot read";
            return false;
        }
        out.assign(bytes_, offset, length);
        return true;
    }
    std::uint64_t bytesFetched() const override { return 0; }

    std::vector<ByteRange> reads;
    std::uint64_t failAt = ~std::uint64_t{0};

private:
    std::string name_ = "memory";
    std::string bytes_;
};

constexpr std::uint64_t kMiB = 1 << 20;

std::string patterned(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 31 + i / 4096);
    return bytes;
}

TEST(ByteSource, StreamsARangeInPiecesOfOneMebibyteInOrder) {
    std::string bytes = patterned(3 * kMiB + 100);
    MemorySource source(bytes);
    std::string got, error;
    ASSERT_TRUE(source.stream({10, 2 * kMiB + 50}, [&](std::string_view piece) {
        got.append(piece);
        return true;
    }, error)) << error;
    EXPECT_EQ(got, bytes.substr(10, 2 * kMiB + 50));
    ASSERT_EQ(source.reads.size(), 3u);
    EXPECT_EQ(source.reads[0].offset, 10u);
    EXPECT_EQ(source.reads[0].length, kMiB);
    EXPECT_EQ(source.reads[1].offset, 10 + kMiB);
    EXPECT_EQ(source.reads[2].length, 50u);
}

TEST(ByteSource, AnEmptyRangeReadsNothing) {
    MemorySource source("abc");
    std::string error;
    bool called = false;
    EXPECT_TRUE(source.stream({1, 0}, [&](std::string_view) { return called = true; }, error));
    EXPECT_FALSE(called);
    EXPECT_TRUE(source.reads.empty());
}

TEST(ByteSource, AFailedReadEndsTheStreamWithItsReason) {
    MemorySource source(patterned(2 * kMiB));
    source.failAt = kMiB + 5;
    std::string error;
    int pieces = 0;
    EXPECT_FALSE(source.stream({0, 2 * kMiB}, [&](std::string_view) { return ++pieces > 0; }, error));
    EXPECT_EQ(pieces, 1);
    EXPECT_EQ(error, "cannot read");
}

TEST(ByteSource, ASinkThatSaysNoStopsTheStreamWithoutAReason) {
    MemorySource source(patterned(3 * kMiB));
    std::string error = "left over";
    int pieces = 0;
    EXPECT_FALSE(source.stream({0, 3 * kMiB}, [&](std::string_view) { return ++pieces < 2; }, error));
    EXPECT_EQ(pieces, 2);
    EXPECT_EQ(source.reads.size(), 2u);
    EXPECT_TRUE(error.empty());
}

}  // namespace
}  // namespace whittle
