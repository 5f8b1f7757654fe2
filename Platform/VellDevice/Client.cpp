#include "Client.h"

#include "RuntimeFolder.h"
#include "ServerSocket.h"

#include <dirent.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <stdexcept>
#include <system_error>

namespace VellService {
namespace {

constexpr CFTimeInterval kFirstPause = 0.1;   // before a plug-in that hung up is tried again
constexpr CFTimeInterval kLongestPause = 5.0; // when it does so again and again
constexpr CFTimeInterval kBusyPause = 0.05;   // while its queue of connections is full
constexpr std::size_t kMaximumRecords = 64;   // of one plug-in

std::set<std::string> socketsIn(const std::string& folder) {
    std::set<std::string> paths;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(folder.c_str()), closedir);
    if (!directory)
        return paths;
    while (const dirent* entry = readdir(directory.get())) {
        const std::string_view name = entry->d_name;
        if (name.ends_with(".sock"))
            paths.insert(folder + "/" + entry->d_name);
    }
    return paths;
}

std::string nameOf(const __VellDevice& device) {
    return device.read([](const RecordFields& fields) { return textOf(fields.name.get()); });
}

std::string pathOf(const __VellDevice& device) {
    return device.read([](const RecordFields& fields) { return textOf(fields.pathOrAttribute()); });
}

} // namespace

Client::Client(CFRunLoopRef loop) : mLoop(loop), mNextLook(loop) {}

Client::~Client() {
    for (const auto& [identifier, link] : mLinks)
        link.channel->close();
    for (const auto& record : mRecords)
        record->link = kNoLink;
}

// --- The search

void Client::requestSearch() {
    {
        const Base::Lock lock(mMutex);
        if (std::exchange(mSearchRequested, true))
            return;
    }
    mLoop->enqueue([this] { beginSearch(); });
}

void Client::beginSearch() {
    mFolder = runtimeFolderPath();
    mWatch = std::make_unique<FolderWatch>(mLoop, mFolder, checkRuntimeFolder,
                                           [this](const std::set<std::string>&) { look(); });
    mWatch->start();
}

void Client::look() {
    const std::set<std::string> paths = socketsIn(mFolder);
    std::erase_if(mSockets,
                  [&](const auto& entry) { return !paths.contains(entry.first) && !entry.second.link; });
    for (const std::string& path : paths) {
        struct stat status {};
        if (lstat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode) || status.st_uid != geteuid())
            continue;
        Socket& socket = mSockets[path];
        const timespec& change = status.st_ctim;
        if (socket.inode != status.st_ino || socket.changed.tv_sec != change.tv_sec ||
            socket.changed.tv_nsec != change.tv_nsec) {
            socket.isDead = false;
            socket.nextTry = 0;
            socket.pause = kFirstPause;
        }
        socket.inode = status.st_ino;
        socket.changed = change;
        if (socket.link != kNoLink || socket.isDead)
            continue;
        const CFTimeInterval rest = socket.nextTry - CFAbsoluteTimeGetCurrent();
        if (rest > 0)
            lookAgainIn(rest);
        else
            tryToConnect(path, socket);
    }
}

void Client::lookAgainIn(CFTimeInterval seconds) {
    if (!mNextLook.isPending())
        mNextLook.start(seconds, [this] { look(); });
}

void Client::tryToConnect(const std::string& path, Socket& socket) {
    sockaddr_un address{};
    try {
        address = socketAddress(path);
    } catch (const std::runtime_error& problem) {
        socket.isDead = true;
        VellLogWarning("[Client] - %s\n", problem.what());
        return;
    }
    Base::FileDescriptor connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (connection &&
        connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        open(path, socket, std::move(connection));
        return;
    }
    socket.isDead = connection && errno == ECONNREFUSED;
    if (!socket.isDead)
        lookAgainIn(errno == EAGAIN ? kBusyPause : kLongestPause);
}

void Client::open(const std::string& path, Socket& socket, Base::FileDescriptor connection) {
    Link link;
    link.identifier = ++mLastLink;
    link.socketPath = path;
    link.channel = std::make_shared<FrameChannel>(std::move(connection), mLoop, path);
    const LinkIdentifier identifier = link.identifier;
    FrameChannel::Handlers handlers;
    handlers.frame = [this, identifier](std::string_view payload) { return receive(identifier, payload); };
    handlers.ended = [this, identifier] { ended(identifier); };
    try {
        link.channel->start(std::move(handlers));
    } catch (const std::system_error& problem) {
        VellLogError("[Client] - %s cannot be watched: %s\n", path.c_str(), problem.what());
        lookAgainIn(kLongestPause);
        return;
    }
    socket.link = identifier;
    const Base::Lock lock(mMutex);
    mLinks.emplace(identifier, std::move(link));
}

