#include "Progress.h"

#include "Terminal.h"

#include <cmath>
#include <cstdio>

namespace tablectl {

namespace {

constexpr int kShortestBar = 10;
constexpr int kLongestBar = 40;

std::string fixed(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

std::string clockText(double seconds) {
    const long whole = std::lround(seconds);
    char text[32];
    std::snprintf(text, sizeof text, "%ld:%02ld", whole / 60, whole % 60);
    return text;
}

std::string rowList(const std::vector<int>& rows) {
    std::string text;
    for (const int row : rows)
        text += (text.empty() ? "" : ",") + std::to_string(row);
    return text;
}

std::string bar(const ProgressState& state, int length) {
    const int full = state.patches > 0
                         ? static_cast<int>(static_cast<long>(state.patchesDone) * length / state.patches)
                         : 0;
    return "[" + std::string(static_cast<std::size_t>(full), '#') +
           std::string(static_cast<std::size_t>(length - full), '.') + "] ";
}

} // namespace

double ProgressState::patchesPerSecond() const {
    return patchesDone > 0 && seconds > 0 ? patchesDone / seconds : 0;
}

double ProgressState::secondsLeft() const {
    return patchesPerSecond() > 0 ? (patches - patchesDone) / patchesPerSecond() : -1;
}

std::string progressLine(const ProgressState& state, int width) {
    std::string text = "row " + std::to_string(state.rowsDone) + "/" + std::to_string(state.rows);
    // Each part is added whole or not at all, so that a narrow line is still a readable one.
    const auto add = [&](const std::string& part) {
        if (std::ssize(text) + std::ssize(part) <= width)
            text += part;
    };
    add("  " + std::to_string(state.patchesDone) + "/" + std::to_string(state.patches) + " patches");
    if (state.secondsLeft() >= 0) {
        add("  " + clockText(state.secondsLeft()) + " left");
        add("  " + fixed(state.patchesPerSecond(), 1) + "/s");
    }
    if (!state.spotRows.empty())
        add("  spots in " + rowList(state.spotRows));
    const int room = width - static_cast<int>(text.size()) - 3;
    if (room >= kShortestBar)
        text = bar(state, std::min(room, kLongestBar)) + text;
    return clipped(text, width);
}

Progress::Progress(Output& output, int rows, int patches)
    : mOutput(output),
      mLive(!output.isJson() && isTerminal(Stream::error)),
      mBegin(std::chrono::steady_clock::now()) {
    mState.rows = rows;
    mState.patches = patches;
}

Progress::~Progress() {
    clear();
}

void Progress::step(const std::string& event, const std::string& text) {
    if (mOutput.isJson()) {
        mOutput.object(Json().add("event", event));
        return;
    }
    clear();
    std::fprintf(stderr, mLive ? "%s..." : "%s\n", text.c_str());
    mDrawn = mLive;
}

void Progress::begin() {
    mBegin = std::chrono::steady_clock::now();
    if (mOutput.isJson())
        mOutput.object(Json().add("event", "begin").add("rows", mState.rows).add("patches", mState.patches));
    tick();
}

void Progress::row(int row, int patches, bool spot) {
    mState.rowsDone++;
    mState.patchesDone += patches;
    mState.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - mBegin).count();
    if (spot)
        mState.spotRows.push_back(row);
    if (mOutput.isJson()) {
        mOutput.object(Json()
                           .add("event", "row")
                           .add("row", row)
                           .add("patches", patches)
                           .add("rowsDone", mState.rowsDone)
                           .add("patchesDone", mState.patchesDone)
                           .add("patchesPerSecond", mState.patchesPerSecond())
                           .add("secondsLeft", mState.secondsLeft())
                           .add("spot", spot));
    } else if (mLive) {
        draw();
    } else {
        std::fprintf(stderr, "row %d: %d patches%s\n", row, patches, spot ? ", by spots" : "");
    }
}

void Progress::tick() {
    if (!mLive)
        return;
    mState.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - mBegin).count();
    draw();
}

void Progress::end(const std::string& event, const std::string& text) {
    if (mOutput.isJson()) {
        mOutput.object(Json()
                           .add("event", event)
                           .add("rowsDone", mState.rowsDone)
                           .add("patchesDone", mState.patchesDone)
                           .add("seconds", mState.seconds));
        return;
    }
    clear();
    std::fprintf(stderr, "%s\n", text.c_str());
}

void Progress::draw() {
    // One column stays free: a cursor in the last one makes some terminals wrap.
    std::fprintf(stderr, "\r%s\033[K", progressLine(mState, terminalWidth(Stream::error) - 1).c_str());
    mDrawn = true;
}

void Progress::clear() {
    if (mDrawn)
        std::fputs("\r\033[K", stderr);
    mDrawn = false;
}

} // namespace tablectl
