#include "Fit.h"

#include <Color/Colorimetry.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <utility>

namespace tablectl {

namespace {

// Below this a row is where it should be, whatever else it resembles.
constexpr double kUnsuspicious = 2;
// Fewer patches than these resemble too much by chance.
constexpr int kFewestPatches = 3;
// Shifts in both directions at once are looked for so far only.
constexpr int kNear = 3;

using Cell = std::pair<int, int>; // row and column

// The mean difference of measured colours from the layout's, and for how many it is.
class Comparison {
public:
    Comparison(const Row& row, const Color::ChartLayout& layout)
        : mLayout(layout), mRow(row.row), mMeasured(meanColors(row)) {}

    // Compared with the patch that stands at `place(row, column)`; nothing when too few patches have one
    // there.
    std::optional<double> at(const std::function<Cell(int, int)>& place) {
        double sum = 0;
        int count = 0;
        for (const auto& [column, lab] : mMeasured) {
            const auto [otherRow, otherColumn] = place(mRow, column);
            if (const Color::Lab* reference = referenceAt(otherRow, otherColumn)) {
                sum += Color::deltaE2000(lab, *reference);
                ++count;
            }
        }
        const int fewest = std::max(kFewestPatches, static_cast<int>(mMeasured.size()) / 2);
        return count >= fewest ? std::optional(sum / count) : std::nullopt;
    }

private:
    const Color::Lab* referenceAt(int row, int column) {
        const Color::Patch* patch = mLayout.patchAt(row, column);
        if (!patch)
            return nullptr;
        const auto [entry, isNew] = mReference.try_emplace(patch);
        if (isNew)
            entry->second = Color::labFromSpectrum(patch->reflectance);
        return &entry->second;
    }

    const Color::ChartLayout& mLayout;
    int mRow;
    std::map<int, Color::Lab> mMeasured; // by column
    std::map<const Color::Patch*, Color::Lab> mReference;
};

std::string shiftText(int row, int right) {
    std::string text;
    if (row >= 0)
        text = "of row " + std::to_string(row);
    if (right != 0)
        text += (text.empty() ? "" : ", ") + std::to_string(std::abs(right)) +
                (std::abs(right) == 1 ? " column" : " columns") + " further " +
                (right > 0 ? "right" : "left");
    return text;
}

struct Best {
    double difference = std::numeric_limits<double>::infinity();
    std::string where;

    void consider(std::optional<double> found, const std::string& name) {
        if (found && *found < difference) {
            difference = *found;
            where = name;
        }
    }
};

} // namespace

std::string misplacement(const Row& row, const Color::ChartLayout& layout) {
    if (!layout.hasSpectra)
        return "";
    Comparison comparison(row, layout);
    const auto own = comparison.at([](int r, int c) { return Cell(r, c); });
    if (!own || *own < kUnsuspicious)
        return "";

    const int lastRow = layout.rows - 1;
    const int lastColumn = layout.columns - 1;
    Best best;
    best.consider(comparison.at([&](int r, int c) { return Cell(lastRow - r, lastColumn - c); }),
                  "of the chart turned by 180 degrees");
    best.consider(comparison.at([&](int r, int c) { return Cell(r, lastColumn - c); }),
                  "of the chart mirrored from left to right");
    if (layout.rows == layout.columns) {
        best.consider(comparison.at([&](int r, int c) { return Cell(lastRow - c, r); }),
                      "of the chart turned by 90 degrees clockwise");
        best.consider(comparison.at([&](int r, int c) { return Cell(c, lastColumn - r); }),
                      "of the chart turned by 90 degrees anticlockwise");
    }
    for (int down = -row.row; down <= lastRow - row.row; ++down) {
        const int reach = down == 0                 ? lastColumn / 2
                          : std::abs(down) <= kNear ? std::min(kNear, lastColumn / 2)
                                                    : 0;
        for (int right = -reach; right <= reach; ++right) {
            if (down != 0 || right != 0)
                best.consider(comparison.at([&](int r, int c) { return Cell(r + down, c + right); }),
                              shiftText(down != 0 ? row.row + down : -1, right));
        }
    }
    if (best.difference > *own / 2)
        return "";
    char text[256];
    std::snprintf(
        text, sizeof text,
        "the chart does not lie as the layout says: row %d has the colours %s (mean CIEDE2000 %.2f), "
        "not its own (%.2f)",
        row.row, best.where.c_str(), best.difference, *own);
    return text;
}

} // namespace tablectl
