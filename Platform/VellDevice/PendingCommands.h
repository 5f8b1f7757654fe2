#pragma once

#include "Command.h"
#include "DeviceRecord.h"

#include <list>
#include <string>
#include <unordered_map>

namespace VellService {

// The commands that were sent, so that a response can be given together with the command it answers. Any
// number of responses may answer one command, and some commands are never answered, so a command is kept
// until many others have been used after it. One thread at a time.
class PendingCommands {
public:
    static constexpr std::size_t kMaximum = 4096;

    void add(LinkIdentifier link, Ref<__VellDeviceCommand> command);
    // The command with the ticket, as it was sent to this plug-in; null when it is not known (any more).
    Ref<__VellDeviceCommand> find(LinkIdentifier link, const std::string& ticket);
    void forget(LinkIdentifier link);

private:
    struct Entry {
        LinkIdentifier link;
        Ref<__VellDeviceCommand> command;
    };
    std::list<Entry> mEntries; // the one used last at the end
    std::unordered_map<std::string, std::list<Entry>::iterator> mByTicket;
};

} // namespace VellService
