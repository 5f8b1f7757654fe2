#pragma once

#include "Delay.h"
#include "FrameChannel.h"
#include "ServerSocket.h"

#include <Base/Mutex.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace VellService {

// The plug-in's side of the transport: takes clients in, hands their commands on, and sends them responses
// and status. Posting, flushing and closing are for any thread, the rest for the loop's.
class Server {
public:
    using CommandHandler = std::function<void(const Ref<__VellDeviceCommand>&)>;

    // The handler is called on the loop's thread, for one command at a time.
    Server(CFRunLoopRef loop, CommandHandler handler);
    ~Server();

    // Listens under the name's hash. What is in the way is logged, and until it has gone (a process that
    // serves the same device and is about to end, say) the plug-in runs without clients. A socket that
    // somebody deletes comes back.
    void listen(const __VellString& name);

    // A client gets the frame last published before anything else. While a client's command is handled, one
    // that says nothing new goes to that client alone, and to the others ten times a second at most: what a
    // busy client costs does not grow with the number of idle ones.
    void publish(const Frame& status);
    void forgetPublished();
    void broadcast(const Frame& frame);
    void send(ConnectionIdentifier client, const Frame& frame);
    void flush();
    // Withdraws the socket, lets what was posted leave (for a second at most) and hangs up on the clients.
    void close();

private:
    // What one listen makes and one close ends.
    struct Listener {
        explicit Listener(const std::string& path) : socket(path) {}
        ServerSocket socket;
        std::unique_ptr<CoreFoundation::FileSource> source; // the loop's thread only
    };

    struct ClientOfProcess {
        pid_t process;
        std::shared_ptr<FrameChannel> channel;
    };

    std::optional<std::string> tryToListen(const std::string& path);
    void listenAgain();
    void lookForSocket();
    void acceptClients(const std::shared_ptr<Listener>& listener);
    void admit(Base::FileDescriptor socket);
    void pauseAccepting(const std::shared_ptr<Listener>& listener);
    bool receive(std::string_view payload, const Sender& sender);
    void setServed(ConnectionIdentifier client);
    void remove(ConnectionIdentifier client);
    void disposeOf(const std::shared_ptr<Listener>& listener,
                   const std::vector<std::shared_ptr<FrameChannel>>& channels);
    std::vector<std::shared_ptr<FrameChannel>> channels() const;
    std::ptrdiff_t clientsOf(pid_t process) const;

    const CFRunLoopRef mLoop;
    const CommandHandler mHandler;
    Delay mListenPause;
    Delay mAcceptPause;
    pid_t mTurnedAway = 0; // the process of the last log line. The loop's thread only
    bool mIsShort = false; // of descriptors; one log line for one shortage. The loop's thread only

    // Every client sees posts in one order. Taken before a channel's lock.
    mutable Base::Mutex mMutex;
    std::optional<std::string> mPath GUARDED_BY(mMutex); // of the socket to listen at, until close
    std::shared_ptr<Listener> mListener GUARDED_BY(mMutex);
    std::map<ConnectionIdentifier, ClientOfProcess> mClients GUARDED_BY(mMutex);
    ConnectionIdentifier mLastClient GUARDED_BY(mMutex) = kOwnConnection;
    ConnectionIdentifier mServed GUARDED_BY(mMutex) = kOwnConnection; // whose command is being handled
    Frame mPublished GUARDED_BY(mMutex);
    CFAbsoluteTime mPublishedToAll GUARDED_BY(mMutex) = 0;
};

} // namespace VellService
