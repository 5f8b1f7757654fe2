#include "SimulationStore.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace TaviSDK {

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

// No wait is longer: what is left of it is waited for again.
constexpr double kLongestWait = 3600.0;

Clock::time_point after(double seconds) {
    return Clock::now() +
           std::chrono::duration_cast<Clock::duration>(Seconds(std::min(seconds, kLongestWait)));
}

void add(std::string& problems, const std::string& problem) {
    if (!problems.empty() && !problem.empty()) {
        problems += ' ';
    }
    problems += problem;
}

// Settings that make no sense become harmless ones.
std::string repair(Simulation& simulation) {
    std::string problems;
    if (!std::isfinite(simulation.timeScale) || simulation.timeScale < 0.0) {
        simulation.timeScale = 1.0;
        add(problems, "TimeScale must be 0 or more.");
    }
    if (!std::isfinite(simulation.noise) || simulation.noise < 0.0) {
        simulation.noise = 0.0;
        add(problems, "Noise must be 0 or more.");
    }
    return problems;
}

} // namespace

SimulationStore::LoadedFile SimulationStore::look(const std::string& path) {
    struct stat status {};
    LoadedFile file;
    file.path = path;
    if (!path.empty() && ::stat(path.c_str(), &status) == 0) {
        file.size = status.st_size;
        file.changed = status.st_mtim.tv_sec * 1'000'000'000LL + status.st_mtim.tv_nsec;
        file.identity = status.st_ino;
    }
    return file;
}

std::string SimulationStore::load(const std::string& path) {
    const LoadedFile file = look(path);
    if (file == mChartFile) {
        return mChartProblem;
    }
    mChartFile = file;
    mChartProblem.clear();
    mChart = std::make_shared<VirtualChart>();
    if (!path.empty()) {
        try {
            const Color::ChartLayout layout = Color::readChartLayout(path);
            if (layout.hasSpectra) {
                mChart = std::make_shared<VirtualChart>(layout);
            } else {
                mChartProblem = path + ": has no spectra, of which a virtual table needs all";
            }
        } catch (const Color::CgatsError& error) {
            mChartProblem = error.what();
        }
    }
    return mChartProblem;
}

std::string SimulationStore::loadRecording(const std::string& path) {
    const LoadedFile file = look(path);
    if (file == mRecordingFile) {
        return mRecordingProblem;
    }
    mRecordingFile = file;
    mRecordingProblem.clear();
    mPlayer.reset();
    if (!path.empty()) {
        try {
            mPlayer = std::make_shared<Player>(readRecording(path), path);
        } catch (const RecordingError& error) {
            mRecordingProblem = error.what();
        }
    }
    return mRecordingProblem;
}

std::optional<Fault> SimulationStore::understand(const std::string& setting) {
    mFaultProblem.clear();
    if (setting.empty()) {
        return std::nullopt;
    }
    try {
        return parseFault(setting);
    } catch (const std::invalid_argument& error) {
        mFaultProblem = "Fault \"" + setting + "\" makes no sense: " + error.what() + ".";
        return std::nullopt;
    }
}

void SimulationStore::warn(const std::string& problems) {
    if (!problems.empty() && problems != mProblems) {
        std::fprintf(stderr, "TaviSDK: settings of the virtual table: %s\n", problems.c_str());
    }
    mProblems = problems;
}

SimulationStore::Applied SimulationStore::apply(const Simulation& simulation) {
    const Base::Lock applying(mApplyMutex);
    auto next = std::make_shared<State>();
    next->simulation = simulation;
    Applied applied;
    applied.problems = repair(next->simulation);
    add(applied.problems, load(simulation.chart));
    next->chart = mChart;
    const std::string recordingProblem = loadRecording(simulation.recording);
    add(applied.problems, recordingProblem);
    next->player = mPlayer;
    if (!recordingProblem.empty()) {
        next->simulation.table = false; // rather than another instrument than was asked for
    }
    {
        const Base::Lock lock(mMutex);
        const Simulation& before = mState->simulation;
        applied.presses = std::max(0L, simulation.presses - before.presses);
        next->tableLosses = mState->tableLosses + (before.table && !next->simulation.table ? 1 : 0);
        next->spectrophotometerLosses =
            mState->spectrophotometerLosses +
            (mState->hasSpectrophotometer() && !next->hasSpectrophotometer() ? 1 : 0);
        if (simulation.fault != before.fault) {
            mFault = understand(simulation.fault);
            mHasFault = mFault.has_value();
            ++mFaultSerial;
        }
        add(applied.problems, mFaultProblem);
        if (!applied.problems.empty()) {
            mLastError = applied.problems;
        }
        mHasPlayer = next->player != nullptr;
        mState = std::move(next);
        mChanged.notifyAll();
    }
    warn(applied.problems);
    return applied;
}

std::shared_ptr<const SimulationStore::State> SimulationStore::state() const {
    const Base::Lock lock(mMutex);
    return mState;
}

std::shared_ptr<Player> SimulationStore::player() const {
    return mHasPlayer ? state()->player : nullptr;
}

void SimulationStore::pass(double seconds) {
    const Base::Lock lock(mMutex);
    while (seconds > 0.0) {
        const std::shared_ptr<const State> state = mState;
        const double scale = state->simulation.timeScale;
        if (scale <= 0.0 || !state->simulation.table) {
            return;
        }
        const Clock::time_point begin = Clock::now();
        const Clock::time_point end = after(seconds * scale);
        while (mState == state && mChanged.waitUntil(mMutex, end)) {
        }
        seconds -= Seconds(Clock::now() - begin).count() / scale;
    }
}

std::optional<Fault> SimulationStore::strike(std::string_view call) {
    if (!mHasFault) {
        return std::nullopt;
    }
    const Base::Lock lock(mMutex);
    if (!mFault || mFault->call != call || --mFault->occurrence > 0) {
        return std::nullopt;
    }
    mHasFault = false;
    return std::exchange(mFault, std::nullopt);
}

void SimulationStore::hang(double seconds) {
    const Base::Lock lock(mMutex);
    const unsigned long serial = mFaultSerial;
    const Clock::time_point end =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(Seconds(seconds));
    while (mFaultSerial == serial && mChanged.waitUntil(mMutex, end)) {
    }
}

std::string SimulationStore::lastError() const {
    const Base::Lock lock(mMutex);
    return mLastError;
}

void SimulationStore::setLastError(std::string text) {
    const Base::Lock lock(mMutex);
    mLastError = std::move(text);
}

} // namespace TaviSDK
