#include "Progress.h"

#include "Terminal.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tablectl {

namespace {

constexpr int kShortestBar = 10;
constexpr int kLongestBar = 40;
constexpr int kSpotsRoom = 16; // kept free for the rows that are read by spots

std::string clockText(double seconds) {
    const long whole = std::lround(seconds);
    char text[32];
    std::snprintf(text, sizeof text, "%ld:%02ld", whole / 60, whole % 60);
    return text;
}

// To the right, in a field of a fixed width.
std::string padded(const std::string& text, std::size_t width) {
    return std::string(width - std::min(width, text.size()), ' ') + text;
}

// "3/11", as long as "11/11".
std::string share(int done, int all) {
    const std::string total = std::to_string(all);
    return padded(std::to_string(done), total.size()) + "/" + total;
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
    std::string text = "row " + share(state.rowsDone, state.rows);
    bool fits = true;
    const auto add = [&](const std::string& part) {
        fits = fits && std::ssize(text) + std::ssize(part) <= width;
        if (fits)
            text += part;
    };
    const bool knowsPace = state.secondsLeft() >= 0;
    add("  " + share(state.patchesDone, state.patches) + " patches");
    add("  " + padded(knowsPace ? clockText(state.secondsLeft()) : "-:--", 6) + " left");
    add("  " + padded(knowsPace ? fixedText(state.patchesPerSecond(), 1) : "-", 6) + "/s");

    int room = width - static_cast<int>(text.size());
    if (room >= kSpotsRoom + kShortestBar + 3) {
        const int length = std::min(room - kSpotsRoom - 3, kLongestBar);
        text = bar(state, length) + text;
        room -= length + 3;
    }
    std::string spots = spotRowsText(state.spotRows);
    if (std::ssize(spots) + 2 > room && !spots.empty())
        spots = std::to_string(state.spotRows.size()) + " by spots";
    if (std::ssize(spots) + 2 <= room && !spots.empty())
        text += "  " + spots;
    return clipped(text, width);
}

std::string spotRowsText(const std::vector<int>& rows) {
    if (rows.empty())
        return {};
    std::string text;
    for (const int row : rows)
        text += (text.empty() ? "" : ", ") + std::to_string(row);
    return (rows.size() == 1 ? "row " : "rows ") + text + " by spots";
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
    drawPicture();
    tick();
}

void Progress::showChart(const Color::ChartLayout& layout) {
    const ColorDepth depth = colorDepth(Stream::error);
    if (mLive && depth != ColorDepth::none)
        mPicture.emplace(layout, depth);
}

void Progress::row(const Row& row, int patches, std::optional<bool> spot, const std::string& readings) {
    mState.rowsDone++;
    mState.patchesDone += patches;
    mState.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - mBegin).count();
    if (spot.value_or(false))
        mState.spotRows.push_back(row.row);
    mState.knowsSpotRows = mState.knowsSpotRows && spot.has_value();
    if (mOutput.isJson()) {
        Json json;
        json.add("event", "row")
            .add("row", row.row)
            .add("patches", patches)
            .add("rowsDone", mState.rowsDone)
            .add("patchesDone", mState.patchesDone)
            .add("patchesPerSecond", mState.patchesPerSecond())
            .add("secondsLeft", mState.secondsLeft());
        if (spot)
            json.add("spot", *spot);
        if (!readings.empty())
            json.addRaw("readings", readings);
        mOutput.object(json);
    } else if (mLive) {
        if (mPicture)
            mPicture->add(row);
        drawPicture();
        draw();
    } else {
        std::fprintf(stderr, "row %d: %d patches%s\n", row.row, patches,
                     spot.value_or(false) ? ", by spots" : "");
    }
}

void Progress::warn(const std::string& text) {
    if (mOutput.isJson()) {
        mOutput.object(Json().add("event", "warning").add("message", text));
        return;
    }
    clear();
    if (mPictureLines > 0)
        std::fprintf(stderr, "\033[%zuA\033[J", mPictureLines);
    mPictureLines = 0;
    std::fprintf(stderr, "tablectl: warning: %s\n", text.c_str());
    drawPicture();
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
                           .add("seconds", mState.seconds)
                           .addRaw("spotRows", jsonArray(mState.spotRows)));
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

// Over the one before; where the terminal has another size by now, its lines are no longer where they were.
void Progress::drawPicture() {
    if (!mPicture)
        return;
    const std::pair<int, int> room(terminalWidth(Stream::error), terminalHeight(Stream::error));
    const std::vector<std::string> lines = mPicture->lines(room.first - 1, room.second * 2 / 3);
    clear();
    std::string text;
    if (mPictureLines > 0 && room == mPictureRoom)
        text = "\033[" + std::to_string(mPictureLines) + "A";
    for (const std::string& line : lines)
        text += "\r" + line + "\033[K\n";
    std::fputs(text.c_str(), stderr);
    mPictureLines = lines.size();
    mPictureRoom = room;
}

void Progress::clear() {
    if (mDrawn)
        std::fputs("\r\033[K", stderr);
    mDrawn = false;
}

} // namespace tablectl
