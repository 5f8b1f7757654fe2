#include "Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

namespace tablectl {

namespace {

int descriptorOf(Stream stream) {
    return stream == Stream::output ? STDOUT_FILENO : STDERR_FILENO;
}

winsize sizeOf(Stream stream) {
    winsize size{}; // stays zero where there is no terminal
    ioctl(descriptorOf(stream), TIOCGWINSZ, &size);
    return size;
}

} // namespace

bool isTerminal(Stream stream) {
    return isatty(descriptorOf(stream)) == 1;
}

int terminalWidth(Stream stream) {
    const int width = sizeOf(stream).ws_col;
    return width > 0 ? width : 80;
}

int terminalHeight(Stream stream) {
    const int height = sizeOf(stream).ws_row;
    return height > 0 ? height : 24;
}

std::string clipped(const std::string& text, int width) {
    int columns = 0;
    for (std::size_t index = 0; index < text.size(); ++index) {
        const bool startsCharacter = (static_cast<unsigned char>(text[index]) & 0xc0) != 0x80;
        if (startsCharacter && ++columns > width)
            return text.substr(0, index);
    }
    return text;
}

void Repaint::show(const std::vector<std::string>& lines) {
    std::string text = mShown > 0 ? "\033[" + std::to_string(mShown) + "A" : "";
    // A line that wrapped would take more rows than are gone back over, and nothing goes back over what has
    // scrolled away. The cursor rests in the last row.
    const int width = terminalWidth(Stream::output) - 1;
    const auto room = static_cast<std::size_t>(std::max(terminalHeight(Stream::output) - 1, 1));
    std::vector<std::string> shown = lines;
    if (lines.size() > room) {
        shown.resize(room - 1);
        shown.push_back("(" + std::to_string(lines.size() - room + 1) + " more lines)");
    }
    for (const std::string& line : shown)
        text += "\r" + clipped(line, width) + "\033[K\n";
    mOutput.write(text + "\033[J");
    mShown = shown.size();
}

} // namespace tablectl
