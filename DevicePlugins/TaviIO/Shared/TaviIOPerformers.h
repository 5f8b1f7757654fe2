// What other threads hand to the main thread.
#pragma once

#include "RemoteObjectPerformer.h"
#include "Response.h"

// A press of the button, from the SDK's thread; deletes itself.
class TaviIOButtonPressPerformer : public VellDevice::RemoteObjectPerformer {
public:
    void perform() override;
};

// A finished response, from a worker thread that waits until it is posted.
class ResponseSendRemoteObjectPerformer : public VellDevice::RemoteObjectPerformer {
public:
    explicit ResponseSendRemoteObjectPerformer(VellDevice::MutableResponse* response) : mResponse(response) {}
    ~ResponseSendRemoteObjectPerformer() override { mResponse = nullptr; }
    void perform() override;

private:
    VellDevice::MutableResponse* mResponse; // the worker's
};
