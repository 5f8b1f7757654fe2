#pragma once

#include "Output.h"
#include "Picture.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace tablectl {

// How far a scan is.
struct ProgressState {
    int rowsDone = 0;
    int rows = 0;
    int patchesDone = 0;
    int patches = 0;
    double seconds = 0;        // since the measurement began
    std::vector<int> spotRows; // those that were read patch by patch, though they were to be read as strips
    bool knowsSpotRows = true; // false: there may be more of them

    double patchesPerSecond() const; // 0 before there is anything to go by
    double secondsLeft() const;      // below 0 before there is
};

// One line of at most `width` columns; what matters less is left out first. All lines of a scan have the same
// parts at the same places.
std::string progressLine(const ProgressState& state, int width);

// "row 8 by spots", "rows 8, 10 by spots", or "".
std::string spotRowsText(const std::vector<int>& rows);

// Shows how a scan goes, on standard error: a bar that is redrawn in place on a terminal, a line per row
// otherwise. With --json the events are objects on standard output instead.
class Progress {
public:
    Progress(Output& output, int rows, int patches);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress(); // leaves the cursor on a line of its own

    bool isLive() const { return mLive; } // the display wants to be told about passing time

    // Shows the chart as it fills, above the bar, where a terminal has room and colours for it. The layout
    // lives as long as this does.
    void showChart(const Color::ChartLayout& layout);

    void step(const std::string& event, const std::string& text); // "calibrating", ...
    void begin();                                                 // the measurement begins
    // `spot`: by spots, where strips were to be tried; nothing when that cannot be told. `readings`: JSON
    // that goes with the event; "": none.
    void row(const Row& row, int patches, std::optional<bool> spot, const std::string& readings);
    void warn(const std::string& text); // stays, above whatever is redrawn
    void tick();
    void end(const std::string& event, const std::string& text);

    const ProgressState& state() const { return mState; }

private:
    void draw();
    void drawPicture();
    void clear();

    Output& mOutput;
    bool mLive;
    bool mDrawn = false; // the line in which the cursor stands
    std::optional<Picture> mPicture;
    std::size_t mPictureLines = 0;    // that stand above it
    std::pair<int, int> mPictureRoom; // the terminal's size when they were drawn
    ProgressState mState;
    std::chrono::steady_clock::time_point mBegin;
};

} // namespace tablectl
