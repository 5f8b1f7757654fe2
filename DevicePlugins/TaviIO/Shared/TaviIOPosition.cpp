// "Measure" in the single-reading mode: where the head is.

#include "InstrumentStatus.h"
#include "Numbers.h"
#include "TaviIO.h"

using namespace VellDevice;

namespace {

ColorRepresentation positionIn(const std::string& colorSpace, const std::string& x, const std::string& y) {
    ColorRepresentation representation;
    representation.setColorSpace(colorSpace);
    representation.setAttributeForKey(x, "x");
    representation.setAttributeForKey(y, "y");
    return representation;
}

} // namespace

void TaviIO::_measurePosition(const Command& command) {
    const PollingPause pause(*this);
    try {
        int status = mInstrument.setOption("TaviTIsVisorCoordinate", "yes");
        MutableResponse response(command);
        if (status == InstrumentStatus::kDone)
            status = readPosition(response);
        const auto instrument = mInstrument.hold();
        response.setCode(sdkError2Error(status));
        response.setMessage(instrument->option("LastError"));
        response.send();
    } catch (const TaviSDK::Exception&) {
        VellLogError("[TaviIO::_measurePosition] - TaviSDK exception\n");
        refuse(command, kInstrumentFailure, lastErrorWhateverHappens());
    }
}

// On success the response carries the position.
int TaviIO::readPosition(MutableResponse& response) {
    IOPoint head{};
    const int status = mInstrument.getPosition(head.x, head.y);
    if (status != InstrumentStatus::kDone)
        return status;
    const std::string x = TextFromFloat(head.x);
    const std::string y = TextFromFloat(head.y);
    Measurement measurement;
    measurement.addColorRepresentation(positionIn(ColorSpaceSpectral, x, y));
    measurement.addColorRepresentation(positionIn(ColorSpacePosition, x, y));
    MutableMeasurementSet set;
    set.addMeasurement(measurement);
    response.setMeasurementSet(set);
    return status;
}

int TaviIO::getPositionMeasurementData(std::vector<double>& spectrum) {
    return getSpectrum(0, spectrum);
}