// --- What arrives

bool Client::receive(LinkIdentifier link, std::string_view payload) {
    const Message message(payload);
    switch (message.type()) {
    case MessageType::status:
        return updateRecord(link, message);
    case MessageType::response:
        deliverResponse(link, message);
        return true;
    case MessageType::close:
        closeRecord(link, message.textIn("DevicePath"));
        return true;
    case MessageType::message:
        VellLogInfo("[Client] - message: %s %s\n", message.textIn("First").c_str(),
                    message.textIn("Second").c_str());
        return true;
    case MessageType::unknown: // of a later version, perhaps
        return true;
    default:
        return false;
    }
}

bool Client::updateRecord(LinkIdentifier link, const Message& message) {
    std::optional<RecordFields> fields = recordOf(message);
    if (!fields)
        return false;
    const Ref<__VellDevice> record = recordFor(link, *fields);
    if (!record)
        return false;
    const bool isNew = record->link != link;
    record->replaceFields(std::move(*fields));
    record->link = link;
    for (auto& [path, socket] : mSockets) {
        if (socket.link == link)
            socket.pause = kFirstPause; // it is well
    }
    notify(record, isNew ? appeared : changed);
    return true;
}

Ref<__VellDevice> Client::recordFor(LinkIdentifier link, const RecordFields& fields) {
    const std::string& name = textOf(fields.name.get());
    const std::string& path = textOf(fields.pathOrAttribute());
    if (name.empty())
        return {};
    const Base::Lock lock(mMutex);
    // A record that another plug-in holds is not given away to one that claims the same name and path.
    const auto found = std::find_if(mRecords.begin(), mRecords.end(), [&](const auto& record) {
        const LinkIdentifier owner = record->link;
        return (owner == link || owner == kNoLink) && nameOf(*record) == name && pathOf(*record) == path;
    });
    if (found != mRecords.end())
        return *found;
    const auto owned = std::count_if(mRecords.begin(), mRecords.end(),
                                     [&](const auto& record) { return record->link == link; });
    if (owned >= static_cast<std::ptrdiff_t>(kMaximumRecords))
        return {};
    mRecords.push_back(Ref<__VellDevice>::adopt(new __VellDevice(__VellDevice::Kind::mirror)));
    return mRecords.back();
}

void Client::deliverResponse(LinkIdentifier link, const Message& message) {
    Ref<__VellDeviceCommand> command;
    std::vector<ResponseObserver> observers;
    {
        const Base::Lock lock(mMutex);
        command = mPending.find(link, message.textIn("Ticket"));
        observers = mResponseObservers;
    }
    if (observers.empty())
        return;
    const auto response =
        responseOf(message, command ? duplicateOf(command.get()) : answeredCommandOf(message));
    for (const ResponseObserver& observer : observers) {
        {
            // An earlier one may have unregistered it.
            const Base::Lock lock(mMutex);
            if (std::none_of(mResponseObservers.begin(), mResponseObservers.end(),
                             [&](const auto& candidate) { return candidate.number == observer.number; }))
                continue;
        }
        observer.callback(observer.context, response.get());
    }
}

std::vector<Ref<__VellDevice>> Client::recordsOf(LinkIdentifier link) const {
    std::vector<Ref<__VellDevice>> records;
    const Base::Lock lock(mMutex);
    std::copy_if(mRecords.begin(), mRecords.end(), std::back_inserter(records),
                 [&](const auto& record) { return record->link == link; });
    return records;
}

void Client::closeRecord(LinkIdentifier link, const std::string& devicePath) {
    for (const auto& record : recordsOf(link)) {
        if (devicePath.empty() || pathOf(*record) == devicePath) {
            record->link = kNoLink;
            record->write([](RecordFields& fields) { fields.available = fields.connected = false; });
            notify(record, gone);
        }
    }
}

void Client::ended(LinkIdentifier link) {
    for (auto& [path, socket] : mSockets) {
        if (socket.link != link)
            continue;
        socket.link = kNoLink;
        socket.nextTry = CFAbsoluteTimeGetCurrent() + socket.pause;
        lookAgainIn(socket.pause);
        socket.pause = std::min(socket.pause * 2, kLongestPause);
    }
    {
        const Base::Lock lock(mMutex);
        mLinks.erase(link);
        mPending.forget(link);
    }
    closeRecord(link, "");
}

