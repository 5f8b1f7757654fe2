#include "PluginProcess.h"

#include <VellDevice/VellDevice.h>

#include <FrameClient.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace road {
namespace {

constexpr const char* kDevicePath = "usb:benchmark";

void write(const std::filesystem::path& file, const std::string& text) {
    std::ofstream(file) << text;
}

std::string hardwareText(const std::string& devicePath, const std::filesystem::path& chart,
                         double timeScale) {
    std::ostringstream text;
    text << R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
         << "<key>Path</key><string>" << devicePath << "</string>"
         << "<key>VendorID</key><integer>2417</integer><key>ProductID</key><integer>8193</integer>"
         << "<key>DeviceClass</key><string>IOUSBHostDevice</string><key>Siblings</key><array><dict>"
         << "<key>VendorID</key><integer>2417</integer><key>ProductID</key><integer>8192</integer></dict></"
            "array>"
         << "<key>Simulation</key><dict><key>TimeScale</key><real>" << timeScale
         << "</real><key>Chart</key><string>" << chart.string() << "</string></dict></dict></plist>";
    return text.str();
}

} // namespace

// --- Charts

std::string Grid::layout() const {
    std::ostringstream text;
    const auto corner = [&](int row, int column) {
        std::ostringstream point;
        point << '"' << 10 + pitch * column << ' ' << 10 + pitch * row << '"';
        return point.str();
    };
    text << "CGATS.17\nCHART_ROWS " << rows << "\nCHART_COLUMNS " << columns
         << "\nCHART_LAST_ROW_COLUMNS 0\nCHART_TOP_LEFT " << corner(0, 0) << "\nCHART_BOTTOM_LEFT "
         << corner(rows - 1, 0) << "\nCHART_BOTTOM_RIGHT " << corner(rows - 1, columns - 1)
         << "\nNUMBER_OF_FIELDS 39\nBEGIN_DATA_FORMAT\nSAMPLE_ID ROW COLUMN";
    for (int wavelength = 380; wavelength <= 730; wavelength += 10)
        text << " SPECTRAL_NM" << wavelength;
    text << "\nEND_DATA_FORMAT\nNUMBER_OF_SETS " << rows * columns << "\nBEGIN_DATA\n";
    for (int row = 0; row < rows; ++row)
        for (int column = 0; column < columns; ++column) {
            text << 'R' << row << 'C' << column << ' ' << row << ' ' << column;
            const double level = (row + column) % 2 == 0 ? 0.15 : 0.6;
            for (int band = 0; band < 36; ++band)
                text << ' ' << level + 0.001 * ((row * 7 + column * 3 + band) % 100);
            text << '\n';
        }
    text << "END_DATA\n";
    return text.str();
}

std::map<std::string, std::string> Grid::measureArguments() const {
    const std::string left = "10";
    const std::string right = std::to_string(10 + pitch * (columns - 1));
    const std::string bottom = std::to_string(10 + pitch * (rows - 1));
    return {{"TopLeftX", left},
            {"TopLeftY", "10"},
            {"BotLeftX", left},
            {"BotLeftY", bottom},
            {"BotRightX", right},
            {"BotRightY", bottom},
            {"LastRowColumns", "0"},
            {"Rows", std::to_string(rows)},
            {"Columns", std::to_string(columns)}};
}

// --- Connections

std::string commandFrame(const std::string& name, const std::string& ticket,
                         const std::map<std::string, std::string>& arguments) {
    return VellTest::FrameClient::command(name, ticket, {arguments.begin(), arguments.end()});
}

bool isResponse(const std::string& payload, const std::string& ticket) {
    return payload.find("Response") != std::string::npos && payload.find(ticket) != std::string::npos;
}

Connection::Connection(const std::filesystem::path& socket)
    : mSocket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socket.string().copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(mSocket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("nobody answers at " + socket.string());
}

void Connection::send(const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t count = ::send(mSocket.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0)
            throw std::runtime_error("the plug-in has gone");
        sent += static_cast<std::size_t>(count);
    }
}

