#include "Instrument.h"

#include "HardwareFile.h"
#include "Quoted.h"
#include "Recognition.h"
#include "Status.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace TaviSDK {

namespace {

constexpr std::string_view kSpectrophotometerSerialNumber = "TP-000971";

bool isInformation(std::string_view key) {
    constexpr std::array<std::string_view, 6> kKeys = {"LastError",
                                                       "TaviTHalcyDeviceIdentifier",
                                                       "TaviTSerialNumber",
                                                       "TaviTTaviSerialNumber",
                                                       "TaviTLastWhiteBaseTransferTime",
                                                       "AvailableMeasurementModes"};
    return std::find(kKeys.begin(), kKeys.end(), key) != kKeys.end();
}

} // namespace

Instrument& Instrument::instance() {
    static Instrument* const instrument = [] {
        auto* const made = new Instrument;
        // The thread must not run on while the process takes down what it uses.
        std::atexit([] { instance().mFollower.stop(); });
        return made;
    }();
    return *instrument;
}

Instrument::Instrument()
    : mFollower(
          *new Follower([this](const std::string& path) { readFile(path); }, [this] { mButton.report(); })) {
    const Base::Lock lock(mFollowMutex);
    followHardwareFile();
}

// Reads the hardware file before the first call is served: a caller never meets a table that is not its own.
void Instrument::followHardwareFile() {
    const char* path = std::getenv("TAVI_TABLE");
    mFollowed = path == nullptr ? "" : path;
    mFollower.follow(mFollowed);
    if (mFollowed.empty()) {
        return;
    }
    if (const std::optional<Simulation> settings = readHardwareFile(mFollowed)) {
        mSimulation.apply(*settings);
    }
    mFollower.start();
}

void Instrument::readFile(const std::string& path) {
    const Base::Lock lock(mFollowMutex);
    if (path != mFollowed) {
        return;
    }
    std::optional<Simulation> settings = readHardwareFile(path);
    if (!settings) {
        return;
    }
    if (!settings->table) {
        // A file that goes takes no press back.
        settings->presses = std::max(settings->presses, mSimulation.state()->simulation.presses);
    }
    setSimulation(*settings);
}

std::string Instrument::setSimulation(const Simulation& simulation) {
    const SimulationStore::Applied applied = mSimulation.apply(simulation);
    if (applied.presses > 0 && mSimulation.state()->hasSpectrophotometer()) {
        mButton.press(applied.presses);
        mFollower.wake();
    }
    return applied.problems;
}

void Instrument::powerCycle() {
    mButton.setHandler(nullptr);
    {
        const Base::Lock lock(mCallMutex);
        mTable = Table();
        mSpectrophotometer = Spectrophotometer();
        mLastWhiteTransfer = "0";
        mOptions.resetToDefaults();
    }
    const Base::Lock lock(mFollowMutex);
    mSimulation.apply(Simulation());
    mSimulation.setLastError("");
    followHardwareFile();
}

Instrument::Turn::Turn(Instrument& instrument)
    : state((instrument.mCallMutex.lock(), instrument.mSimulation.state())), mMutex(instrument.mCallMutex) {
    instrument.forgetWhatIsLost(*state);
}

Instrument::Turn::~Turn() {
    mMutex.unlock();
}

void Instrument::forgetWhatIsLost(const State& state) {
    if (state.spectrophotometerLosses != mSpectrophotometerLossesSeen) {
        mSpectrophotometerLossesSeen = state.spectrophotometerLosses;
        mSpectrophotometer.reset();
    }
    if (state.tableLosses != mTableLossesSeen) {
        mTableLossesSeen = state.tableLosses;
        mOptions.resetToDefaults();
        mTable = Table();
    }
}

void Instrument::requireTable() const {
    if (!mSimulation.state()->simulation.table) {
        throw Refusal(Status::NoTable, "The table does not answer.");
    }
}

void Instrument::requireSpectrophotometer() const {
    requireTable();
    if (!mSimulation.state()->hasSpectrophotometer()) {
        throw Refusal(Status::NoSpectrophotometer, "There is no spectrophotometer on the table.");
    }
}

void Instrument::requireUndisturbed(const State& state) const {
    requireSpectrophotometer();
    if (mSimulation.state()->spectrophotometerLosses != state.spectrophotometerLosses) {
        throw Refusal(Status::NoSpectrophotometer, "The spectrophotometer was lifted off the table.");
    }
}

