#include "FrameReader.h"

#include "Wire.h"

namespace VellService {
namespace {

// A buffer that one large frame made is not kept for ever.
constexpr std::size_t kKeptCapacity = 1 << 20;

} // namespace

void FrameReader::append(const char* bytes, std::size_t count) {
    mBytes.append(bytes, count);
}

std::size_t FrameReader::announced() const {
    std::size_t length = 0;
    for (std::size_t i = 0; i < kFrameHeaderSize; ++i)
        length = length << 8 | static_cast<unsigned char>(mBytes[mBegin + i]);
    return length;
}

bool FrameReader::isMalformed() const {
    return available() >= kFrameHeaderSize && (announced() == 0 || announced() > kMaximumPayload);
}

bool FrameReader::hasFrame() const {
    return available() >= kFrameHeaderSize && !isMalformed() && available() - kFrameHeaderSize >= announced();
}

std::string_view FrameReader::frame() const {
    return std::string_view(mBytes).substr(mBegin + kFrameHeaderSize, announced());
}

void FrameReader::pop() {
    mBegin += kFrameHeaderSize + announced();
    if (mBegin < mBytes.size()) {
        // Moved down only when most of it is behind, so that many small frames in one buffer cost little
        // each.
        if (mBegin > mBytes.size() / 2) {
            mBytes.erase(0, mBegin);
            mBegin = 0;
        }
        return;
    }
    mBegin = 0;
    if (mBytes.capacity() > kKeptCapacity)
        std::string().swap(mBytes);
    else
        mBytes.clear();
}

} // namespace VellService
