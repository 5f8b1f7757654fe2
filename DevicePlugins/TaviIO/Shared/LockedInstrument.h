// The instrument SDK as the driver uses it.
#pragma once

#include "DevicePlugin.h"

#include <TaviSDK/TaviSDK.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

// The one place that calls the SDK. Each call takes the SDK lock for itself; a Hold keeps it over a group of
// calls, and over what has to happen between two commands' calls. Texts that the SDK lends are copied under
// the lock. Statuses are the SDK's (InstrumentStatus.h); a call that logs its failure does so after it has
// given its own hold of the lock back. Every call may throw TaviSDK::Exception, and waits while another
// thread is inside the SDK. Any thread.
class LockedInstrument {
public:
    enum class Log { failures, nothing };

    explicit LockedInstrument(VellDevice::DevicePlugin& plugin) : mPlugin(plugin) {}

    // Holds the SDK lock for the life of a block, and offers the calls.
    class Hold {
    public:
        explicit Hold(LockedInstrument& instrument) : mInstrument(instrument), mLock(instrument.mPlugin) {}
        Hold(LockedInstrument& instrument, std::try_to_lock_t tries)
            : mInstrument(instrument), mLock(instrument.mPlugin, tries) {}
        explicit operator bool() const { return mLock.isHeld(); }
        LockedInstrument* operator->() const { return &mInstrument; }

    private:
        LockedInstrument& mInstrument;
        const VellDevice::DevicePlugin::SDKLock mLock;
    };
    [[nodiscard]] Hold hold() { return Hold(*this); }
    // Without waiting: false while another thread is inside the SDK.
    [[nodiscard]] Hold tryToHold() { return Hold(*this, std::try_to_lock); }

    // --- Options ---

    // Empty for a key that does not exist.
    std::string option(const char* key);
    // A failure is logged under `label`; with none it is not.
    int setOption(const char* key, const std::string& value, const char* label = nullptr);
    // Every option back to its default, samples and calibration forgotten.
    void reset();

    // --- The table; positions in its unit ---

    int isTableConnected();
    int goHome();
    int moveTo(float x, float y, Log log = Log::failures);
    int getPosition(float& x, float& y);
    // The head goes home: hold position off, home, hold position off. Results are not looked at. When a call
    // throws, the others are made all the same; its exception leaves at the end.
    void park();

    // --- The spectrophotometer ---

    int calibrate();
    int triggerMeasurement();
    int scan(float fromX, float fromY, float toX, float toY);
    int numberOfAvailableSamples();
    // Appends a sample's 36 values, 380 to 730 nm in steps of 10; nothing when it fails.
    int getSpectrum(int index, std::vector<double>& spectrum);
    // A sample's three values, as `setColorimetry` asks for them; zeros when it fails.
    int getTriStimulus(int index, std::vector<double>& values);
    // CIELAB, D50, 2 degrees. Results are not looked at.
    void setColorimetry();

    // Null for none; when the call returns, the handler before is not called any more.
    void setMessageHandler(Tavi_DeviceMessageHandler handler);

    // Makes calls that nothing depends on, in one hold of the lock: what they throw is logged and ignored.
    void trying(const std::function<void()>& calls);

private:
    template <class Call>
    auto locked(Call call);
    int logged(const char* label, int status);

    VellDevice::DevicePlugin& mPlugin;
};
