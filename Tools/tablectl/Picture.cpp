#include "Picture.h"

namespace tablectl {

namespace {

constexpr int kLargestScale = 4; // columns, and half lines, to a patch
constexpr const char* kUpperHalf = "\u2580";
constexpr const char* kPoint = "\u00b7";

bool isSame(const std::optional<Color::Rgb8>& one, const std::optional<Color::Rgb8>& other) {
    if (!one || !other)
        return !one && !other;
    return one->r == other->r && one->g == other->g && one->b == other->b;
}

} // namespace

Picture::Picture(const Color::ChartLayout& layout, ColorDepth depth)
    : mLayout(layout),
      mDepth(depth),
      mColors(static_cast<std::size_t>(layout.rows) * static_cast<std::size_t>(layout.columns)) {}

void Picture::add(const Row& row) {
    const auto first = static_cast<std::size_t>(row.row) * static_cast<std::size_t>(mLayout.columns);
    for (const auto& [column, lab] : meanColors(row))
        mColors[first + static_cast<std::size_t>(column)] = Color::srgbFromLab(lab);
}

std::vector<std::string> Picture::lines(int width, int height) const {
    int scale = kLargestScale;
    const auto count = [&] { return (mLayout.rows * scale + 1) / 2; };
    while (scale > 0 && (mLayout.columns * scale > width || count() > height))
        --scale;
    std::vector<std::string> lines;
    for (int index = 0; scale > 0 && index < count(); ++index)
        lines.push_back(line(index, scale));
    return lines;
}

Picture::Pixel Picture::at(int row, int column) const {
    if (row >= mLayout.rows)
        return std::nullopt;
    return mColors[static_cast<std::size_t>(row) * static_cast<std::size_t>(mLayout.columns) +
                   static_cast<std::size_t>(column)];
}

std::string Picture::line(int index, int scale) const {
    std::string text;
    Pixel ink; // what has been selected
    Pixel paper;
    const auto write = [&](const Pixel& upper, const Pixel& lower, const char* character) {
        if ((ink && !upper) || (paper && !lower)) {
            text += kPlain;
            ink = paper = std::nullopt;
        }
        if (upper && !isSame(ink, upper))
            text += foreground(*upper, mDepth);
        if (lower && !isSame(paper, lower))
            text += background(*lower, mDepth);
        ink = upper;
        paper = lower;
        text += character;
    };
    for (int across = 0; across < mLayout.columns * scale; ++across) {
        const int column = across / scale;
        const int upperRow = 2 * index / scale;
        const int lowerRow = (2 * index + 1) / scale;
        const Pixel upper = at(upperRow, column);
        const Pixel lower = at(lowerRow, column);
        // Rows come in any order, so that either may be there without the other.
        if (!upper && lower)
            write(lower, std::nullopt, "\u2584");
        else if (upper && isSame(upper, lower))
            write(std::nullopt, upper, " ");
        else if (upper)
            write(upper, lower, kUpperHalf);
        else
            write(std::nullopt, std::nullopt,
                  across % scale == scale / 2 && mLayout.patchAt(upperRow, column) ? kPoint : " ");
    }
    if (ink || paper)
        text += kPlain;
    return text;
}

} // namespace tablectl
