#pragma once

#include "Output.h"

#include <Color/Colorimetry.h>

#include <string>
#include <vector>

namespace tablectl {

enum class Stream { output, error };

bool isTerminal(Stream stream);
bool hasKeyboard();                // standard input is a terminal
int terminalWidth(Stream stream);  // 80 where it cannot be told
int terminalHeight(Stream stream); // 24 where it cannot be told

// What a terminal does with colours: nothing (also where $NO_COLOR asks for that), the 256 of xterm's
// palette, or any.
enum class ColorDepth { none, indexed, full };

ColorDepth colorDepth(Stream stream);
// Selects the colour for what is written next; "" where there are none.
std::string foreground(const Color::Rgb8& color, ColorDepth depth);
std::string background(const Color::Rgb8& color, ColorDepth depth);
inline constexpr const char* kPlain = "\033[m"; // back to the usual colours

// As many of the text's characters (UTF-8) as fit into `width` columns.
std::string clipped(const std::string& text, int width);

// Shows lines on a terminal, each time over those shown before; as many as fit.
class Repaint {
public:
    explicit Repaint(Output& output) : mOutput(output) {}
    void show(const std::vector<std::string>& lines);

private:
    Output& mOutput;
    std::size_t mShown = 0;
};

} // namespace tablectl
