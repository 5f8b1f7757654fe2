#pragma once

#include "Object.h"

namespace VellDevice {

// What the service noted when a command was sent: who sent it, and the ticket that tells it from others.
class Receipt : public Object {
public:
    // An empty receipt, to be filled by Command::receipt.
    Receipt();
    Receipt(void* receipt, bool adopt) : Object(receipt, adopt) {}

    const char* context() const;
    const char* source() const;
    const char* ticket() const;
    // Of the sending process, as text.
    const char* processIdentifier() const;
};

} // namespace VellDevice
