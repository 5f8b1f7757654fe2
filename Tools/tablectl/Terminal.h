#pragma once

#include "Output.h"

#include <string>
#include <vector>

namespace tablectl {

enum class Stream { output, error };

bool isTerminal(Stream stream);
int terminalWidth(Stream stream);  // 80 where it cannot be told
int terminalHeight(Stream stream); // 24 where it cannot be told

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
