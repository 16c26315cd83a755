#include "support/ByteSource.hpp"

#include <algorithm>

namespace whittle {

bool ByteSource::stream(const ByteRange& range, const std::function<bool(std::string_view)>& sink, std::string& error) {
    constexpr std::uint64_t kPiece = 1 << 20;
    std::string piece;
    for (std::uint64_t done = 0; done < range.length;) {
        auto length = static_cast<std::size_t>(std::min(kPiece, range.length - done));
        if (!read(range.offset + done, length, piece, error)) return false;
        if (!sink(piece)) {
            error.clear();
            return false;
        }
        done += length;
    }
    return true;
}

}  // namespace whittle
