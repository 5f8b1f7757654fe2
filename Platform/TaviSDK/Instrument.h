#pragma once

#include "Button.h"
#include "Follower.h"
#include "Options.h"
#include "SimulationStore.h"
#include "Spectrophotometer.h"
#include "Table.h"

#include <mutex>
#include <optional>
#include <string>

namespace TaviSDK {

// The virtual instrument: table, head and spectrophotometer behind the SDK's calls.
//
// One for the process, made with the first call and never destroyed, since its thread may run until the very
// end. Callers serialise their calls; should they not, the call lock does. A call that fails throws Refusal.
class Instrument {
public:
    static Instrument& instance();

    void setOption(const char* key, const char* value);
    // Nothing for a key that does not exist.
    std::optional<std::string> option(const char* key);

    void checkConnected();
    void goHome();
    void setPosition(float x, float y);
    void position(float& x, float& y);

    void calibrate();
    void triggerMeasurement();
    void scan(float fromX, float fromY, float toX, float toY);

    int sampleCount();
    void spectrum(float out[Color::kBands], int index);
    void triStimulus(float out[3], int index);

    // Does not wait for a call that another thread makes: a handler may unregister itself at any moment.
    void setMessageHandler(Tavi_DeviceMessageHandler handler);

    // Settings of the simulation; see VirtualInstrument.h.
    std::string setSimulation(const Simulation& simulation);
    void powerCycle();
    SimulationStore& simulation() { return mSimulation; }

private:
    using State = SimulationStore::State;

    Instrument();
    ~Instrument() = delete;

    // The call lock, and the settings at its moment; what the loss of table or spectrophotometer takes with
    // it is forgotten before.
    struct Turn {
        std::unique_lock<std::mutex> lock;
        std::shared_ptr<const State> state;
    };
    Turn takeTurn();
    void requireTable() const;
    void requireSpectrophotometer() const;
    // Throws when the spectrophotometer went since state was taken, be it back or not.
    void requireUndisturbed(const State& state) const;
    void requireMode(std::string_view mode) const;
    void requireCalibration() const;

    std::optional<std::string> information(std::string_view key, const State& state) const;
    void reset();
    void moveTo(const Point& place);
    bool isVisor() const { return mOptions.isYes("TaviTIsVisorCoordinate"); }

    void followHardwareFile();
    void readFile(const std::string& path);

    SimulationStore mSimulation;
    Button mButton;
    Follower& mFollower; // never destroyed, as its thread may use it until the process ends

    // Guards mFollowed, and the settings against a file that is read for an instrument switched off
    // meanwhile.
    std::mutex mFollowMutex;
    std::string mFollowed;

    std::mutex mCallMutex; // guards everything below
    Options mOptions;
    Table mTable;
    Spectrophotometer mSpectrophotometer;
    std::string mLastWhiteTransfer = "0"; // when the last white calibration was, in seconds since 1970
    unsigned long mTableLossesSeen = 0;
    unsigned long mSpectrophotometerLossesSeen = 0;
};

} // namespace TaviSDK
