#pragma once

#include "VirtualChart.h"

namespace TaviSDK {

// The X/Y table: where the head is and how long its moves take.
//
// The head's place is that of the aperture. With the visor setting on, positions that callers name and read
// are those of the point under the visor, which sits beside the aperture on the head. Not thread-safe: the
// Instrument's call lock guards it.
class Table {
public:
    // Where the head rests and the white reference lies.
    static constexpr Point kHome{0.0, 0.0};
    // As fast as the motors go, in units per second.
    static constexpr double kTopSpeed = 600.0;

    // The aperture's place for a position of a caller. Throws Refusal (OutsideTable) when the head cannot go
    // there.
    static Point toAperture(double x, double y, bool isVisor);
    static Point fromAperture(const Point& aperture, bool isVisor);

    const Point& head() const { return mHead; }
    void setHead(const Point& place) { mHead = place; }
    // Seconds from where the head is, at a speed that the table does not exceed.
    double timeTo(const Point& place, double speed) const;

private:
    Point mHead = kHome;
};

} // namespace TaviSDK
