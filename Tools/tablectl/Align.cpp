// Where a chart lies: its corner patches, found with the visor and the arrow keys.
#include "Chart.h"
#include "Commands.h"
#include "Errors.h"
#include "Files.h"
#include "Keyboard.h"
#include "Table.h"
#include "Terminal.h"

#include <Color/Placement.h>

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <complex>
#include <cstdio>
#include <numbers>
#include <utility>

namespace tablectl {

namespace {

using Place = std::complex<double>; // x + iy, so that a factor turns and stretches

constexpr std::array<double, 3> kSteps = {0.1, 1, 10};
constexpr std::chrono::milliseconds kLookAround{100}; // for a signal, or a device that went
constexpr int kOutsideTable = 36;

Place placeOf(const Color::Point& point) {
    return {point.x, point.y};
}

Color::Point pointOf(const Place& place) {
    return {place.real(), place.imag()};
}

struct UserLeft : Failure {
    UserLeft() : Failure(1, "align: left, nothing is changed") {}
};

// A patch that the visor is set on.
struct Stop {
    std::string name;
    Place expected; // by the layout
    Place place;
    bool isTaken = false;
};

// Three patches that tell where the others are, of a smaller chart fewer; all of them are printed ones: a
// short last row begins with empty cells.
class CornerPatches {
public:
    explicit CornerPatches(const Color::Grid& grid) : mGrid(grid) {
        std::vector<const char*> names;
        if (grid.rows > 1 && grid.columns > 1)
            names = {"top left", isLastRowShort() ? "top right" : "bottom left", "bottom right"};
        else if (grid.rows > 1 || grid.columns > 1)
            names = {"first", "last"};
        else
            names = {"only"};
        for (const char* const name : names)
            mStops.push_back({name, {}, {}, false});
    }

    // Where they are looked for.
    void expectAt(const Color::Corners& corners) {
        mStops.back().expected = placeOf(corners.bottomRight);
        mStops.front().expected = placeOf(corners.topLeft);
        if (mStops.size() == 3) {
            const Place bottomLeft = placeOf(corners.bottomLeft);
            mStops[1].expected =
                isLastRowShort() ? mStops.front().expected + mStops.back().expected - bottomLeft : bottomLeft;
        }
        for (Stop& stop : mStops)
            stop.place = stop.expected;
    }

    std::size_t count() const { return mStops.size(); }
    Stop& at(std::size_t index) { return mStops[index]; }

    // A stop that has not been taken is looked for where those before it lead to.
    void expect(std::size_t index) {
        Stop& stop = mStops[index];
        if (stop.isTaken || index == 0)
            return;
        const Stop& last = mStops[index - 1];
        const Place turn =
            index == 1 ? Place(1) : (last.place - mStops[0].place) / (last.expected - mStops[0].expected);
        stop.place = last.place + (stop.expected - last.expected) * turn;
    }

    // Why a stop cannot be where it is; "": it can.
    std::string problemWith(std::size_t index) const {
        if (index == 0)
            return "";
        const Place way = mStops[index].place - mStops[index - 1].place;
        if (std::abs(way) < 1)
            return "the patch before is here";
        const Place before = mStops[index - 1].place - mStops[0].place;
        const bool isOnALine = index == 2 && std::abs((way / before).imag()) < 0.01 * std::abs(way / before);
        return isOnALine ? "the three lie on one line" : "";
    }

    Color::Placement placement() const {
        const Place first = mStops.front().place;
        const Place last = mStops.back().place;
        Place bottomLeft = mGrid.columns == 1 ? last : first;
        if (mStops.size() == 3)
            bottomLeft = isLastRowShort() ? first + last - mStops[1].place : mStops[1].place;
        return {mGrid, {pointOf(first), pointOf(bottomLeft), pointOf(last)}};
    }

private:
    bool isLastRowShort() const { return mGrid.firstColumn(mGrid.rows - 1) > 0; }

    Color::Grid mGrid;
    std::vector<Stop> mStops;
};

// While it lives positions are those of the visor. It leaves the head at home and the setting as the mode has
// it: the record may be behind.
class Pointing {
public:
    explicit Pointing(const Table& table)
        : mTable(table), mAfter(table.status().mode == "SingleReflectance" ? "yes" : "no") {
        set("yes");
    }
    Pointing(const Pointing&) = delete;
    Pointing& operator=(const Pointing&) = delete;
    ~Pointing() {
        const Session::CleanUp cleanUp(mTable.session());
        try {
            set(mAfter);
            mTable.call({"GoHome", {}});
        } catch (const Failure&) {
            // The device is gone, or the user does not want to wait.
        }
    }

