#include "Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace tablectl {

namespace {

int descriptorOf(Stream stream) {
    return stream == Stream::output ? STDOUT_FILENO : STDERR_FILENO;
}

} // namespace

bool isTerminal(Stream stream) {
    return isatty(descriptorOf(stream)) == 1;
}

int terminalWidth(Stream stream) {
    winsize size{};
    if (ioctl(descriptorOf(stream), TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return 80;
    return size.ws_col;
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
    // A line that wrapped would take more rows than are gone back over.
    const int width = terminalWidth(Stream::output) - 1;
    for (const std::string& line : lines)
        text += "\r" + clipped(line, width) + "\033[K\n";
    mOutput.write(text + "\033[J");
    mShown = lines.size();
}

} // namespace tablectl
