#pragma once

#include "Output.h"

#include <chrono>
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

    double patchesPerSecond() const; // 0 before there is anything to go by
    double secondsLeft() const;      // below 0 before there is
};

// One line of at most `width` columns; what matters less is left out first.
std::string progressLine(const ProgressState& state, int width);

// Shows how a scan goes, on standard error: a bar that is redrawn in place on a terminal, a line per row
// otherwise. With --json the events are objects on standard output instead.
class Progress {
public:
    Progress(Output& output, int rows, int patches);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress(); // leaves the cursor on a line of its own

    bool isLive() const { return mLive; } // the display wants to be told about passing time

    void step(const std::string& event, const std::string& text); // "calibrating", ...
    void begin();                                                 // the measurement begins
    void row(int row, int patches, bool spot);
    void tick();
    void end(const std::string& event, const std::string& text);

    const ProgressState& state() const { return mState; }

private:
    void draw();
    void clear();

    Output& mOutput;
    bool mLive;
    bool mDrawn = false;
    ProgressState mState;
    std::chrono::steady_clock::time_point mBegin;
};

} // namespace tablectl