// --- Observers

std::vector<Client::DeviceObserver> Client::observersOf(const std::string& deviceName) const {
    std::vector<DeviceObserver> observers;
    const Base::Lock lock(mMutex);
    std::copy_if(mDeviceObservers.begin(), mDeviceObservers.end(), std::back_inserter(observers),
                 [&](const DeviceObserver& observer) {
                     return observer.isIntroduced &&
                            (!observer.deviceName || observer.deviceName->text == deviceName);
                 });
    return observers;
}

void Client::notify(const Ref<__VellDevice>& device, Event event) {
    const std::string name = nameOf(*device);
    for (const DeviceObserver& observer : observersOf(name)) {
        // An earlier one may have unregistered it.
        const auto registered = observersOf(name);
        if (std::any_of(registered.begin(), registered.end(),
                        [&](const DeviceObserver& candidate) { return candidate.number == observer.number; }))
            observer.callback(observer.context, device.get(), event);
    }
}

void Client::introduce(std::uint64_t number) {
    {
        const Base::Lock lock(mMutex);
        for (DeviceObserver& observer : mDeviceObservers)
            observer.isIntroduced = observer.isIntroduced || observer.number == number;
    }
    const Ref<__VellArray> devices = copyDevices();
    for (const auto& object : devices->values) {
        auto* device = as<__VellDevice>(object.get());
        for (const DeviceObserver& observer : observersOf(nameOf(*device))) {
            if (observer.number == number)
                observer.callback(observer.context, device, appeared);
        }
    }
}

void Client::addDeviceObserver(void* context, VellStringRef deviceName, VellDeviceCallback callback) {
    std::uint64_t number = 0;
    {
        const Base::Lock lock(mMutex);
        number = ++mLastObserver;
        mDeviceObservers.push_back({number, context, Ref(deviceName), callback, false});
    }
    requestSearch();
    mLoop->enqueue([this, number] { introduce(number); });
}

void Client::removeDeviceObserver(void* context, VellStringRef deviceName) {
    const Base::Lock lock(mMutex);
    std::erase_if(mDeviceObservers, [&](const DeviceObserver& observer) {
        return observer.context == context && compareObjects(observer.deviceName.get(), deviceName) == 0;
    });
}

void Client::addResponseObserver(void* context, VellResponseCallback callback) {
    {
        const Base::Lock lock(mMutex);
        mResponseObservers.push_back({++mLastObserver, context, callback});
    }
    requestSearch();
}

void Client::removeResponseObserver(void* context) {
    const Base::Lock lock(mMutex);
    std::erase_if(mResponseObservers,
                  [&](const ResponseObserver& observer) { return observer.context == context; });
}

// --- Devices and commands

VellDeviceRef Client::deviceByName(const std::string& name) {
    requestSearch();
    const Base::Lock lock(mMutex);
    const auto found = std::find_if(mRecords.begin(), mRecords.end(), [&](const auto& record) {
        return record->link != kNoLink && nameOf(*record) == name;
    });
    return found != mRecords.end() ? found->get() : nullptr;
}

Ref<__VellArray> Client::copyDevices() {
    requestSearch();
    auto devices = Ref<__VellArray>::adopt(new __VellArray);
    const Base::Lock lock(mMutex);
    for (const auto& record : mRecords) {
        if (record->link != kNoLink)
            devices->values.emplace_back(record.get());
    }
    return devices;
}

std::shared_ptr<FrameChannel> Client::channelOf(LinkIdentifier link) const {
    const Base::Lock lock(mMutex);
    const auto found = mLinks.find(link);
    return found != mLinks.end() ? found->second.channel : nullptr;
}

bool Client::send(LinkIdentifier link, const Ref<__VellDeviceCommand>& command) {
    const auto channel = channelOf(link);
    const Frame frame = channel ? commandFrame(*command) : nullptr;
    if (!frame)
        return false;
    {
        // Before it leaves: the answer may be quick.
        const Base::Lock lock(mMutex);
        mPending.add(link, command);
    }
    channel->send(frame);
    return true;
}

void Client::flush() {
    std::vector<std::shared_ptr<FrameChannel>> channels;
    {
        const Base::Lock lock(mMutex);
        for (const auto& [identifier, link] : mLinks)
            channels.push_back(link.channel);
    }
    for (const auto& channel : channels)
        channel->flush();
}

} // namespace VellService
