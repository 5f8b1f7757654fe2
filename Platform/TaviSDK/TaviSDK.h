// The instrument SDK: an X/Y table that carries a handheld spectrophotometer.
//
// Settings and information are named options with text values; the table moves the head; the
// spectrophotometer calibrates, reads a spot or a strip, and keeps the readings as samples that are fetched
// afterwards. Most calls return a status, 0 for success. "LastError" holds the text of the last failure.
//
// The SDK is not thread-safe: callers serialise their calls. The one exception is its own thread, on which it
// calls the message handler; a handler must not call back into the SDK. Any call may throw
// TaviSDK::Exception.
#pragma once

#include <exception>
#include <string>

namespace TaviSDK {

// What the SDK throws when its connection to the hardware breaks in the middle of a call.
class Exception : public std::exception {
public:
    explicit Exception(std::string text);
    Exception(const Exception&) = default;
    Exception& operator=(const Exception&) = default;
    ~Exception() override;
    const char* what() const noexcept override;

private:
    std::string mText;
};

} // namespace TaviSDK

extern "C" {

// What the instrument reports by itself. 0: the button on the instrument was pressed.
using Tavi_DeviceMessage = int;
constexpr Tavi_DeviceMessage Tavi_MessageButtonPressed = 0;

using Tavi_DeviceMessageHandler = void (*)(Tavi_DeviceMessage message, const char* text);

// Writes an option. An unknown key or an impossible value is refused with a status; the old value stays.
// Key "Reset" with "TaviTAll" puts every option back to its default and forgets samples and calibration.
int Tavi_SetOption(const char* key, const char* value);
// The option's text, lent until the next SDK call; null for a key that does not exist.
const char* Tavi_GetOption(const char* key);

// 0: table and spectrophotometer answer; 100: the table answers and carries no spectrophotometer; else: no
// table.
int Tavi_IsTableConnected();
int Tavi_GoToHomePosition();
// Table coordinates, in the table's unit; returns when the head is there.
int Tavi_SetPosition(float x, float y);
int Tavi_GetPosition(float* x, float* y);

// White calibration for the current "MeasurementMode".
int Tavi_Calibrate();
// One reading where the head is; it is then the only sample.
int Tavi_TriggerMeasurement();
// One strip between two positions; returns when the strip is finished. The patches recognised are the samples
// then, in the order of travel.
int Tavi_Scan(float fromX, float fromY, float toX, float toY);

int Tavi_GetNumberOfAvailableSamples();
// 36 values, 380 to 730 nm in steps of 10.
int Tavi_GetSpectrum(float out[36], int index);
// In the colour space, illuminant and observer of the "Color..." options.
int Tavi_GetTriStimulus(float out[3], int index);

// Null unregisters; when the call returns, the old handler is not running and is not called any more.
void Tavi_RegisterDeviceMessageHandler(Tavi_DeviceMessageHandler handler);
}
