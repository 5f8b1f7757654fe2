#include "TaviIOPerformers.h"

#include "TaviIO.h"

void TaviIOButtonPressPerformer::perform() {
    VellLogInfo("Performing Tavi button press on device center runLoop\n");
    if (_thisIOProDevice != nullptr)
        _thisIOProDevice->buttonPressed();
}

void ResponseSendRemoteObjectPerformer::perform() {
    mResponse->send();
}
