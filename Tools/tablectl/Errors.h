// The ways in which a command fails, and the exit status of each.
#pragma once

#include <stdexcept>
#include <string>

namespace tablectl {

struct Failure : std::runtime_error {
    Failure(int status, const std::string& text) : std::runtime_error(text), exitStatus(status) {}
    int exitStatus;
};

// The device refused or failed; or something on this side did, such as a full disk.
struct DeviceFailure : Failure {
    explicit DeviceFailure(const std::string& text, int code = 0) : Failure(1, text), deviceCode(code) {}
    int deviceCode; // of the response; 0 when there was none
};

struct UsageFailure : Failure {
    explicit UsageFailure(const std::string& text) : Failure(2, text) {}
};

struct NoDevice : Failure {
    explicit NoDevice(const std::string& text) : Failure(3, text) {}
};

// A signal asked the program to end.
struct Interrupted : Failure {
    explicit Interrupted(int signal) : Failure(128 + signal, "interrupted") {}
};

// What a response's code means: in the instrument's words where the code comes from it and it has said
// something, else in ours.
std::string meaningOf(int code, const std::string& message);

} // namespace tablectl
