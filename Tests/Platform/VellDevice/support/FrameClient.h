#pragma once

#include "RuntimeFolderFixture.h"

#include <Base/FileDescriptor.h>
#include <VellDevice/VellDevice.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace VellTest {

struct ReleaseObject {
    void operator()(void* object) const { VellRelease(object); }
};
using Owned = std::unique_ptr<void, ReleaseObject>;

inline VellStringRef constant(const char* text) {
    return VellConstStringCreateWithCString(text);
}

// A dictionary of a received message, for reading. Missing keys read as "", 0 or an empty dictionary.
class Dictionary {
public:
    Dictionary() : mObject(VellDictionaryCreate(), VellRelease) {}
    explicit Dictionary(VellObjectRef object) : mObject(VellRetain(object), VellRelease) {}

    bool has(const char* key) const { return value(key) != nullptr; }
    std::string text(const char* key) const {
        const auto string = static_cast<VellStringRef>(typed(key, "VellStringRef"));
        return string ? VellStringGetCString(string) : "";
    }
    std::int64_t integer(const char* key) const {
        return VellNumberGetIntegerValue(static_cast<VellNumberRef>(typed(key, "VellNumberRef")));
    }
    std::string data(const char* key) const {
        const auto bytes = static_cast<VellDataRef>(typed(key, "VellDataRef"));
        return bytes ? std::string(static_cast<const char*>(VellDataGetBytes(bytes)),
                                   static_cast<std::size_t>(VellDataGetLength(bytes)))
                     : std::string();
    }
    Dictionary dictionary(const char* key) const {
        VellObjectRef object = typed(key, "VellDictionaryRef");
        return object ? Dictionary(object) : Dictionary();
    }
    // Null when there is none; lent.
    VellArrayRef array(const char* key) const {
        return static_cast<VellArrayRef>(typed(key, "VellArrayRef"));
    }
    VellDictionaryRef reference() const { return static_cast<VellDictionaryRef>(mObject.get()); }

private:
    VellObjectRef value(const char* key) const {
        return VellDictionaryGetValueForKey(reference(), VellConstStringCreateWithCString(key));
    }
    VellObjectRef typed(const char* key, std::string_view type) const {
        VellObjectRef object = value(key);
        return object && VellTypeName(object) == type ? object : nullptr;
    }
    std::shared_ptr<void> mObject;
};

using Arguments = std::vector<std::pair<std::string, std::string>>;

// A client that speaks the transport itself, byte by byte where a test wants it to. While it waits for a
// frame it can make passes of the center's loop, for a plug-in that lives in the same thread.
class FrameClient {
public:
    // Throws when nobody answers.
    explicit FrameClient(const std::string& socketPath)
        : mSocket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
        if (connect(mSocket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("cannot connect to " + socketPath + ": " + std::strerror(errno));
    }

    int descriptor() const { return mSocket.get(); }
    void close() { mSocket.reset(); }

    static std::string frame(std::string_view payload) {
        std::string bytes;
        for (const int shift : {24, 16, 8, 0})
            bytes += static_cast<char>(payload.size() >> shift & 0xff);
        return bytes.append(payload);
    }
    static std::string command(const std::string& name, const std::string& ticket,
                               const Arguments& arguments = {}, const std::string& device = "",
                               const std::string& path = "") {
        const Owned root(VellDictionaryCreate());
        const Owned table(VellDictionaryCreate());
        set(root.get(), "Type", "Command");
        set(root.get(), "Name", name);
        set(root.get(), "Ticket", ticket);
        set(root.get(), "Device", device);
        set(root.get(), "DevicePath", path);
        for (const auto& [key, value] : arguments)
            set(table.get(), key, value);
        VellDictionarySetValueForKey(static_cast<VellDictionaryRef>(root.get()),
                                     VellConstStringCreateWithCString("Arguments"), table.get());
        return frame(encoded(root.get()));
    }
    static std::string encoded(VellObjectRef object) {
        const Owned data(VellCoderCopyEncodedDataWithRootObject(object));
        const auto bytes = static_cast<VellDataRef>(data.get());
        return {static_cast<const char*>(VellDataGetBytes(bytes)),
                static_cast<std::size_t>(VellDataGetLength(bytes))};
    }

    // Sends the bytes; makes passes while the other side does not take them. False when it hung up.
    bool send(std::string_view bytes, bool withPasses = true) {
        while (!bytes.empty()) {
            const ssize_t sent =
                ::send(mSocket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent >= 0)
                bytes.remove_prefix(static_cast<std::size_t>(sent));
            else if (errno != EAGAIN)
                return false;
            else if (withPasses)
                runSomePasses(1);
            else
                poll(nullptr, 0, 1);
        }
        return true;
    }
    bool sendCommand(const std::string& name, const std::string& ticket, const Arguments& arguments = {}) {
        return send(command(name, ticket, arguments));
    }

    // The next frame's dictionary; nothing when the other side hung up or the time is over.
    std::optional<Dictionary> receive(std::chrono::milliseconds limit = std::chrono::seconds(10),
                                      bool withPasses = true) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            if (auto payload = takeFrame())
                return decoded(*payload);
            const bool more = readSome();
            if (more)
                continue;
            if (mAtEnd || std::chrono::steady_clock::now() >= deadline)
                return std::nullopt;
            if (withPasses)
                runSomePasses(1);
            poll(nullptr, 0, 1);
        }
    }
    // The next frame of this type; others before it are skipped.
    std::optional<Dictionary> receiveType(const std::string& type,
                                          std::chrono::milliseconds limit = std::chrono::seconds(10),
                                          bool withPasses = true) {
        while (auto message = receive(limit, withPasses)) {
            if (message->text("Type") == type)
                return message;
        }
        return std::nullopt;
    }
    // The other side has closed the connection.
    bool isHungUp(std::chrono::milliseconds limit = std::chrono::seconds(10), bool withPasses = true) {
        while (receive(limit, withPasses)) {
        }
        return mAtEnd;
    }

private:
    static void set(VellObjectRef dictionary, const std::string& key, const std::string& value) {
        const Owned keyString(VellStringCreateWithCString(key.c_str()));
        const Owned valueString(VellStringCreateWithCString(value.c_str()));
        VellDictionarySetValueForKey(static_cast<VellDictionaryRef>(dictionary),
                                     static_cast<VellStringRef>(keyString.get()), valueString.get());
    }
    static Dictionary decoded(std::string_view payload) {
        const Owned data(VellDataCreateWithBytes(payload.data(), static_cast<int>(payload.size())));
        const Owned object(VellCoderCopyRootObjectWithEncodedData(static_cast<VellDataRef>(data.get())));
        return object ? Dictionary(object.get()) : Dictionary();
    }
    bool readSome() {
        char buffer[64 * 1024];
        const ssize_t count = recv(mSocket.get(), buffer, sizeof buffer, MSG_DONTWAIT);
        if (count > 0)
            mBytes.append(buffer, static_cast<std::size_t>(count));
        else
            mAtEnd = count == 0 || errno != EAGAIN;
        return count > 0;
    }
    std::optional<std::string> takeFrame() {
        if (mBytes.size() < 4)
            return std::nullopt;
        std::size_t length = 0;
        for (std::size_t i = 0; i < 4; ++i)
            length = length << 8 | static_cast<unsigned char>(mBytes[i]);
        if (mBytes.size() < 4 + length)
            return std::nullopt;
        std::string payload = mBytes.substr(4, length);
        mBytes.erase(0, 4 + length);
        return payload;
    }

    Base::FileDescriptor mSocket;
    std::string mBytes;
    bool mAtEnd = false;
};

} // namespace VellTest
