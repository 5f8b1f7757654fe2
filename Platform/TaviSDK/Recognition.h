#pragma once

#include "VirtualChart.h"

#include <vector>

namespace TaviSDK {

// One run of the aperture along a straight line: lengths in table units, times in seconds of the instrument.
struct Strip {
    Point from;
    Point to;
    double speed = 0.0;
    double restAtEnds = 0.0;      // the head rests this long at either end, reading
    double integrationTime = 0.0; // of one reading of the sensor
    double edgeLimitFactor = 0.0; // "RECOGNITION_EDGE_LIMIT_FACTOR"
    double lowestLimit = 0.0;     // "RECOGNITION_LOWEST_LIMIT"
};

// Cuts a strip into patches, as the instrument does from what its sensor sees, and returns the reading of
// each in the order of travel. Computed from geometry and speed alone: no clock, no chance.
//
// A patch is seen when the aperture lies wholly on it for long enough: a plateau. Long enough is 3
// integrations, less the lowest limit (the integrations that may be missing, at least one stays), and the
// time that the sensor takes to settle after an edge. Between two plateaus there is an edge when their CIELAB
// distance, times the edge limit factor, reaches 1; without an edge both are one patch to the instrument, so
// that a larger factor asks for less. A cell that is only grazed, or passed too fast, gives no plateau. Paper
// gives plateaus but is no patch, and neither is what cannot be told from paper beside it.
//
// The strip must run along one row, or one column, of the chart: edges that are crossed aslant cannot be told
// from patches. Throws Refusal (StripNotRecognised) otherwise.
std::vector<Spectrum> recognise(const VirtualChart& chart, const Strip& strip);

} // namespace TaviSDK
