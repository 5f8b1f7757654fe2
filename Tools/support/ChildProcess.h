#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tools {

// How a process ended.
struct ProcessEnd {
    bool bySignal;
    int value; // the signal, or the 8 bits of the exit status

    std::string text() const; // "exit status 4", "signal 9 (Killed)"
};

// A program that this process started and answers for: it is reaped exactly once, and killed when the object
// goes before it has ended. One thread at a time.
//
// The child has a process group of its own, so that Ctrl-C in a terminal reaches its parent alone; it starts
// with no signal blocked and with no descriptors but the standard three.
class ChildProcess {
public:
    // `environment` is added to this process's own. Throws std::system_error when the program cannot be
    // started.
    ChildProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                 const std::map<std::string, std::string>& environment = {});
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();

    pid_t processIdentifier() const { return mProcess; }
    std::optional<ProcessEnd> poll(); // how it ended, once it has
    std::optional<ProcessEnd> waitFor(std::chrono::milliseconds timeout);
    void signal(int number); // nothing when it has ended

private:
    pid_t mProcess;
    std::optional<ProcessEnd> mEnd;
};

// The folder of the running program, through which it finds the files installed beside it.
std::filesystem::path programFolder();
// The plug-in that is installed, or was built, with the running program.
std::filesystem::path ownBundle();

} // namespace tools
