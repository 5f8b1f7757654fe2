// A command and its answer, beside a bare ping-pong of the same bytes between two processes.

#include "PluginProcess.h"
#include "Report.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <thread>

namespace road {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kBlocks = 40;
constexpr int kPerBlock = 50;
constexpr int kClients = 50;

double microseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::micro>(duration).count();
}

void readAll(int socket, std::size_t count) {
    static std::array<char, 1 << 16> buffer;
    while (count > 0) {
        const ssize_t got = recv(socket, buffer.data(), std::min(count, buffer.size()), 0);
        if (got <= 0)
            _exit(0);
        count -= static_cast<std::size_t>(got);
    }
}

void writeAll(int socket, std::size_t count) {
    static const std::string bytes(1 << 16, 'x');
    if (send(socket, bytes.data(), count, MSG_NOSIGNAL) != static_cast<ssize_t>(count))
        _exit(0);
}

// A process that answers `asked` bytes with `answered` bytes, and nothing else.
class PingPong {
public:
    PingPong(std::size_t asked, std::size_t answered) : mAsked(asked), mAnswered(answered) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
            throw std::runtime_error("no sockets");
        mSocket.reset(ends[0]);
        mProcess = fork();
        if (mProcess == 0) {
            ::close(ends[0]);
            for (;;) {
                readAll(ends[1], asked);
                writeAll(ends[1], answered);
            }
        }
        ::close(ends[1]);
    }
    ~PingPong() {
        mSocket.reset();
        waitpid(mProcess, nullptr, 0);
    }
    void once() {
        writeAll(mSocket.get(), mAsked);
        readAll(mSocket.get(), mAnswered);
    }

private:
    const std::size_t mAsked;
    const std::size_t mAnswered;
    Base::FileDescriptor mSocket;
    pid_t mProcess = 0;
};

// Clients that listen and say nothing, in a process of their own.
class Listeners {
public:
    explicit Listeners(const std::filesystem::path& socket) {
        mProcess = fork();
        if (mProcess != 0)
            return;
        std::vector<Connection> connections;
        std::vector<pollfd> polled;
        for (int i = 0; i < kClients; ++i) {
            connections.emplace_back(socket);
            polled.push_back({connections.back().descriptor(), POLLIN, 0});
        }
        std::array<char, 1 << 16> buffer;
        for (;;) {
            poll(polled.data(), polled.size(), -1);
            for (const pollfd& descriptor : polled)
                if (descriptor.revents != 0 &&
                    recv(descriptor.fd, buffer.data(), buffer.size(), MSG_DONTWAIT) == 0)
                    _exit(0);
            std::this_thread::sleep_for(std::chrono::milliseconds(20)); // they look now and then
        }
    }
    ~Listeners() {
        kill(mProcess, SIGKILL);
        waitpid(mProcess, nullptr, 0);
    }

private:
    pid_t mProcess;
};

} // namespace

void measureRoundTrip(Report& report) {
    const PluginProcess plugin({.rows = 20, .columns = 20, .pitch = 10}, 1, false);
    Connection client(plugin.socket());
    const Listeners listeners(plugin.socket());
    const Grid grid{.rows = 20, .columns = 20, .pitch = 10};
    while (client.receive().find("Status") == std::string::npos) {
    }
    client.ask("Calibrate");
    client.ask("SetMode", {{"Mode", "ScanningReflectance"}});
    Connection measuring(plugin.socket());
    measuring.send(commandFrame("Measure", "chart", grid.measureArguments()));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));

    const std::string ticket = "round-trip";
    const std::string command = commandFrame("Quit", ticket); // is answered, and nothing else
    std::size_t answered = 0;
    client.send(command);
    client.receiveResponse(ticket, &answered);
    PingPong peer(command.size(), answered);

    std::vector<double> ours;
    std::vector<double> theirs;
    for (int block = 0; block < kBlocks; ++block) {
        for (int i = 0; i < kPerBlock; ++i) {
            const auto begin = Clock::now();
            client.send(command);
            client.receiveResponse(ticket);
            ours.push_back(microseconds(Clock::now() - begin));
        }
        for (int i = 0; i < kPerBlock; ++i) {
            const auto begin = Clock::now();
            peer.once();
            theirs.push_back(microseconds(Clock::now() - begin));
        }
    }
    report.add("round trip, scan running, 50 clients: median", quantile(ours, 0.5), "us");
    report.add("  bare ping-pong of the same bytes: median", quantile(theirs, 0.5), "us");
    report.add("  ratio of the medians", quantile(ours, 0.5) / quantile(theirs, 0.5), "", 3);
    report.add("  99th percentile", quantile(ours, 0.99), "us");
    report.add("  bare ping-pong: 99th percentile", quantile(theirs, 0.99), "us");
    report.add("  ratio of the 99th percentiles", quantile(ours, 0.99) / quantile(theirs, 0.99), "", 10);
}

} // namespace road
