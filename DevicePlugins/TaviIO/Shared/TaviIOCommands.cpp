// The commands that drive the table directly.

#include "Numbers.h"
#include "TaviIO.h"

#include <exception>

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
    parkHead();
}

void TaviIO::handleCancel() {
    if (isMeasuring())
        setIsCancelled(true); // the worker parks the head and answers its own command
    else
        parkHead();
}

void TaviIO::handleSetDevicePosition(const Command& command, MutableResponse& response) {
    const float x = FloatFromText(command.argumentForKey("x"));
    const float y = FloatFromText(command.argumentForKey("y"));
    int status = 0;
    {
        const SDKLock lock(*this);
        status = Tavi_SetPosition(x, y);
    }
    logIfError("Tavi_SetPosition", status);
    response.setCode(sdkError2Error(status));
    int hold = 0;
    {
        const SDKLock lock(*this);
        response.setMessage(option("LastError"));
        hold = Tavi_SetOption("TaviTHoldPosition", "no");
    }
    logIfError("TAVIT_HOLD_POSITION ", hold);
}

void TaviIO::handleGetDevicePosition(MutableResponse& response) {
    IOPoint head{};
    const int status = readHeadPosition(head);
    response.setCode(sdkError2Error(status));
    response.setMessage(status == 0 ? TextFromFloat(head.x) + "," + TextFromFloat(head.y)
                                    : option("LastError"));
}

// Where the head is; an SDK status.
int TaviIO::readHeadPosition(IOPoint& head) {
    int status = 0;
    {
        const SDKLock lock(*this);
        status = Tavi_GetPosition(&head.x, &head.y);
    }
    logIfError("Tavi_GetPosition", status);
    return status;
}

void TaviIO::handleGoHome(MutableResponse& response) {
    int status = 0;
    {
        const SDKLock lock(*this);
        status = Tavi_GoToHomePosition();
    }
    logIfError("Tavi_GoToHomePosition", status);
    response.setCode(sdkError2Error(status));
    response.setMessage(option("LastError"));
}

void TaviIO::parkHead() {
    const SDKLock lock(*this);
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
