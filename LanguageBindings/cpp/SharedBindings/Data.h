#pragma once

#include "Object.h"

namespace VellDevice {

// A byte buffer of the service.
class Data : public Object {
public:
    // Null when the service cannot create the data; the caller deletes the wrapper.
    static Data* createDataWithBytes(void* bytes, int length);
    static Data dataWithBytes(void* bytes, int length);
    static Data mappedDataWithFilename(const std::string& path);

    Data(void* data, bool adopt) : Object(data, adopt) {}
    // The contents of a file; a null handle when it cannot be read.
    explicit Data(const std::string& path);

    void* bytes();
    int length();
    void appendBytes(const void* bytes, int length);
};

} // namespace VellDevice
