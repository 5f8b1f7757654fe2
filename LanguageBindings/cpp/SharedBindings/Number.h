#pragma once

#include "Object.h"

namespace VellDevice {

// A number object of the service.
class Number : public Object {
public:
    Number(void* number, bool adopt) : Object(number, adopt) {}
};

} // namespace VellDevice
