// A stream cut into frames: how the bytes are divided over the reads must not matter. The first byte chooses
// the division.
#include "Fuzzing.h"

#include <VellDevice/FrameReader.h>
#include <VellDevice/Wire.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using VellService::FrameReader;

struct Cut {
    std::vector<std::string> frames;
    bool isMalformed = false;

    bool operator==(const Cut&) const = default;
};

void take(FrameReader& reader, Cut& cut) {
    while (!reader.isMalformed() && reader.hasFrame()) {
        const std::string_view payload = reader.frame();
        fuzzing::require(!payload.empty() && payload.size() <= VellService::kMaximumPayload,
                         "a frame has 1 byte to 16 MiB");
        cut.frames.emplace_back(payload);
        reader.pop();
    }
    cut.isMalformed = reader.isMalformed();
}

Cut cutInPieces(const char* bytes, std::size_t size, std::size_t piece) {
    FrameReader reader;
    Cut cut;
    for (std::size_t position = 0; position < size && !cut.isMalformed; position += piece) {
        reader.append(bytes + position, std::min(piece, size - position));
        take(reader, cut);
    }
    return cut;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size < 2)
        return 0;
    const auto* const stream = reinterpret_cast<const char*>(bytes + 1);
    const std::size_t piece = std::size_t{bytes[0] % 16U} + 1;
    fuzzing::require(cutInPieces(stream, size - 1, piece) == cutInPieces(stream, size - 1, size),
                     "pieces make the same frames as the whole");
    return 0;
}
