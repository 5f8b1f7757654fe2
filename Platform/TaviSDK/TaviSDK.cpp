#include "TaviSDK.h"

#include "CallGuard.h"
#include "Instrument.h"
#include "Status.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string_view>

namespace TaviSDK {

Exception::Exception(std::string text) : mText(std::move(text)) {}

Exception::~Exception() = default;

const char* Exception::what() const noexcept {
    return mText.c_str();
}

namespace {

std::string format(const char* pattern, double first, double second) {
    char text[64];
    std::snprintf(text, sizeof text, pattern, first, second);
    return text;
}

std::string positionText(float x, float y) {
    return format("%g,%g", static_cast<double>(x), static_cast<double>(y));
}

const char* orNull(const char* text) {
    return text != nullptr ? text : "(null)";
}

// What the hook and the simulated faults make of a call before it happens: nothing, its result, or an
// exception.
template <typename Arguments>
std::optional<int> intercept(const char* name, const Arguments& arguments) {
    SimulationStore& simulation = Instrument::instance().simulation();
    if (CallGuard::instance().isSet()) {
        try {
            if (const std::optional<int> status = CallGuard::instance().ask({name, arguments()})) {
                if (*status != 0) {
                    simulation.setLastError(std::string(name) + " answers " + std::to_string(*status) + ".");
                }
                return status;
            }
        } catch (const Exception& exception) {
            simulation.setLastError(exception.what());
            throw;
        }
    }
    const std::optional<Fault> fault = simulation.strike(name);
    if (!fault) {
        return std::nullopt;
    }
    switch (fault->effect) {
    case Fault::Effect::Hang:
        simulation.hang(fault->seconds);
        return std::nullopt;
    case Fault::Effect::Throw: {
        const std::string text =
            std::string(name) + ": the connection to the instrument broke (a simulated fault).";
        simulation.setLastError(text);
        throw Exception(text);
    }
    case Fault::Effect::Return:
        break;
    }
    if (fault->status != 0) {
        simulation.setLastError(std::string(name) + " answers " + std::to_string(fault->status) +
                                " (a simulated fault).");
    }
    return fault->status;
}

void appendArgument(std::string& json, const char* text) {
    appendText(json, text);
}

template <typename Number>
void appendArgument(std::string& json, Number number) {
    appendNumber(json, number);
}

// A call's arguments, and where its results go, for the time in which a recording is played back.
template <typename Take, typename... Given>
auto recordedAs(Take take, Given... given) {
    return [=](Instrument& instrument, Player& player, const char* name) {
        std::string arguments;
        [[maybe_unused]] const auto append = [&](const auto& argument) {
            arguments += arguments.empty() ? "" : ",";
            appendArgument(arguments, argument);
        };
        (append(given), ...);
        const std::shared_ptr<const RecordedEvent> event = instrument.play(player, name, arguments);
        if (!event) {
            return static_cast<int>(Status::NotAsRecorded);
        }
        if (event->exception) {
            throw Exception(*event->exception);
        }
        take(*event);
        return event->status;
    };
}

void takeNothing(const RecordedEvent&) {}

auto takeValues(float* out) {
    return [out](const RecordedEvent& event) { std::copy(event.values.begin(), event.values.end(), out); };
}

// One call that answers with a status. While a recording is played back, `playBack` is in the body's place.
template <typename Arguments, typename Body, typename PlayBack>
int call(const char* name, const Arguments& arguments, const Body& body, const PlayBack& playBack) {
    if (const std::optional<int> status = intercept(name, arguments)) {
        return *status;
    }
    Instrument& instrument = Instrument::instance();
    if (const std::shared_ptr<Player> player = instrument.simulation().player()) {
        return playBack(instrument, *player, name);
    }
    try {
        body(instrument);
        return static_cast<int>(Status::Ok);
    } catch (const Refusal& refusal) {
        instrument.simulation().setLastError(refusal.what());
        return static_cast<int>(refusal.status());
    }
}

std::string none() {
    return {};
}

// The option text that this thread's caller was lent last.
thread_local std::string lentText;

} // namespace

} // namespace TaviSDK

using TaviSDK::Instrument;

int Tavi_SetOption(const char* key, const char* value) {
    return TaviSDK::call(
        "Tavi_SetOption", [&] { return std::string(TaviSDK::orNull(key)) + "=" + TaviSDK::orNull(value); },
        [&](Instrument& instrument) { instrument.setOption(key, value); },
        TaviSDK::recordedAs(TaviSDK::takeNothing, key, value));
}

