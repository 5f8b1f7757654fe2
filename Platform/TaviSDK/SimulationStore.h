#pragma once

#include "Faults.h"
#include "Player.h"
#include "VirtualChart.h"
#include "VirtualInstrument.h"

#include <Base/Mutex.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace TaviSDK {

// The simulation's settings, and what follows from them at once: the chart that is loaded, the fault that is
// armed, how long the instrument's seconds take, and the text of the last failure.
//
// Settings may be replaced by any thread at any moment, a thread that lets time pass included: it goes on at
// the new time scale. Everything here may be called from any thread.
class SimulationStore {
public:
    // The settings as they are at one moment, never changed afterwards.
    struct State {
        Simulation simulation;
        std::shared_ptr<const VirtualChart> chart = std::make_shared<VirtualChart>();
        std::shared_ptr<Player> player; // when a recording is played back
        // How often table and spectrophotometer have gone so far, so that nobody misses that one went and
        // came back.
        unsigned long tableLosses = 0;
        unsigned long spectrophotometerLosses = 0;

        bool hasSpectrophotometer() const { return simulation.table && simulation.spectrophotometer; }
    };

    struct Applied {
        std::string problems; // "" or what is wrong with the settings; it is the last error, too
        long presses = 0;     // how often the button was pressed since the settings before
    };

    // The chart is loaded when its name or its file has changed. What is wrong goes to standard error, once.
    Applied apply(const Simulation& simulation);
    std::shared_ptr<const State> state() const;

    // What plays a recording back, if one is.
    std::shared_ptr<Player> player() const;

    // Lets seconds of the instrument's time pass; ends at once when no table answers any more.
    void pass(double seconds);

    // Counts this call; the fault when it strikes now. A fault strikes once.
    std::optional<Fault> strike(std::string_view call);
    // Holds the caller for seconds of real time, or until the fault setting changes.
    void hang(double seconds);

    std::string lastError() const;
    void setLastError(std::string text);

private:
    // A file as it was when it was loaded.
    struct LoadedFile {
        std::string path;
        long long size = -1;
        long long changed = 0; // nanoseconds
        unsigned long long identity = 0;
        bool operator==(const LoadedFile&) const = default;
    };
    static LoadedFile look(const std::string& path);
    std::string load(const std::string& path) REQUIRES(mApplyMutex);
    std::string loadRecording(const std::string& path) REQUIRES(mApplyMutex);
    std::optional<Fault> understand(const std::string& setting) REQUIRES(mApplyMutex);
    void warn(const std::string& problems) REQUIRES(mApplyMutex);

    Base::Mutex mApplyMutex ACQUIRED_BEFORE(mMutex); // one change of the settings at a time
    LoadedFile mChartFile GUARDED_BY(mApplyMutex);
    std::shared_ptr<const VirtualChart> mChart GUARDED_BY(mApplyMutex) = std::make_shared<VirtualChart>();
    std::string mChartProblem GUARDED_BY(mApplyMutex);
    LoadedFile mRecordingFile GUARDED_BY(mApplyMutex);
    std::shared_ptr<Player> mPlayer GUARDED_BY(mApplyMutex);
    std::string mRecordingProblem GUARDED_BY(mApplyMutex);
    std::string mFaultProblem GUARDED_BY(mApplyMutex);
    std::string mProblems GUARDED_BY(mApplyMutex); // of the settings as they are, all in one

    mutable Base::Mutex mMutex;
    Base::Condition mChanged;
    std::shared_ptr<const State> mState GUARDED_BY(mMutex) = std::make_shared<State>();
    std::optional<Fault> mFault GUARDED_BY(mMutex);
    unsigned long mFaultSerial GUARDED_BY(mMutex) = 0; // counts changes of the fault setting
    std::string mLastError GUARDED_BY(mMutex);

    std::atomic<bool> mHasFault{false};  // spares calls without a fault the mutex
    std::atomic<bool> mHasPlayer{false}; // the same
};

} // namespace TaviSDK
