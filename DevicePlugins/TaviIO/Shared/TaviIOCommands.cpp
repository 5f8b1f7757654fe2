// The commands that drive the table directly.

#include "InstrumentStatus.h"
#include "Numbers.h"
#include "TaviIO.h"

using namespace VellDevice;

bool TaviIO::processCommand(const Command& command, MutableResponse& response) {
    const std::string name = command.name();
    if (name == "__RESET__") {
        response.setCode(kSuccess);
        handleReset();
        return true;
    }
    if (name == "CancelMeasure" || name == "MeasureCancel") {
        response.setCode(kSuccess);
        handleCancel();
        return true;
    }
    if (isMeasuring()) {
        response.setCode(kMeasuring);
        response.send();
        return true;
    }
    if (name == DevicePluginCommandSetAttribute)
        handleSetAttribute(command, response);
    else if (name == "SetDevicePosition")
        handleSetDevicePosition(command, response);
    else if (name == "GetDevicePosition")
        handleGetDevicePosition(response);
    else if (name == "GoHome")
        handleGoHome(response);
    else
        return false;
    return true;
}

void TaviIO::handleReset() {
    if (isMeasuring()) {
        setIsCancelled(true);
        for (int second = 0; second < 5; ++second)
            waitOneSecond();
        // Whether or not the worker has stopped: one that has not finds out that it lost the measurement.
        setIsMeasuring(false);
        setIsCancelled(false);
    }
    mInstrument.park();
}

void TaviIO::handleCancel() {
    if (isMeasuring())
        setIsCancelled(true); // the worker parks the head and answers its own command
    else
        mInstrument.park();
}

void TaviIO::handleSetDevicePosition(const Command& command, MutableResponse& response) {
    const float x = FloatFromText(command.argumentForKey("x"));
    const float y = FloatFromText(command.argumentForKey("y"));
    response.setCode(sdkError2Error(mInstrument.moveTo(x, y)));
    int hold = InstrumentStatus::kDone;
    {
        const auto instrument = mInstrument.hold();
        response.setMessage(instrument->option("LastError"));
        hold = instrument->setOption("TaviTHoldPosition", "no");
    }
    logIfError("TAVIT_HOLD_POSITION ", hold);
}

void TaviIO::handleGetDevicePosition(MutableResponse& response) {
    IOPoint head{};
    const int status = mInstrument.getPosition(head.x, head.y);
    response.setCode(sdkError2Error(status));
    response.setMessage(status == InstrumentStatus::kDone
                            ? TextFromFloat(head.x) + "," + TextFromFloat(head.y)
                            : mInstrument.option("LastError"));
}

void TaviIO::handleGoHome(MutableResponse& response) {
    response.setCode(sdkError2Error(mInstrument.goHome()));
    response.setMessage(mInstrument.option("LastError"));
}