const char* Tavi_GetOption(const char* key) {
    std::optional<std::string> text;
    const int status = TaviSDK::call(
        "Tavi_GetOption", [&] { return std::string(TaviSDK::orNull(key)); },
        [&](Instrument& instrument) { text = instrument.option(key); },
        TaviSDK::recordedAs([&](const TaviSDK::RecordedEvent& event) { text = event.text; }, key));
    if (status == static_cast<int>(TaviSDK::Status::NotAsRecorded) && key != nullptr &&
        std::string_view(key) == "LastError") {
        text = Instrument::instance().simulation().lastError();
    } else if (status != 0 || !text) {
        return nullptr;
    }
    TaviSDK::lentText = std::move(*text);
    return TaviSDK::lentText.c_str();
}

int Tavi_IsTableConnected() {
    return TaviSDK::call(
        "Tavi_IsTableConnected", TaviSDK::none, [](Instrument& instrument) { instrument.checkConnected(); },
        TaviSDK::recordedAs(TaviSDK::takeNothing));
}

int Tavi_GoToHomePosition() {
    return TaviSDK::call(
        "Tavi_GoToHomePosition", TaviSDK::none, [](Instrument& instrument) { instrument.goHome(); },
        TaviSDK::recordedAs(TaviSDK::takeNothing));
}

int Tavi_SetPosition(float x, float y) {
    return TaviSDK::call(
        "Tavi_SetPosition", [&] { return TaviSDK::positionText(x, y); },
        [&](Instrument& instrument) { instrument.setPosition(x, y); },
        TaviSDK::recordedAs(TaviSDK::takeNothing, x, y));
}

int Tavi_GetPosition(float* x, float* y) {
    return TaviSDK::call(
        "Tavi_GetPosition", TaviSDK::none, [&](Instrument& instrument) { instrument.position(*x, *y); },
        TaviSDK::recordedAs([&](const TaviSDK::RecordedEvent& event) {
            if (event.values.size() == 2) {
                *x = event.values[0];
                *y = event.values[1];
            }
        }));
}

int Tavi_Calibrate() {
    return TaviSDK::call(
        "Tavi_Calibrate", TaviSDK::none, [](Instrument& instrument) { instrument.calibrate(); },
        TaviSDK::recordedAs(TaviSDK::takeNothing));
}

int Tavi_TriggerMeasurement() {
    return TaviSDK::call(
        "Tavi_TriggerMeasurement", TaviSDK::none,
        [](Instrument& instrument) { instrument.triggerMeasurement(); },
        TaviSDK::recordedAs(TaviSDK::takeNothing));
}

int Tavi_Scan(float fromX, float fromY, float toX, float toY) {
    return TaviSDK::call(
        "Tavi_Scan",
        [&] { return TaviSDK::positionText(fromX, fromY) + "," + TaviSDK::positionText(toX, toY); },
        [&](Instrument& instrument) { instrument.scan(fromX, fromY, toX, toY); },
        TaviSDK::recordedAs(TaviSDK::takeNothing, fromX, fromY, toX, toY));
}

int Tavi_GetNumberOfAvailableSamples() {
    int count = 0;
    const int status = TaviSDK::call(
        "Tavi_GetNumberOfAvailableSamples", TaviSDK::none,
        [&](Instrument& instrument) { count = instrument.sampleCount(); },
        TaviSDK::recordedAs(TaviSDK::takeNothing));
    return status != 0 ? status : count;
}

int Tavi_GetSpectrum(float out[36], int index) {
    return TaviSDK::call(
        "Tavi_GetSpectrum", [&] { return std::to_string(index); },
        [&](Instrument& instrument) { instrument.spectrum(out, index); },
        TaviSDK::recordedAs(TaviSDK::takeValues(out), index));
}

int Tavi_GetTriStimulus(float out[3], int index) {
    return TaviSDK::call(
        "Tavi_GetTriStimulus", [&] { return std::to_string(index); },
        [&](Instrument& instrument) { instrument.triStimulus(out, index); },
        TaviSDK::recordedAs(TaviSDK::takeValues(out), index));
}

void Tavi_RegisterDeviceMessageHandler(Tavi_DeviceMessageHandler handler) {
    TaviSDK::call(
        "Tavi_RegisterDeviceMessageHandler",
        [&] { return std::string(handler != nullptr ? "handler" : "null"); },
        [&](Instrument& instrument) { instrument.setMessageHandler(handler); },
        TaviSDK::recordedAs(
            [&](const TaviSDK::RecordedEvent&) { Instrument::instance().setMessageHandler(handler); },
            handler != nullptr ? "handler" : static_cast<const char*>(nullptr)));
}
