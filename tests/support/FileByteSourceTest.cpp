#include "support/FileByteSource.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "TestSupport.hpp"

namespace whittle {
namespace {

using test::TempDir;
using test::writeFile;

TEST(FileByteSourceTest, ReadsRangesAndCountsTheBytesRead) {
    TempDir dir;
    writeFile(dir / "data", "0123456789abcdef");
    std::string error;
    auto source = FileByteSource::open(dir / "data", error);
    ASSERT_TRUE(source) << error;
    EXPECT_EQ(source->name(), dir / "data");
    EXPECT_EQ(source->size(), 16u);
    std::string out;
    ASSERT_TRUE(source->read(10, 6, out, error)) << error;
    EXPECT_EQ(out, "abcdef");
    ASSERT_TRUE(source->read(0, 0, out, error));
    EXPECT_EQ(out, "");
    EXPECT_EQ(source->bytesFetched(), 6u);
}

TEST(FileByteSourceTest, RefusesRangesBeyondTheEnd) {
    TempDir dir;
    writeFile(dir / "data", "0123");
    std::string error;
    auto source = FileByteSource::open(dir / "data", error);
    ASSERT_TRUE(source);
    std::string out;
    EXPECT_FALSE(source->read(2, 3, out, error));
    EXPECT_FALSE(error.empty());
    EXPECT_FALSE(source->read(UINT64_MAX, 1, out, error));
}

TEST(FileByteSourceTest, StreamsARangePieceByPiece) {
    TempDir dir;
    std::string content(3 << 20, 'x');
    for (std::size_t index = 0; index < content.size(); index += 4096) content[index] = 'y';
    writeFile(dir / "data", content);
    std::string error;
    auto source = FileByteSource::open(dir / "data", error);
    ASSERT_TRUE(source);
    std::string gathered;
    int pieces = 0;
    ASSERT_TRUE(source->stream({100, content.size() - 200}, [&](std::string_view piece) {
        gathered.append(piece);
        ++pieces;
        return true;
    }, error));
    EXPECT_EQ(gathered, content.substr(100, content.size() - 200));
    EXPECT_GT(pieces, 1);
    // A sink may stop the reading early.
    int calls = 0;
    EXPECT_FALSE(source->stream({0, content.size()}, [&](std::string_view) { return ++calls < 1; }, error));
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(error.empty());
}

TEST(FileByteSourceTest, RefusesWhatIsNotARegularFile) {
    TempDir dir;
    std::string error;
    EXPECT_FALSE(FileByteSource::open(dir / "missing", error));
    EXPECT_FALSE(error.empty());
    EXPECT_FALSE(FileByteSource::open(dir.path(), error));
    EXPECT_EQ(error, "not a regular file");
    ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0644), 0);
    // Opening a pipe must neither wait for a writer nor succeed.
    EXPECT_FALSE(FileByteSource::open(dir / "pipe", error));
}

}  // namespace
}  // namespace whittle