void Instrument::requireMode(std::string_view mode) const {
    if (mOptions.text("MeasurementMode") != mode) {
        throw Refusal(Status::WrongMode, "This needs the mode " + std::string(mode) + "; the mode is " +
                                             mOptions.text("MeasurementMode") + ".");
    }
}

void Instrument::requireCalibration() const {
    if (!mSpectrophotometer.isCalibratedFor(mOptions.text("MeasurementMode"))) {
        throw Refusal(Status::NotCalibrated, "The spectrophotometer is not calibrated.");
    }
}

void Instrument::reset() {
    mOptions.resetToDefaults();
    mSpectrophotometer.reset();
    mSimulation.setLastError("");
}

void Instrument::setOption(const char* key, const char* value) {
    const Turn turn(*this);
    if (key == nullptr || value == nullptr) {
        throw Refusal(Status::ImpossibleValue, "An option needs a name and a value.");
    }
    const std::string_view name = key;
    requireTable();
    if (name == "Reset") {
        if (std::string_view(value) != "TaviTAll") {
            throw Refusal(Status::ImpossibleValue, "The option \"Reset\" takes \"TaviTAll\" only.");
        }
        reset();
        return;
    }
    if (isInformation(name)) {
        throw Refusal(Status::ReadOnly, "The option " + quoted(name) + " cannot be written.");
    }
    if (mOptions.isSpectrophotometers(name)) {
        requireSpectrophotometer();
    }
    mOptions.set(name, value);
}

std::optional<std::string> Instrument::information(std::string_view key, const State& state) const {
    const bool hasTable = state.simulation.table;
    if (key == "LastError") {
        return mSimulation.lastError();
    }
    if (key == "Reset") {
        return "";
    }
    if (key == "TaviTHalcyDeviceIdentifier") {
        return hasTable ? state.simulation.identifier : "";
    }
    if (key == "TaviTSerialNumber") {
        return hasTable ? state.simulation.serialNumber : "";
    }
    if (key == "TaviTTaviSerialNumber") {
        return std::string(state.hasSpectrophotometer() ? kSpectrophotometerSerialNumber
                                                        : std::string_view());
    }
    if (key == "TaviTLastWhiteBaseTransferTime") {
        return mLastWhiteTransfer;
    }
    if (key == "AvailableMeasurementModes") {
        return state.hasSpectrophotometer() ? std::string(kScanningMode) + ";" + std::string(kSingleMode)
                                            : "";
    }
    return std::nullopt;
}

std::optional<std::string> Instrument::option(const char* key) {
    const Turn turn(*this);
    const std::string_view name = key == nullptr ? std::string_view() : std::string_view(key);
    if (std::optional<std::string> text = information(name, *turn.state)) {
        return text;
    }
    if (const std::string* text = mOptions.find(name)) {
        return *text;
    }
    throw Refusal(Status::UnknownOption, "There is no option " + quoted(name) + ".");
}

void Instrument::checkConnected() {
    const Turn turn(*this);
    requireSpectrophotometer();
}

void Instrument::moveTo(const Point& place) {
    mSimulation.pass(mTable.timeTo(place, mOptions.number("TaviTMoveSpeed")));
    requireTable();
    mTable.setHead(place);
}

void Instrument::goHome() {
    const Turn turn(*this);
    requireTable();
    moveTo(Table::kHome);
}

void Instrument::setPosition(float x, float y) {
    const Turn turn(*this);
    requireTable();
    moveTo(Table::toAperture(static_cast<double>(x), static_cast<double>(y), isVisor()));
}

void Instrument::position(float& x, float& y) {
    const Turn turn(*this);
    requireTable();
    const Point place = Table::fromAperture(mTable.head(), isVisor());
    x = static_cast<float>(place.x);
    y = static_cast<float>(place.y);
}

void Instrument::calibrate() {
    const Turn turn(*this);
    requireSpectrophotometer();
    moveTo(Table::kHome);
    mSimulation.pass(Spectrophotometer::kCalibrationTime);
    requireUndisturbed(*turn.state);
    mSpectrophotometer.calibrate(mOptions.text("MeasurementMode"));
    mLastWhiteTransfer = std::to_string(std::time(nullptr));
}