    // False: there is no such place on the table.
    bool moveTo(const Place& place) const {
        try {
            mTable.call(
                {"SetDevicePosition", {{"x", numberText(place.real())}, {"y", numberText(place.imag())}}});
            return true;
        } catch (const DeviceFailure& failure) {
            if (failure.deviceCode != kOutsideTable)
                throw;
            return false;
        }
    }

private:
    static constexpr const char* kVisor = "TaviTIsVisorCoordinate";

    void set(const std::string& value) const {
        mTable.call({"SetAttribute", {{"key", kVisor}, {"value", value}}});
    }

    const Table& mTable;
    std::string mAfter;
};

// The walk from patch to patch.
class Aligner {
public:
    Aligner(const Table& table, CornerPatches corners)
        : mTable(table), mCorners(std::move(corners)), mPointing(table) {}
    ~Aligner() { std::fputs("\r\033[K", stderr); }
    Aligner(const Aligner&) = delete;
    Aligner& operator=(const Aligner&) = delete;

    // Where the chart lies; throws Failure when the user leaves.
    Color::Placement run() {
        std::fputs("Set the visor on the middle of the chart's corner patches.\n", stderr);
        go(0);
        while (mAt < mCorners.count())
            handle(nextKey());
        return mCorners.placement();
    }

private:
    Stop& stop() { return mCorners.at(mAt); }

    Keyboard::Press nextKey() {
        for (;;) {
            if (mWanted && !mKeyboard.hasMore())
                settle();
            draw();
            const auto press = mKeyboard.next(kLookAround);
            mTable.session().sleep(Session::Seconds(0)); // ends with an interruption
            mTable.status();                             // or when the device is gone
            if (press)
                return *press;
        }
    }

    void handle(const Keyboard::Press& press) {
        using Key = Keyboard::Key;
        switch (press.key) {
        case Key::left:
            return nudge({-1, 0});
        case Key::right:
            return nudge({1, 0});
        case Key::up:
            return nudge({0, -1});
        case Key::down:
            return nudge({0, 1});
        case Key::enter:
            return take();
        case Key::closed:
            throw UserLeft();
        case Key::character:
            break;
        }
        if (press.character == 'q')
            throw UserLeft();
        if (press.character == 's')
            mStep = (mStep + 1) % kSteps.size();
        if (press.character == 'b' && mAt > 0 && settle())
            go(mAt - 1);
    }

    void go(std::size_t index) {
        mAt = index;
        if (mAt == mCorners.count())
            return;
        mCorners.expect(mAt);
        draw();
        if (!move(stop().place)) // where it cannot be; the user steers from where the head is
            stop().place = placeOf(positionOf(mTable));
    }

    // The keys that come in while the head moves are taken together.
    void nudge(const Place& direction) {
        const auto rounded = [](double value) { return std::round(value * 1e4) / 1e4; };
        const Place wanted = mWanted.value_or(stop().place) + direction * kSteps[mStep];
        mWanted = Place(rounded(wanted.real()), rounded(wanted.imag()));
    }

    // Goes where the arrow keys lead; false when that is not on the table.
    bool settle() {
        if (!mWanted)
            return true;
        const Place wanted = *std::exchange(mWanted, std::nullopt);
        const bool isThere = move(wanted);
        if (isThere)
            stop().place = wanted;
        return isThere;
    }

    bool move(const Place& place) {
        const bool isOnTable = mPointing.moveTo(place);
        mProblem = isOnTable ? "" : "beyond the table";
        return isOnTable;
    }

    void take() {
        if (!settle()) // which the user has not seen yet
            return;
        mProblem = mCorners.problemWith(mAt);
        if (!mProblem.empty())
            return;
        stop().isTaken = true;
        go(mAt + 1);
    }

    // What matters less is left out on a narrow terminal.
    void draw() {
        const int width = terminalWidth(Stream::error) - 1;
        char text[96];
        std::snprintf(text, sizeof text, "%s  %.1f %.1f", stop().name.c_str(), stop().place.real(),
                      stop().place.imag());
        std::string line = text;
        for (const std::string& part :
             {mProblem, "step " + numberText(kSteps[mStep]) + " (s)", std::string("arrows move"),
              std::string("Return takes"), std::string("q leaves"), std::string("b goes back")}) {
            if (!part.empty() && std::ssize(line) + std::ssize(part) + 2 <= width)
                line += "  " + part;
        }
        line = clipped(line, width);
        if (line != mDrawn)
            std::fprintf(stderr, "\r%s\033[K", line.c_str());
        mDrawn = line;
    }

