#include "Receipt.h"

namespace VellDevice {

Receipt::Receipt() : Object(VellReceiptCreate(VellConstStringCreateWithCString("")), true) {}

const char* Receipt::context() const {
    return textOf(VellReceiptGetContext(as<VellReceiptRef>()));
}

const char* Receipt::source() const {
    return textOf(VellReceiptGetSource(as<VellReceiptRef>()));
}

const char* Receipt::ticket() const {
    return textOf(VellReceiptGetTicket(as<VellReceiptRef>()));
}

const char* Receipt::processIdentifier() const {
    return textOf(VellReceiptGetProcessIdentifier(as<VellReceiptRef>()));
}

} // namespace VellDevice
