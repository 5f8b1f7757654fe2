#include "PendingCommands.h"

namespace VellService {
namespace {

const std::string& ticketOf(const __VellDeviceCommand& command) {
    return textOf(command.receipt->ticket.get());
}

} // namespace

void PendingCommands::add(LinkIdentifier link, Ref<__VellDeviceCommand> command) {
    const std::string ticket = ticketOf(*command);
    mEntries.push_back({link, std::move(command)});
    mByTicket[ticket] = std::prev(mEntries.end());
    if (mEntries.size() > kMaximum) {
        mByTicket.erase(ticketOf(*mEntries.front().command));
        mEntries.pop_front();
    }
}

Ref<__VellDeviceCommand> PendingCommands::find(LinkIdentifier link, const std::string& ticket) {
    const auto found = mByTicket.find(ticket);
    if (found == mByTicket.end() || found->second->link != link)
        return {};
    mEntries.splice(mEntries.end(), mEntries, found->second);
    return found->second->command;
}

void PendingCommands::forget(LinkIdentifier link) {
    for (auto entry = mEntries.begin(); entry != mEntries.end();) {
        if (entry->link == link) {
            mByTicket.erase(ticketOf(*entry->command));
            entry = mEntries.erase(entry);
        } else {
            ++entry;
        }
    }
}

} // namespace VellService
