#include "SignalWatcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>

#include <csignal>
#include <cstdint>
#include <system_error>

namespace tools {

SignalWatcher::SignalWatcher(std::initializer_list<int> signals, std::function<void(int)> handler)
    : mHandler(std::move(handler)) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals)
        sigaddset(&set, signal);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    mSignals.reset(signalfd(-1, &set, SFD_CLOEXEC));
    mStop.reset(eventfd(0, EFD_CLOEXEC));
    if (!mSignals || !mStop)
        throw std::system_error(errno, std::generic_category(), "cannot watch for signals");
    mThread = std::thread([this] { watch(); });
}

SignalWatcher::~SignalWatcher() {
    const std::uint64_t one = 1;
    while (write(mStop.get(), &one, sizeof one) < 0 && errno == EINTR) {
    }
    mThread.join();
}

void SignalWatcher::watch() {
    pollfd ready[] = {{mStop.get(), POLLIN, 0}, {mSignals.get(), POLLIN, 0}};
    for (;;) {
        if (poll(ready, 2, -1) < 0)
            continue;
        if (ready[0].revents)
            return;
        signalfd_siginfo information;
        if (read(mSignals.get(), &information, sizeof information) == sizeof information)
            mHandler(static_cast<int>(information.ssi_signo));
    }
}

void makeFailedWritesErrors() {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

} // namespace tools
