#include "Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string_view>

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

std::string_view variable(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

// The nearest of xterm's palette: a cube of six levels a side from 16 on, then 24 greys.
int paletteIndex(const Color::Rgb8& color) {
    constexpr std::array<int, 6> kLevels = {0, 95, 135, 175, 215, 255};
    const auto nearestLevel = [&](int value) {
        return static_cast<int>(std::min_element(kLevels.begin(), kLevels.end(),
                                                 [value](int one, int other) {
                                                     return std::abs(one - value) < std::abs(other - value);
                                                 }) -
                                kLevels.begin());
    };
    const auto distance = [&](int r, int g, int b) {
        return (r - color.r) * (r - color.r) + (g - color.g) * (g - color.g) + (b - color.b) * (b - color.b);
    };
    const std::array<int, 3> level = {nearestLevel(color.r), nearestLevel(color.g), nearestLevel(color.b)};
    const int grey = std::clamp((color.r + color.g + color.b) / 3 - 3, 0, 230) / 10;
    const int greyValue = 8 + 10 * grey;
    const auto value = [&](std::size_t channel) { return kLevels[static_cast<std::size_t>(level[channel])]; };
    if (distance(greyValue, greyValue, greyValue) < distance(value(0), value(1), value(2)))
        return 232 + grey;
    return 16 + 36 * level[0] + 6 * level[1] + level[2];
}

// `layer`: 38 for what is written, 48 for what is behind it.
std::string colorText(int layer, const Color::Rgb8& color, ColorDepth depth) {
    const std::string begin = "\033[" + std::to_string(layer);
    switch (depth) {
    case ColorDepth::full:
        return begin + ";2;" + std::to_string(color.r) + ";" + std::to_string(color.g) + ";" +
               std::to_string(color.b) + "m";
    case ColorDepth::indexed:
        return begin + ";5;" + std::to_string(paletteIndex(color)) + "m";
    case ColorDepth::none:
        break;
    }
    return "";
}

} // namespace

bool isTerminal(Stream stream) {
    return isatty(descriptorOf(stream)) == 1;
}

bool hasKeyboard() {
    return isatty(STDIN_FILENO) == 1;
}

int terminalWidth(Stream stream) {
    const int width = sizeOf(stream).ws_col;
    return width > 0 ? width : 80;
}

int terminalHeight(Stream stream) {
    const int height = sizeOf(stream).ws_row;
    return height > 0 ? height : 24;
}

ColorDepth colorDepth(Stream stream) {
    const std::string_view terminal = variable("TERM");
    if (!isTerminal(stream) || !variable("NO_COLOR").empty() || terminal == "dumb")
        return ColorDepth::none;
    if (const std::string_view colors = variable("COLORTERM"); colors == "truecolor" || colors == "24bit")
        return ColorDepth::full;
    if (terminal.ends_with("-direct"))
        return ColorDepth::full;
    return terminal.find("256color") != terminal.npos ? ColorDepth::indexed : ColorDepth::none;
}

std::string foreground(const Color::Rgb8& color, ColorDepth depth) {
    return colorText(38, color, depth);
}

std::string background(const Color::Rgb8& color, ColorDepth depth) {
    return colorText(48, color, depth);
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
