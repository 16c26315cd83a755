// Bytes read at any offset of something that may be large and far away: a file on
// this machine, or a file on a web server read by ranges.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace whittle {

struct ByteRange {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
};

class ByteSource {
public:
    virtual ~ByteSource() = default;

    // The path or address as the user typed it, for messages.
    virtual const std::string& name() const = 0;
    // The whole size in bytes.
    virtual std::uint64_t size() const = 0;

    // Reads exactly `length` bytes at `offset` into `out` (replacing its content).
    // False, with the reason in `error`, when they cannot all be read.
    virtual bool read(std::uint64_t offset, std::size_t length, std::string& out, std::string& error) = 0;

    // Hands the bytes of a range to `sink` piece by piece, in order, without holding
    // the whole range at once. A sink that answers false stops the reading (which then
    // answers false with `error` left empty). By default, reads pieces of 1 MiB.
    virtual bool stream(const ByteRange& range, const std::function<bool(std::string_view)>& sink,
                        std::string& error);

    // Says which ranges are about to be read, so that a far source can fetch them in
    // few requests; a hint only, which a near source ignores.
    virtual void willRead(const std::vector<ByteRange>& ranges) { (void)ranges; }

    // Bytes brought from the far side so far (for a near source, bytes read).
    virtual std::uint64_t bytesFetched() const = 0;

    // When the latest read or stream failed because the far side could not be read
    // (a server that failed, went silent or changed the file), the reason; empty
    // otherwise, and always for a near source.
    virtual std::string lastFailure() const { return {}; }
};

}  // namespace whittle
