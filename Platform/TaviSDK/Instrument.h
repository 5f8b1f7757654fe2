#pragma once

#include "Button.h"
#include "Follower.h"
#include "Options.h"
#include "SimulationStore.h"
#include "Spectrophotometer.h"
#include "Table.h"

#include <Base/Mutex.h>

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

    // One call that the player answers, in the time that it took when it was recorded: what is to be the
    // result; null when it is none of the recording's, after a look at what it was. Without the call lock:
    // the player has its own.
    std::shared_ptr<const RecordedEvent> play(Player& player, std::string_view call,
                                              const std::string& arguments);

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
    class SCOPED_CAPABILITY Turn {
    public:
        explicit Turn(Instrument& instrument) ACQUIRE(instrument.mCallMutex);
        ~Turn() RELEASE();
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

        const std::shared_ptr<const State> state;

    private:
        Base::Mutex& mMutex;
    };
    void forgetWhatIsLost(const State& state) REQUIRES(mCallMutex);
    void requireTable() const;
    void requireSpectrophotometer() const;
    // Throws when the spectrophotometer went since state was taken, be it back or not.
    void requireUndisturbed(const State& state) const;
    void requireMode(std::string_view mode) const REQUIRES(mCallMutex);
    void requireCalibration() const REQUIRES(mCallMutex);

    std::optional<std::string> information(std::string_view key, const State& state) const
        REQUIRES(mCallMutex);
    void reset() REQUIRES(mCallMutex);
    void moveTo(const Point& place) REQUIRES(mCallMutex);
    bool isVisor() const REQUIRES(mCallMutex) { return mOptions.isYes("TaviTIsVisorCoordinate"); }

    void followHardwareFile() REQUIRES(mFollowMutex);
    void readFile(const std::string& path);

    SimulationStore mSimulation;
    Button mButton;
    Follower& mFollower; // never destroyed, as its thread may use it until the process ends

    // Also keeps the settings from a file that is read for an instrument switched off meanwhile.
    Base::Mutex mFollowMutex;
    std::string mFollowed GUARDED_BY(mFollowMutex);

    Base::Mutex mCallMutex;
    Options mOptions GUARDED_BY(mCallMutex);
    Table mTable GUARDED_BY(mCallMutex);
    Spectrophotometer mSpectrophotometer GUARDED_BY(mCallMutex);
    std::string mLastWhiteTransfer GUARDED_BY(mCallMutex) =
        "0"; // when the last white calibration was, in seconds since 1970
    unsigned long mTableLossesSeen GUARDED_BY(mCallMutex) = 0;
    unsigned long mSpectrophotometerLossesSeen GUARDED_BY(mCallMutex) = 0;
};

} // namespace TaviSDK
