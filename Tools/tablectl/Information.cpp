// Commands that only look: list, status, commands, get.
#include "Commands.h"
#include "Errors.h"
#include "Records.h"
#include "Table.h"
#include "Terminal.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace tablectl {

namespace {

Json tableJson(const TextTable& table) {
    Json json;
    for (const auto& [key, value] : table)
        json.add(key, value);
    return json;
}

Json statusJson(const DeviceStatus& status) {
    Json json = tableJson(status.fields());
    return json.addRaw("Attributes", tableJson(status.attributes).text());
}

// Values stand below each other, unless that leaves too little of a narrow terminal for them.
std::vector<std::string> statusLines(const DeviceStatus& status) {
    constexpr int kRoomForValues = 30;
    TextTable table = status.fields();
    std::copy_if(status.attributes.begin(), status.attributes.end(), std::back_inserter(table),
                 [&](const auto& attribute) {
                     return std::find(table.begin(), table.end(), attribute) == table.end();
                 });
    std::size_t column = 0;
    for (const auto& [key, value] : table)
        column = std::max(column, key.size() + 2);
    if (isTerminal(Stream::output) &&
        static_cast<int>(column) + kRoomForValues > terminalWidth(Stream::output))
        column = 0;
    std::vector<std::string> lines;
    for (const auto& [key, value] : table) {
        std::string line = key + ": ";
        line.resize(std::max(column, line.size()), ' ');
        lines.push_back(line + value);
    }
    return lines;
}

void showStatus(Context& context, const DeviceStatus& status) {
    if (context.output.isJson())
        context.output.object(statusJson(status));
    else
        context.output.write(join(statusLines(status), "\n") + "\n");
}

// Until it is interrupted or the device goes: redrawn in place on a terminal, else one block after another.
void watchStatus(Context& context, const Table& table) {
    Repaint screen(context.output);
    unsigned revision = 0;
    bool isFirst = true;
    for (;;) {
        revision = context.session.revision(table.path());
        const DeviceStatus status = table.status();
        if (isTerminal(Stream::output) && !context.output.isJson()) {
            screen.show(statusLines(status));
        } else {
            if (!isFirst && !context.output.isJson())
                context.output.line("");
            showStatus(context, status);
        }
        isFirst = false;
        while (!context.session.waitForNewStatus(table.path(), revision, Session::Seconds(60)))
            table.status(); // says when it is gone
    }
}

// An attribute of the record or, when there is none of that name, a field.
std::string valueIn(const DeviceStatus& status, const std::string& key) {
    const TextTable fields = status.fields();
    for (const TextTable* table : {&status.attributes, &fields}) {
        for (const auto& [name, value] : *table) {
            if (name == key)
                return value;
        }
    }
    throw DeviceFailure("no such attribute: " + key);
}

} // namespace

namespace commands {

void list(Context& context) {
    const std::vector<DeviceStatus> devices = chosenDevices(context);
    if (devices.empty())
        std::fprintf(stderr, "tablectl: %s\n", noDeviceText().c_str());
    for (const DeviceStatus& status : devices) {
        if (context.output.isJson()) {
            context.output.object(tableJson(status.fields()));
            continue;
        }
        const std::string lock = status.lockHolder.empty() ? "" : ", locked by " + status.lockHolder;
        context.output.line(status.path + "  " + status.displayName + "  " +
                            (status.serialNumber.empty() ? "no spectrophotometer"
                                                         : status.serialNumber + "  " + status.mode) +
                            "  " + calibrationText(status.calibrationStatus) + lock);
    }
}

void status(Context& context, bool watch) {
    const Table table = Table::find(context);
    if (watch)
        watchStatus(context, table);
    else
        showStatus(context, table.refreshedStatus());
}

void commands(Context& context) {
    const Table table = Table::find(context);
    for (const auto& [name, arguments] : decodeCommandTable(table.call({"GetCommands", {}}).data)) {
        if (context.output.isJson()) {
            std::vector<std::string> quoted;
            for (const std::string& argument : arguments)
                quoted.push_back(Json::quote(argument));
            context.output.object(
                Json().add("command", name).addRaw("arguments", "[" + join(quoted, ",") + "]"));
        } else {
            context.output.line(arguments.empty() ? name : name + "  " + join(arguments, " "));
        }
    }
}

// One value by itself, for scripts; several with their keys.
void get(Context& context, const std::vector<std::string>& keys) {
    const DeviceStatus status = Table::find(context).refreshedStatus();
    TextTable values;
    for (const std::string& key : keys)
        values.emplace_back(key, valueIn(status, key));
    if (context.output.isJson()) {
        context.output.object(tableJson(values));
        return;
    }
    for (const auto& [key, value] : values)
        context.output.line(keys.size() == 1 ? value : key + "=" + value);
}

} // namespace commands

} // namespace tablectl