void Instrument::triggerMeasurement() {
    const Turn turn(*this);
    requireSpectrophotometer();
    requireMode(kSingleMode);
    requireCalibration();
    mSpectrophotometer.clearSamples();
    mSimulation.pass(Spectrophotometer::kReadingTime);
    requireUndisturbed(*turn.state);
    const std::shared_ptr<const State> now = mSimulation.state();
    mSpectrophotometer.store({now->chart->under(mTable.head())}, now->simulation.noise);
}

void Instrument::scan(float fromX, float fromY, float toX, float toY) {
    const Turn turn(*this);
    requireSpectrophotometer();
    requireMode(kScanningMode);
    requireCalibration();
    if (!mOptions.isYes("Recognition")) {
        throw Refusal(Status::WrongMode, "A strip needs the option \"Recognition\".");
    }
    Strip strip;
    strip.from = Table::toAperture(static_cast<double>(fromX), static_cast<double>(fromY), isVisor());
    strip.to = Table::toAperture(static_cast<double>(toX), static_cast<double>(toY), isVisor());
    strip.speed = std::min(mOptions.number("TaviTScanSpeed"), Table::kTopSpeed);
    strip.restAtEnds = mOptions.number("TaviTScanDelay") / 1000.0;
    strip.integrationTime = mOptions.number("IntegrationTime");
    strip.edgeLimitFactor = mOptions.number("RECOGNITION_EDGE_LIMIT_FACTOR");
    strip.lowestLimit = mOptions.number("RECOGNITION_LOWEST_LIMIT");

    mSpectrophotometer.clearSamples();
    moveTo(strip.from);
    mSimulation.pass(2.0 * strip.restAtEnds + mTable.timeTo(strip.to, strip.speed));
    requireUndisturbed(*turn.state);
    mTable.setHead(strip.to);
    const std::shared_ptr<const State> now = mSimulation.state();
    mSpectrophotometer.store(recognise(*now->chart, strip), now->simulation.noise);
}

int Instrument::sampleCount() {
    const Turn turn(*this);
    return mSpectrophotometer.sampleCount();
}

void Instrument::spectrum(float out[Color::kBands], int index) {
    const Turn turn(*this);
    requireSpectrophotometer();
    const Spectrum& sample = mSpectrophotometer.sample(index);
    std::copy(sample.begin(), sample.end(), out);
}

void Instrument::triStimulus(float out[3], int index) {
    const Turn turn(*this);
    requireSpectrophotometer();
    const Color::XYZ xyz =
        Color::xyzFromSpectrum(std::span<const float, Color::kBands>(mSpectrophotometer.sample(index)));
    if (mOptions.text("ColorSpaceDescription.Type") == "CIEXYZ") {
        out[0] = static_cast<float>(xyz.x);
        out[1] = static_cast<float>(xyz.y);
        out[2] = static_cast<float>(xyz.z);
        return;
    }
    const Color::Lab lab = Color::labFromXyz(xyz);
    out[0] = static_cast<float>(lab.l);
    out[1] = static_cast<float>(lab.a);
    out[2] = static_cast<float>(lab.b);
}

std::shared_ptr<const RecordedEvent> Instrument::play(Player& player, std::string_view call,
                                                      const std::string& arguments) {
    const Player::Answer answer = player.answer(call, arguments);
    if (!answer.event) {
        mSimulation.setLastError(answer.problem);
        if (answer.isFirstProblem) {
            std::fprintf(stderr, "TaviSDK: %s\n", answer.problem.c_str());
        }
        return nullptr;
    }
    double passed = 0.0;
    const auto passUntil = [&](double seconds) {
        // The other thread's turn depends on what people and programs do, which no time scale makes faster.
        answer.handsOver ? mSimulation.hang(seconds - passed) : mSimulation.pass(seconds - passed);
        passed = seconds;
    };
    const auto send = [&](const Player::Message& message) {
        mButton.send(message.message, message.text);
        mFollower.wake();
    };
    for (const auto& [seconds, message] : answer.during) {
        passUntil(seconds);
        send(message);
    }
    if (answer.event->changes()) {
        passUntil(answer.event->took);
    }
    for (const Player::Message& message : answer.after) {
        send(message);
    }
    return answer.event;
}

void Instrument::setMessageHandler(Tavi_DeviceMessageHandler handler) {
    mButton.setHandler(handler);
    if (handler != nullptr) {
        mFollower.start();
    }
}

} // namespace TaviSDK
