#include "LockedInstrument.h"

#include "InstrumentStatus.h"

#include <exception>

using namespace VellDevice;
using SDKLock = DevicePlugin::SDKLock;

namespace {

constexpr int kBands = 36;

std::string copyOf(const char* lent) {
    return lent != nullptr ? lent : "";
}

} // namespace

template <class Call>
auto LockedInstrument::locked(Call call) {
    const SDKLock lock(mPlugin);
    return call();
}

int LockedInstrument::logged(const char* label, int status) {
    mPlugin.logIfError(label, status);
    return status;
}

// --- Options

std::string LockedInstrument::option(const char* key) {
    return locked([&] { return copyOf(Tavi_GetOption(key)); });
}

int LockedInstrument::setOption(const char* key, const std::string& value, const char* label) {
    const int status = locked([&] { return Tavi_SetOption(key, value.c_str()); });
    return label != nullptr ? logged(label, status) : status;
}

void LockedInstrument::reset() {
    setOption("Reset", "TaviTAll");
}

// --- The table

int LockedInstrument::isTableConnected() {
    return logged("Tavi_IsTableConnected", locked([] { return Tavi_IsTableConnected(); }));
}

int LockedInstrument::goHome() {
    return logged("Tavi_GoToHomePosition", locked([] { return Tavi_GoToHomePosition(); }));
}

int LockedInstrument::moveTo(float x, float y, Log log) {
    const int status = locked([&] { return Tavi_SetPosition(x, y); });
    return log == Log::failures ? logged("Tavi_SetPosition", status) : status;
}

int LockedInstrument::getPosition(float& x, float& y) {
    return logged("Tavi_GetPosition", locked([&] { return Tavi_GetPosition(&x, &y); }));
}

void LockedInstrument::park() {
    const SDKLock lock(mPlugin);
    std::exception_ptr broken;
    const auto attempt = [&](auto call) {
        try {
            call();
        } catch (...) {
            broken = std::current_exception();
        }
    };
    attempt([] { Tavi_SetOption("TaviTHoldPosition", "no"); });
    attempt([] { Tavi_GoToHomePosition(); });
    attempt([] { Tavi_SetOption("TaviTHoldPosition", "no"); });
    if (broken)
        std::rethrow_exception(broken);
}

// --- The spectrophotometer

int LockedInstrument::calibrate() {
    return logged("Tavi_Calibrate", locked([] { return Tavi_Calibrate(); }));
}

int LockedInstrument::triggerMeasurement() {
    return logged("Tavi_TriggerMeasurement", locked([] { return Tavi_TriggerMeasurement(); }));
}

int LockedInstrument::scan(float fromX, float fromY, float toX, float toY) {
    return logged("Tavi_Scan", locked([&] { return Tavi_Scan(fromX, fromY, toX, toY); }));
}

int LockedInstrument::numberOfAvailableSamples() {
    return locked([] { return Tavi_GetNumberOfAvailableSamples(); });
}

int LockedInstrument::getSpectrum(int index, std::vector<double>& spectrum) {
    float buffer[kBands] = {};
    const int status = logged("Tavi_GetSpectrum", locked([&] { return Tavi_GetSpectrum(buffer, index); }));
    if (status == InstrumentStatus::kDone)
        spectrum.insert(spectrum.end(), buffer, buffer + kBands);
    return status;
}

int LockedInstrument::getTriStimulus(int index, std::vector<double>& values) {
    float triple[3] = {};
    const int status =
        logged("Tavi_GetTriStimulus", locked([&] { return Tavi_GetTriStimulus(triple, index); }));
    values.assign(triple, triple + 3);
    return status;
}

void LockedInstrument::setColorimetry() {
    const SDKLock lock(mPlugin);
    Tavi_SetOption("ColorSpaceDescription.Type", "CIELab");
    Tavi_SetOption("Colorimetric.Illumination", "D50");
    Tavi_SetOption("Colorimetric.Observer", "TwoDegree");
}

void LockedInstrument::setMessageHandler(Tavi_DeviceMessageHandler handler) {
    locked([&] { Tavi_RegisterDeviceMessageHandler(handler); });
}

void LockedInstrument::trying(const std::function<void()>& calls) {
    try {
        const SDKLock lock(mPlugin);
        calls();
    } catch (const std::exception& exception) {
        VellLogError("[TaviIO] - TaviSDK exception ignored: %s\n", exception.what());
    } catch (...) {
        VellLogError("[TaviIO] - TaviSDK exception ignored: %s\n", "of no known kind");
    }
}
