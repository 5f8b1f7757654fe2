// A real plug-in process with a virtual table of its own, and the connections of its clients, byte by byte.
#pragma once

#include <Base/FileDescriptor.h>

#include <support/ChildProcess.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace road {

// A grid of patches that all differ from their neighbours, `pitch` apart, the first at (10, 10).
struct Grid {
    int rows;
    int columns;
    double pitch;

    std::string layout() const; // the text of a chart layout file
    std::map<std::string, std::string> measureArguments() const;
};

// A client's side of the socket. Blocking; one thread.
class Connection {
public:
    explicit Connection(const std::filesystem::path& socket);

    void send(const std::string& bytes);
    // The next frame's payload; valid until the next call.
    const std::string& receive();
    // Reads on until the response that bears the ticket; its payload. What came before it counts in `bytes`.
    const std::string& receiveResponse(const std::string& ticket, std::size_t* bytes = nullptr);
    const std::string& ask(const std::string& name, const std::map<std::string, std::string>& arguments = {});
    int descriptor() const { return mSocket.get(); }
    // Bytes have been read that no call has taken yet: no poll tells of them.
    bool holdsMore() const { return mBegin < mBuffer.size(); }

private:
    void read(char* to, std::size_t count);

    Base::FileDescriptor mSocket;
    std::string mPayload;
    std::string mBuffer; // read, from mBegin on not yet taken
    std::size_t mBegin = 0;
    int mTickets = 0;
};

// The frame of a command.
std::string commandFrame(const std::string& name, const std::string& ticket,
                         const std::map<std::string, std::string>& arguments = {});
bool isResponse(const std::string& payload, const std::string& ticket);

// A runtime folder of one's own, with its hardware folder and charts; removed with the object.
class Folder {
public:
    Folder();
    ~Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    const std::filesystem::path& path() const { return mPath; }
    std::filesystem::path logs() const { return mPath / "log"; }
    // The file that attaches a table.
    std::filesystem::path hardwareFile(const std::string& devicePath) const;
    // Attaches a table on which the grid lies. `timeScale`: 0 at once, 1 as a real one.
    void attach(const std::string& devicePath, const Grid& grid, double timeScale) const;
    // What tells a process of the folders.
    std::map<std::string, std::string> environment() const;
    // The socket of a table's plug-in, as soon as there is one.
    std::filesystem::path waitForSocket(const std::string& devicePath) const;

private:
    std::filesystem::path mPath;
};

// vell-plugin-host with the bundle, in a runtime folder of its own; gone with the object.
class PluginProcess {
public:
    // `timeScale` of the table: 0 at once, 1 as a real one. `fastSleep`: the plug-in's seconds of waiting
    // pass at once, too.
    PluginProcess(const Grid& grid, double timeScale, bool fastSleep);
    ~PluginProcess();

    // The socket, as soon as there is one.
    std::filesystem::path socket() const;
    pid_t identifier() const { return mProcess->processIdentifier(); }
    std::size_t residentBytes() const;
    double processorSeconds() const; // used so far, user and system

private:
    Folder mFolder;
    std::unique_ptr<tools::ChildProcess> mProcess;
};

std::size_t residentBytesOf(pid_t process);
double processorSecondsOf(pid_t process); // used so far, user and system, threads that have ended included

} // namespace road
