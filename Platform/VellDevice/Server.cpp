#include "Server.h"

#include "RuntimeFolder.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <stdexcept>
#include <utility>

namespace VellService {
namespace {

constexpr int kAcceptsInARow = 64; // before other descriptors get their turn
constexpr CFTimeInterval kAcceptPause = 0.1;
constexpr int kClientsOfAProcess = 512;
constexpr CFTimeInterval kRepeatPause = 0.1;
constexpr CFTimeInterval kListenPause = 1.0;
constexpr CFTimeInterval kLookPause = 2.0; // between two looks at the socket's name
constexpr std::chrono::milliseconds kFlushTime{1000};
constexpr int kFlushPause = 5; // milliseconds

// There is no way on with these until something is given back.
bool isShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

} // namespace

Server::Server(CFRunLoopRef loop, CommandHandler handler)
    : mLoop(loop), mHandler(std::move(handler)), mListenPause(loop), mAcceptPause(loop) {}

Server::~Server() {
    disposeOf(mListener, channels());
}

void Server::listen(const __VellString& source) {
    const std::string path = socketPath(source.text);
    {
        const Base::Lock lock(mMutex);
        if (mListener) {
            VellLogError("[Server] - already listening on %s\n", mListener->socket.path().c_str());
            return;
        }
        mPath = path;
    }
    if (const auto problem = tryToListen(path)) {
        VellLogError("[Server] - no clients for '%s': %s\n", source.text.c_str(), problem->c_str());
        mListenPause.start(kListenPause, [this] { listenAgain(); });
    }
}

// What is in the way; nothing when the plug-in listens, or is not to listen any more.
std::optional<std::string> Server::tryToListen(const std::string& path) {
    try {
        const auto listener = std::make_shared<Listener>(path);
        listener->source = std::make_unique<CoreFoundation::FileSource>(
            mLoop, listener->socket.descriptor(), EPOLLIN,
            [this, weak = std::weak_ptr(listener)](std::uint32_t) {
                if (const auto strong = weak.lock())
                    acceptClients(strong);
            });
        const Base::Lock lock(mMutex);
        if (mPath != path)
            return std::nullopt; // closed meanwhile
        VellLogInfo("[Server] - listening on %s\n", listener->socket.path().c_str());
        mListener = listener;
        mListenPause.start(kLookPause, [this] { lookForSocket(); });
        return std::nullopt;
    } catch (const std::exception& problem) {
        return problem.what();
    }
}

void Server::listenAgain() {
    std::optional<std::string> path;
    {
        const Base::Lock lock(mMutex);
        path = mPath;
    }
    if (path && tryToListen(*path))
        mListenPause.start(kListenPause, [this] { listenAgain(); });
}

void Server::lookForSocket() {
    std::shared_ptr<Listener> lost;
    {
        const Base::Lock lock(mMutex);
        if (!mListener)
            return; // closed
        if (!mListener->socket.isThere())
            lost.swap(mListener);
    }
    if (!lost) {
        mListenPause.start(kLookPause, [this] { lookForSocket(); });
        return;
    }
    VellLogWarning("[Server] - %s was deleted\n", lost->socket.path().c_str());
    disposeOf(lost, {}); // the clients that it has taken in stay
    listenAgain();
}

void Server::acceptClients(const std::shared_ptr<Listener>& listener) {
    for (int count = 0; count < kAcceptsInARow; ++count) {
        Base::FileDescriptor socket(
            accept4(listener->socket.descriptor(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket) {
            mIsShort = false;
            admit(std::move(socket));
            continue;
        }
        if (errno == EINTR || errno == ECONNABORTED)
            continue;
        if (isShortage(errno))
            pauseAccepting(listener);
        else if (errno != EAGAIN && errno != EWOULDBLOCK)
            listener->source.reset(); // withdrawn
        return;
    }
}

void Server::pauseAccepting(const std::shared_ptr<Listener>& listener) {
    // The socket stays readable: watched on, it would keep the loop spinning.
    if (!mIsShort)
        VellLogWarning("[Server] - no client can be taken in for the moment (error %d)\n", errno);
    mIsShort = true;
    listener->source->setEvents(0);
    mAcceptPause.start(kAcceptPause, [weak = std::weak_ptr(listener)] {
        const auto strong = weak.lock();
        if (strong && strong->source)
            strong->source->setEvents(EPOLLIN);
    });
}

void Server::admit(Base::FileDescriptor socket) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
        return;
    if (credentials.uid != geteuid() && credentials.uid != 0) {
        VellLogWarning("[Server] - a process of user %u was turned away\n", credentials.uid);
        return;
    }
    if (clientsOf(credentials.pid) >= kClientsOfAProcess) {
        if (std::exchange(mTurnedAway, credentials.pid) != credentials.pid)
            VellLogWarning("[Server] - process %d has %d connections already, more are turned away\n",
                           credentials.pid, kClientsOfAProcess);
        return;
    }
    Sender sender;
    sender.processIdentifier = credentials.pid;
    sender.isThisProcess = credentials.pid == getpid();
    const auto channel = std::make_shared<FrameChannel>(std::move(socket), mLoop,
                                                        "client process " + std::to_string(credentials.pid));
    {
        const Base::Lock lock(mMutex);
        if (!mListener)
            return;
        sender.connection = ++mLastClient;
        mClients.emplace(sender.connection, ClientOfProcess{credentials.pid, channel});
        channel->send(mPublished);
    }
    FrameChannel::Handlers handlers;
    handlers.frame = [this, sender](std::string_view payload) { return receive(payload, sender); };
    handlers.ended = [this, sender] { remove(sender.connection); };
    try {
        channel->start(std::move(handlers));
    } catch (const std::exception& problem) {
        VellLogError("[Server] - a client cannot be served: %s\n", problem.what());
        remove(sender.connection);
    }
}

bool Server::receive(std::string_view payload, const Sender& sender) {
    const Message message(payload);
    if (message.type() == MessageType::unknown) // of a later version, perhaps
        return true;
    if (message.type() != MessageType::command)
        return false;
    const auto command = commandOf(message, sender);
    if (!command)
        return false;
    setServed(sender.connection);
    mHandler(command);
    setServed(kOwnConnection);
    return true;
}

void Server::setServed(ConnectionIdentifier client) {
    const Base::Lock lock(mMutex);
    const auto before = mClients.find(std::exchange(mServed, client));
    if (before != mClients.end())
        before->second.channel->flush();
}

void Server::remove(ConnectionIdentifier client) {
    std::shared_ptr<FrameChannel> channel;
    const Base::Lock lock(mMutex);
    const auto found = mClients.find(client);
    if (found == mClients.end())
        return;
    channel = std::move(found->second.channel);
    mClients.erase(found);
}

std::ptrdiff_t Server::clientsOf(pid_t process) const {
    const Base::Lock lock(mMutex);
    return std::count_if(mClients.begin(), mClients.end(),
                         [&](const auto& entry) { return entry.second.process == process; });
}

std::vector<std::shared_ptr<FrameChannel>> Server::channels() const {
    std::vector<std::shared_ptr<FrameChannel>> all;
    const Base::Lock lock(mMutex);
    all.reserve(mClients.size());
    for (const auto& [identifier, client] : mClients)
        all.push_back(client.channel);
    return all;
}

void Server::publish(const Frame& status) {
    if (!status)
        return;
    const Base::Lock lock(mMutex);
    const CFAbsoluteTime now = CFAbsoluteTimeGetCurrent();
    const bool isNews = !mPublished || (mPublished != status && *mPublished != *status);
    const bool isForAll =
        isNews || mServed == kOwnConnection || std::abs(now - mPublishedToAll) >= kRepeatPause;
    if (isForAll)
        mPublishedToAll = now;
    mPublished = status;
    for (const auto& [identifier, client] : mClients) {
        // The served client gets its answer next, and what says nothing new can leave with it.
        if (identifier == mServed && !isNews)
            client.channel->sendWithNext(status);
        else if (isForAll || identifier == mServed)
            client.channel->send(status);
    }
}

void Server::forgetPublished() {
    const Base::Lock lock(mMutex);
    mPublished = nullptr;
}

void Server::broadcast(const Frame& frame) {
    const Base::Lock lock(mMutex);
    for (const auto& [identifier, client] : mClients)
        client.channel->send(frame);
}

void Server::send(ConnectionIdentifier client, const Frame& frame) {
    const Base::Lock lock(mMutex);
    const auto found = mClients.find(client);
    if (found != mClients.end())
        found->second.channel->send(frame);
}

void Server::flush() {
    const Base::Lock lock(mMutex);
    for (const auto& [identifier, client] : mClients)
        client.channel->flush();
}

void Server::close() {
    std::shared_ptr<Listener> listener;
    {
        const Base::Lock lock(mMutex);
        mPath.reset();
        listener.swap(mListener);
    }
    if (listener)
        listener->socket.withdraw();
    const auto clients = channels();
    const auto deadline = std::chrono::steady_clock::now() + kFlushTime;
    bool drained = false;
    for (;;) {
        drained = true;
        for (const auto& channel : clients)
            drained = channel->flush() && drained;
        if (drained || std::chrono::steady_clock::now() >= deadline)
            break;
        poll(nullptr, 0, kFlushPause);
    }
    for (const auto& channel : clients)
        channel->hangUp();
    if (mLoop->isOfThisThread())
        disposeOf(listener, clients);
    else if (listener || !clients.empty())
        mLoop->enqueue([this, listener, clients] { disposeOf(listener, clients); });
}

void Server::disposeOf(const std::shared_ptr<Listener>& listener,
                       const std::vector<std::shared_ptr<FrameChannel>>& ended) {
    if (listener)
        listener->source.reset();
    for (const auto& channel : ended)
        channel->close();
    const Base::Lock lock(mMutex);
    std::erase_if(mClients, [&](const auto& entry) {
        return std::find(ended.begin(), ended.end(), entry.second.channel) != ended.end();
    });
}

} // namespace VellService
