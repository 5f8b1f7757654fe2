// Commands that change something or move the head: one device command each, but for `send` and `lock`.
#include "Commands.h"
#include "Errors.h"
#include "Table.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>

namespace tablectl {

namespace {

void callOne(Context& context, const Command& command) {
    const Table table = Table::find(context);
    const DeviceLock lock(table);
    table.call(command);
}

std::string colorText(const ColorValues& color) {
    std::string text = "  " + color.colorSpace;
    for (const auto& [key, value] : color.attributes)
        text += " " + key + "=" + value;
    text += ":";
    for (const double value : color.values)
        text += " " + numberText(value);
    return text;
}

std::string colorJson(const ColorValues& color) {
    std::vector<std::string> values;
    for (const double value : color.values)
        values.push_back(numberText(value));
    Json attributes;
    for (const auto& [key, value] : color.attributes)
        attributes.add(key, value);
    return Json()
        .add("ColorSpace", color.colorSpace)
        .addRaw("Values", "[" + join(values, ",") + "]")
        .addRaw("Attributes", attributes.text())
        .text();
}

void showReply(Output& output, const Command& command, const Reply& reply) {
    if (output.isJson()) {
        std::vector<std::string> colors;
        for (const Measurement& measurement : reply.measurements) {
            for (const ColorValues& color : measurement.colors)
                colors.push_back(colorJson(color));
        }
        output.object(Json()
                          .add("command", command.name)
                          .add("code", reply.code)
                          .add("message", reply.message)
                          .add("dataBytes", static_cast<long>(reply.data.size()))
                          .addRaw("colors", "[" + join(colors, ",") + "]"));
        return;
    }
    output.line(command.name + ": " + std::to_string(reply.code) +
                (reply.message.empty() ? "" : ": " + reply.message));
    if (!reply.data.empty())
        output.line("  " + std::to_string(reply.data.size()) + " bytes of data");
    for (const Measurement& measurement : reply.measurements) {
        for (const ColorValues& color : measurement.colors)
            output.line(colorText(color));
    }
}

// How many replies the device owes: a chart scan gives one for each row.
long repliesTo(const Command& command, const std::string& mode) {
    static const std::vector<std::string> kSilent = {"Poll", "poll", "Status", "DieAQuickDeath",
                                                     "__Unproxy__"};
    if (std::find(kSilent.begin(), kSilent.end(), command.name) != kSilent.end())
        return 0;
    if (command.name != "Measure" || mode != "ScanningReflectance")
        return 1;
    long rows = 1;
    for (const auto& [key, value] : command.arguments) {
        const long number = std::strtol(value.c_str(), nullptr, 10);
        // The device does not look at the case of a key, either.
        if (strcasecmp(key.c_str(), "RowToScan") == 0 && !value.empty() && number != -1)
            return 1;
        if (strcasecmp(key.c_str(), "Rows") == 0)
            rows = number;
    }
    return std::max(rows, 1L);
}

Command commandOf(const std::string& name, const std::vector<std::string>& arguments) {
    Command command{name, {}};
    for (const std::string& argument : arguments) {
        const std::size_t equals = argument.find('=');
        if (equals == std::string::npos || equals == 0)
            throw UsageFailure("send: not KEY=VALUE: " + argument);
        command.arguments.emplace_back(argument.substr(0, equals), argument.substr(equals + 1));
    }
    return command;
}

} // namespace

namespace commands {

void set(Context& context, const std::string& key, const std::string& value) {
    callOne(context, {"SetAttribute", {{"key", key}, {"value", value}}});
}

void mode(Context& context, const std::string& name) {
    callOne(context, {"SetMode", {{"Mode", name}}});
}

void calibrate(Context& context) {
    callOne(context, {"Calibrate", {}});
}

void move(Context& context, const std::string& x, const std::string& y) {
    callOne(context, {"SetDevicePosition", {{"x", x}, {"y", y}}});
}

void position(Context& context) {
    const Color::Point place = positionOf(Table::find(context));
    if (context.output.isJson())
        context.output.object(Json().add("x", place.x).add("y", place.y));
    else
        context.output.line(std::to_string(place.x) + " " + std::to_string(place.y));
}

void home(Context& context) {
    callOne(context, {"GoHome", {}});
}

// Neither of these two takes the lock: both are what is left when something hangs.
void cancel(Context& context) {
    Table::find(context).call({"CancelMeasure", {}});
}

void reset(Context& context) {
    Table::find(context).call({"__RESET__", {}});
}

// The command as it is, without a lock and without a second try.
void send(Context& context, const std::string& name, const std::vector<std::string>& arguments) {
    const Command command = commandOf(name, arguments);
    const Table table = Table::find(context);
    long awaited = repliesTo(command, table.status().mode);
    Exchange exchange = table.send(command);
    try {
        for (; awaited > 0; --awaited) {
            const Reply reply = *exchange.next();
            showReply(context.output, command, reply);
            table.check(command, reply);
        }
    } catch (const Interrupted&) {
        if (command.name == "Measure")
            cancelAfterInterruption(table);
        throw;
    }
}

void lock(Context& context, double seconds) {
    const Table table = Table::find(context);
    const DeviceLock lock(table);
    context.session.sleep(Session::Seconds(seconds));
}

} // namespace commands

} // namespace tablectl
