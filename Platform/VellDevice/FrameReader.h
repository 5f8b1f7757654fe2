#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace VellService {

// Cuts a stream of bytes into frames. Bytes are taken in as they come; what a sender merely announces is not
// reserved. One thread.
class FrameReader {
public:
    void append(const char* bytes, std::size_t count);

    // The stream cannot be understood from here on.
    bool isMalformed() const;
    bool hasFrame() const;
    // The first whole frame's payload; valid until the next call of append or pop.
    std::string_view frame() const;
    void pop();

private:
    std::size_t available() const { return mBytes.size() - mBegin; }
    std::size_t announced() const;

    std::string mBytes;
    std::size_t mBegin = 0; // of the first frame that was not popped
};

} // namespace VellService
