# Writes a C++ source file that holds the bytes of INPUT as an array.
# Usage: cmake -DINPUT=... -DOUTPUT=... -DSYMBOL=... -P EmbedFile.cmake
file(READ "${INPUT}" hex HEX)
string(LENGTH "${hex}" hex_length)
math(EXPR byte_count "${hex_length} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n" bytes "${bytes}")
file(WRITE "${OUTPUT}"
"// Generated at build time from ${INPUT}; do not edit.
#include <cstddef>
namespace whittle {
extern const unsigned char ${SYMBOL}[] = {
${bytes}
};
extern const std::size_t ${SYMBOL}Size = ${byte_count};
}  // namespace whittle
")
