// The switches of the virtual instrument behind the SDK, for programs that run in the same process (tests,
// above all). Everybody else reaches the same settings through the Simulation dictionary of the table's
// hardware file, which the SDK finds through $TAVI_TABLE and follows at any moment.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace TaviSDK {

// The settings that are the simulation's own, not the instrument's options.
struct Simulation {
    std::string identifier; // what the table calls itself; begins the device path of its plug-in
    std::string serialNumber = "TT-000001"; // of the table
    std::string chart;                      // layout file of the chart that lies on the table; "": bare paper
    std::string recording;         // file to be played back in place of the virtual instrument; "": none
    double timeScale = 1.0;        // 1: as slow as the real table, 0: at once
    double noise = 0.0;            // standard deviation of a reading's spectral values
    std::string fault;             // "CALL:N:STATUS", "CALL:N:throw" or "CALL:N:hang=SECONDS"; "": none
    long presses = 0;              // a count: one more is a press of the button
    bool table = true;             // false: no table answers
    bool spectrophotometer = true; // false: it is lifted off the table
};

// Replaces the settings, as a change of the hardware file would. A chart that cannot be loaded is reported
// through "LastError" (and the return value: "" or file, line and reason) and leaves bare paper; with a
// recording that cannot be, no table answers. A recording that was changed begins anew. Any thread.
std::string setSimulation(const Simulation& simulation);
Simulation simulation();

// As the instrument is when it is switched on: default options, head at home, no samples, not calibrated, no
// message handler, and the simulation's settings back to their defaults, or to those of the hardware file
// that $TAVI_TABLE names at this moment. For tests, between two of them.
void powerCycle();

// Where the aperture can go, in table coordinates; with the visor setting on, positions name a point beside
// it.
struct TableArea {
    double left;
    double top;
    double right;
    double bottom;
};
inline constexpr TableArea kTableArea{-60.0, -60.0, 1000.0, 1800.0};

// One call of the SDK, as it was made.
struct Call {
    std::string name;      // "Tavi_SetOption"
    std::string arguments; // "TaviTHoldPosition=no"; positions as "%g,%g"; "" where there are none
};

// Is asked before every SDK call, on the calling thread, with no lock of the SDK held. It may throw
// TaviSDK::Exception, which leaves through the call, or return a status, which is then the call's result (a
// call that returns text gives null) and, unless it is 0, is reflected in "LastError"; nothing else happens
// in both cases. No value lets the call through. An empty function removes the hook; when setCallHook
// returns, the old hook is not running (unless it is the hook that calls).
using CallHook = std::function<std::optional<int>(const Call&)>;
void setCallHook(CallHook hook);

} // namespace TaviSDK
