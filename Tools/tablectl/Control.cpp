// Commands that change something or move the head: one device command each, but for `send` and `lock`.
#include "Checks.h"
#include "Context.h"
#include "Errors.h"
#include "Table.h"

#include <CLI/CLI.hpp>
#include <cstdlib>

namespace tablectl {

namespace {

void callOne(Context& context, const Command& command) {
    const Table table = Table::find(context);
    const DeviceLock lock(table);
    table.call(command);
}

void position(Context& context) {
    const std::string text = Table::find(context).call({"GetDevicePosition", {}}).message;
    const std::size_t comma = text.find(',');
    if (comma == std::string::npos)
        throw DeviceFailure("GetDevicePosition: not a position: " + text);
    const std::string x = text.substr(0, comma);
    const std::string y = text.substr(comma + 1);
    if (context.output.isJson())
        context.output.object(
            Json().add("x", std::strtod(x.c_str(), nullptr)).add("y", std::strtod(y.c_str(), nullptr)));
    else
        context.output.line(x + " " + y);
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
long repliesTo(const Command& command) {
    static const std::vector<std::string> kSilent = {"Poll", "poll", "Status", "DieAQuickDeath",
                                                     "__Unproxy__"};
    if (std::find(kSilent.begin(), kSilent.end(), command.name) != kSilent.end())
        return 0;
    long rows = 1;
    for (const auto& [key, value] : command.arguments) {
        if (command.name == "Measure" && key == "RowToScan")
            return 1;
        if (command.name == "Measure" && key == "Rows")
            rows = std::strtol(value.c_str(), nullptr, 10);
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

// The command as it is, without a lock and without a second try.
void send(Context& context, const std::string& name, const std::vector<std::string>& arguments) {
    const Command command = commandOf(name, arguments);
    const Table table = Table::find(context);
    Exchange exchange = table.send(command);
    for (long awaited = repliesTo(command); awaited > 0; --awaited) {
        const Reply reply = *exchange.next();
        showReply(context.output, command, reply);
        table.check(command, reply);
    }
}

void holdLock(Context& context, double seconds) {
    const Table table = Table::find(context);
    const DeviceLock lock(table);
    context.session.sleep(Session::Seconds(seconds));
}

} // namespace

void addControlCommands(CLI::App& app, Action& chosen) {
    static std::string key;
    static std::string value;
    CLI::App& set = addCommand(app, chosen, "set", "Sets an option of the instrument", [](Context& context) {
        callOne(context, {"SetAttribute", {{"key", key}, {"value", value}}});
    });
    set.add_option("KEY", key, "The option, or LowResolutionScan")->type_name("")->required();
    set.add_option("VALUE", value, "Its new value")->type_name("")->required();

    static std::string mode;
    addCommand(app, chosen, "mode", "Sets the measurement mode",
               [](Context& context) {
                   callOne(context, {"SetMode", {{"Mode", mode}}});
               })
        .add_option("NAME", mode, "ScanningReflectance or SingleReflectance")
        ->type_name("")
        ->required();

    addCommand(app, chosen, "calibrate", "Calibrates on the white tile", [](Context& context) {
        callOne(context, {"Calibrate", {}});
    });

    static std::string x;
    static std::string y;
    CLI::App& move = addCommand(app, chosen, "move", "Moves the head", [](Context& context) {
        callOne(context, {"SetDevicePosition", {{"x", x}, {"y", y}}});
    });
    move.add_option("X", x, "Table coordinates")->type_name("")->required()->check(isNumber());
    move.add_option("Y", y)->type_name("")->required()->check(isNumber());

    addCommand(app, chosen, "position", "Prints where the head is", position);
    addCommand(app, chosen, "home", "Sends the head home", [](Context& context) {
        callOne(context, {"GoHome", {}});
    });
    // Neither waits for a lock: both are what is left when something hangs.
    addCommand(app, chosen, "cancel", "Cancels the running measurement", [](Context& context) {
        Table::find(context).call({"CancelMeasure", {}});
    });
    addCommand(app, chosen, "reset", "Ends whatever the device does and sends the head home",
               [](Context& context) {
                   Table::find(context).call({"__RESET__", {}});
               });

    static std::string name;
    static std::vector<std::string> arguments;
    CLI::App& sendCommand =
        addCommand(app, chosen, "send", "Sends any command and shows what the device answers",
                   [](Context& context) { send(context, name, arguments); });
    sendCommand.add_option("COMMAND", name, "Its name, as `commands` lists it")->type_name("")->required();
    sendCommand.add_option("KEY=VALUE", arguments, "Its arguments")->type_name("");

    static double seconds = 0;
    addCommand(app, chosen, "lock", "Holds the device lock for a while",
               [](Context& context) { holdLock(context, seconds); })
        .add_option("SECONDS", seconds, "For how long")
        ->type_name("")
        ->required()
        ->check(isNotNegative());
}

} // namespace tablectl