void Connection::read(char* to, std::size_t count) {
    while (mBuffer.size() - mBegin < count) {
        mBuffer.erase(0, mBegin);
        mBegin = 0;
        char piece[65536];
        const ssize_t got = recv(mSocket.get(), piece, sizeof piece, 0);
        if (got <= 0)
            throw std::runtime_error("the plug-in has gone");
        mBuffer.append(piece, static_cast<std::size_t>(got));
    }
    mBuffer.copy(to, count, mBegin);
    mBegin += count;
}

const std::string& Connection::receive() {
    unsigned char header[4];
    read(reinterpret_cast<char*>(header), sizeof header);
    mPayload.resize(std::size_t{header[0]} << 24 | std::size_t{header[1]} << 16 |
                    std::size_t{header[2]} << 8 | header[3]);
    read(mPayload.data(), mPayload.size());
    return mPayload;
}

const std::string& Connection::receiveResponse(const std::string& ticket, std::size_t* bytes) {
    do {
        receive();
        if (bytes)
            *bytes += 4 + mPayload.size();
    } while (!isResponse(mPayload, ticket));
    return mPayload;
}

const std::string& Connection::ask(const std::string& name,
                                   const std::map<std::string, std::string>& arguments) {
    const std::string ticket = "ask-" + std::to_string(++mTickets) + "-" + std::to_string(mSocket.get());
    send(commandFrame(name, ticket, arguments));
    return receiveResponse(ticket);
}

// --- The folder

Folder::Folder() {
    std::string name = (std::filesystem::temp_directory_path() / "road-XXXXXX").string();
    mPath = mkdtemp(name.data());
    std::filesystem::create_directory(mPath / "hardware");
}

Folder::~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

std::filesystem::path Folder::hardwareFile(const std::string& devicePath) const {
    return mPath / "hardware" / (devicePath.substr(devicePath.find(':') + 1) + ".plist");
}

void Folder::attach(const std::string& devicePath, const Grid& grid, double timeScale) const {
    const std::filesystem::path chart = mPath / "chart.txt";
    write(chart, grid.layout());
    const std::filesystem::path file = hardwareFile(devicePath);
    write(file.string() + ".tmp", hardwareText(devicePath, chart, timeScale));
    std::filesystem::rename(file.string() + ".tmp", file);
}

std::map<std::string, std::string> Folder::environment() const {
    return {{"VELL_RUNTIME_DIR", mPath}, {"VELL_HARDWARE_DIR", mPath / "hardware"}, {"VELL_LOG_DIR", logs()}};
}

std::filesystem::path Folder::waitForSocket(const std::string& devicePath) const {
    const VellStringRef source = VellStringCreateWithCString(devicePath.c_str());
    char name[16];
    std::snprintf(name, sizeof name, "%08x.sock", VellHash(source));
    VellRelease(source);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < deadline) {
        if (std::filesystem::exists(mPath / name))
            return mPath / name;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    throw std::runtime_error("the plug-in of " + devicePath + " does not listen");
}

// --- The process

PluginProcess::PluginProcess(const Grid& grid, double timeScale, bool fastSleep) {
    mFolder.attach(kDevicePath, grid, timeScale);
    auto environment = mFolder.environment();
    environment["TAVI_TABLE"] = mFolder.hardwareFile(kDevicePath);
    if (fastSleep) {
        // The loader would split a path at its blanks.
        const std::filesystem::path library = mFolder.path() / "fast_sleep.so";
        std::filesystem::create_symlink(FAST_SLEEP, library);
        environment["LD_PRELOAD"] = library;
    }
    mProcess = std::make_unique<tools::ChildProcess>(
        PLUGIN_HOST, std::vector<std::string>{kDevicePath, PLUGIN_BUNDLE}, environment);
}

PluginProcess::~PluginProcess() {
    mProcess->signal(9);
    mProcess->waitFor(std::chrono::seconds(10));
}

std::filesystem::path PluginProcess::socket() const {
    return mFolder.waitForSocket(kDevicePath);
}

std::size_t PluginProcess::residentBytes() const {
    return residentBytesOf(identifier());
}

double PluginProcess::processorSeconds() const {
    return processorSecondsOf(identifier());
}

std::size_t residentBytesOf(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/statm");
    std::size_t total = 0;
    std::size_t resident = 0;
    file >> total >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

double processorSecondsOf(pid_t process) {
    clockid_t clock{};
    timespec used{};
    if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &used) != 0)
        throw std::runtime_error("a process has gone");
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

} // namespace road