    const Table& mTable;
    CornerPatches mCorners;
    Pointing mPointing;
    Keyboard mKeyboard;
    std::size_t mAt = 0;
    std::size_t mStep = 1;
    std::optional<Place> mWanted; // on the way there
    std::string mProblem;
    std::string mDrawn; // what the line shows
};

// How a chart lies: angles in degrees from the table's x axis towards its y axis, pitches in its unit.
struct Lie {
    double turned = 0;
    double leaning = 0; // of the columns against an upright on the rows
    double across = 0;
    double down = 0;

    explicit Lie(const Color::Placement& layout) {
        const Place row = placeOf(layout.bottomRight) - placeOf(layout.bottomLeft);
        const Place column = placeOf(layout.bottomLeft) - placeOf(layout.topLeft);
        // Rounded, as no one lays a chart down more exactly; and without a negative zero.
        const auto degrees = [](const Place& direction) {
            return std::round(std::arg(direction) * 18000 / std::numbers::pi) / 100 + 0.0;
        };
        const Place upright(0, 1);
        if (layout.columns > 1)
            turned = degrees(row);
        else if (layout.rows > 1)
            turned = degrees(column / upright);
        if (layout.columns > 1 && layout.rows > 1)
            leaning = degrees(column / (row * upright));
        across = std::abs(row) / std::max(layout.columns - 1, 1);
        down = std::abs(column) / std::max(layout.rows - 1, 1);
    }

    std::string text() const {
        char line[128];
        std::snprintf(line, sizeof line, "turned by %.2f degrees, leaning by %.2f, pitch %.2f by %.2f",
                      turned, leaning, across, down);
        return line;
    }

    std::string json() const {
        return Json()
            .add("turned", turned)
            .add("leaning", leaning)
            .addRaw("pitch", jsonArray(std::array{across, down}))
            .text();
    }
};

// What the user types before Return.
std::string typedLine(Session& session) {
    std::string line;
    for (;;) {
        session.sleep(Session::Seconds(0)); // ends with an interruption
        pollfd input{STDIN_FILENO, POLLIN, 0};
        if (poll(&input, 1, static_cast<int>(kLookAround.count())) <= 0)
            continue;
        char character = 0;
        if (read(STDIN_FILENO, &character, 1) != 1)
            throw UserLeft();
        if (character == '\n')
            return line;
        line += character;
    }
}

// Asks for places that no file tells.
Color::Corners askForCorners(Session& session) {
    Color::Corners corners;
    for (const auto& [name, point] : {std::pair("top left", &corners.topLeft),
                                      {"bottom left", &corners.bottomLeft},
                                      {"bottom right", &corners.bottomRight}}) {
        char rest = 0;
        do {
            std::fprintf(stderr, "About where is the grid's %s cell? X,Y: ", name);
        } while (std::sscanf(typedLine(session).c_str(), "%lf ,%lf %c", &point->x, &point->y, &rest) != 2);
    }
    return corners;
}

// What the command line says of the place, and the target itself.
Color::PlacementParts partsOf(const AlignRequest& request) {
    Color::PlacementParts parts = placementOf(request.placement);
    try {
        const Color::PlacementParts own = Color::readPlacementParts(request.targetFile);
        if (!parts.grid)
            parts.grid = own.grid;
        if (!parts.corners)
            parts.corners = own.corners;
    } catch (const Color::CgatsError& error) {
        throw UsageFailure(error.what());
    }
    if (!parts.grid)
        throw UsageFailure(request.targetFile +
                           ": does not say how many rows and columns it has; --grid does");
    return parts;
}

} // namespace

void commands::align(Context& context, const AlignRequest& request) {
    const Color::PlacementParts parts = partsOf(request);
    if (!request.outputFile.empty()) {
        if (isSameFile(request.outputFile, request.targetFile))
            throw UsageFailure(request.outputFile + ": the placement would replace the target");
        checkWritable(request.outputFile);
    }
    if (!hasKeyboard() || !isTerminal(Stream::error))
        throw UsageFailure("align: needs a terminal, for the keys and for what they do");
    const Table table = Table::find(context);
    const DeviceLock lock(table);
    applyTimeScale(context, table);
    CornerPatches corners(*parts.grid);
    corners.expectAt(parts.corners ? *parts.corners : askForCorners(context.session));
    const Color::Placement placement = Aligner(table, std::move(corners)).run();
    const std::string text = Color::placementText(
        placement, "Where " + std::filesystem::path(request.targetFile).filename().string() + " lies");
    if (!request.outputFile.empty())
        replaceFile(request.outputFile, text);
    const Lie lie(placement);
    std::fprintf(stderr, "The chart is %s.\n", lie.text().c_str());
    if (context.output.isJson())
        context.output.line(lie.json());
    else if (request.outputFile.empty())
        context.output.write(text);
}

} // namespace tablectl
