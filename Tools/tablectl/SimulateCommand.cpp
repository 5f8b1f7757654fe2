// The settings of the virtual instrument, and attaching and detaching one.
#include "Chart.h"
#include "Checks.h"
#include "Context.h"
#include "Errors.h"
#include "HardwareFile.h"

#include <VellDevice/RuntimeFolder.h>

#include <CLI/CLI.hpp>
#include <cctype>
#include <optional>
#include <system_error>

namespace tablectl {

namespace {

struct Changes {
    std::string attach;
    bool detach = false;
    bool press = false;
    std::optional<std::string> serial;
    std::optional<std::string> identifier;
    std::optional<std::string> chart;
    std::optional<std::string> fault;
    std::optional<double> timeScale;
    std::optional<double> noise;
    std::optional<bool> table;
    std::optional<bool> spectrophotometer;
};

// A file name for a device path.
std::filesystem::path fileFor(const std::string& devicePath) {
    std::string name;
    for (const char character : devicePath)
        name += std::isalnum(static_cast<unsigned char>(character)) ? character : '_';
    return std::filesystem::path(VellService::hardwareFolderPath()) / (name + ".plist");
}

HardwareFile attached(const std::string& devicePath) {
    if (const auto problem = VellService::ensureFolder(VellService::hardwareFolderPath()))
        throw DeviceFailure(*problem);
    for (const HardwareFile& file : HardwareFile::all()) {
        if (file.devicePath() == devicePath)
            throw DeviceFailure("already attached: " + devicePath);
    }
    return HardwareFile::make(fileFor(devicePath), devicePath);
}

HardwareFile chosenFile(const Context& context) {
    const std::string& wanted = context.options.device;
    std::vector<HardwareFile> files = HardwareFile::all();
    std::erase_if(files,
                  [&](const HardwareFile& file) { return !wanted.empty() && file.devicePath() != wanted; });
    if (files.empty())
        throw NoDevice((wanted.empty() ? "no" : "no such") + std::string(" virtual instrument in ") +
                       VellService::hardwareFolderPath() + "; `simulate --attach PATH` makes one");
    if (files.size() > 1) {
        std::string paths;
        for (const HardwareFile& file : files)
            paths += " " + file.devicePath();
        throw UsageFailure("several virtual instruments, name one's path with --device:" + paths);
    }
    return std::move(files.front());
}

long presses(const HardwareFile& file) {
    VellObjectRef value =
        VellDictionaryGetValueForKey(file.simulation(), VellConstStringCreateWithCString("Presses"));
    return static_cast<long>(
        VellNumberGetIntegerValue(static_cast<VellNumberRef>(VellCheckedCast(value, "VellNumberRef"))));
}

void apply(const Changes& changes, HardwareFile& file) {
    if (changes.serial)
        file.set("SerialNumber", *changes.serial);
    if (changes.identifier)
        file.set("Identifier", *changes.identifier);
    if (changes.chart)
        file.set("Chart", changes.chart->empty() ? "" : std::filesystem::absolute(*changes.chart).string());
    if (changes.fault)
        file.set("Fault", *changes.fault);
    if (changes.timeScale)
        file.set("TimeScale", *changes.timeScale);
    if (changes.noise)
        file.set("Noise", *changes.noise);
    if (changes.table)
        file.set("Table", *changes.table);
    if (changes.press)
        file.set("Presses", presses(file) + 1);
    if (changes.spectrophotometer)
        file.setSpectrophotometer(*changes.spectrophotometer);
}

void show(Output& output, const HardwareFile& file) {
    TextTable settings = {{"Path", file.devicePath()},
                          {"Spectrophotometer", file.hasSpectrophotometer() ? "on" : "off"}};
    for (int index = 0; index < VellDictionaryGetCount(file.simulation()); ++index) {
        VellStringRef key = VellDictionaryGetKeyAtIndex(file.simulation(), index);
        const tools::Ref<VellStringRef> value(
            VellCopyDescription(VellDictionaryGetValueForKey(file.simulation(), key)));
        settings.emplace_back(tools::textOf(key), tools::textOf(value.get()));
    }
    Json json;
    for (const auto& [key, value] : settings) {
        json.add(key, value);
        if (!output.isJson())
            output.line(key + ": " + value);
    }
    if (output.isJson())
        output.object(json);
}

void detach(const HardwareFile& file) {
    std::error_code error;
    if (!std::filesystem::remove(file.file(), error))
        throw DeviceFailure("cannot remove " + file.file().string() + ": " + error.message());
}

void simulate(Context& context, const Changes& changes) {
    if (changes.chart && !changes.chart->empty())
        readLayout(*changes.chart); // an unreadable one is reported here, not in the plug-in's log
    HardwareFile file = changes.attach.empty() ? chosenFile(context) : attached(changes.attach);
    if (changes.detach) {
        detach(file);
        return;
    }
    apply(changes, file);
    file.save();
    show(context.output, file);
}

} // namespace

void setTimeScale(const std::string& devicePath, double timeScale) {
    for (HardwareFile& file : HardwareFile::all()) {
        if (file.devicePath() == devicePath) {
            file.set("TimeScale", timeScale);
            file.save();
            return;
        }
    }
    throw DeviceFailure("--time-scale: " + devicePath + " is no virtual instrument");
}

void addSimulateCommand(CLI::App& app, Action& chosen) {
    static Changes changes;
    CLI::App& command =
        addCommand(app, chosen, "simulate", "Changes the virtual instrument, and shows its settings",
                   [](Context& context) { simulate(context, changes); });
    CLI::Option* attach =
        command.add_option("--attach", changes.attach, "Attach a new table with this device path")
            ->type_name("PATH");
    command.add_flag("--detach", changes.detach, "Detach the table")->excludes(attach);
    command.add_option("--serial", changes.serial, "Serial number of the table")->type_name("TEXT");
    command.add_option("--identifier", changes.identifier, "What the table calls itself (default: its path)")
        ->type_name("TEXT");
    command.add_option("--chart", changes.chart, "Layout of the chart on the table; \"\" for bare paper")
        ->type_name("FILE");
    command.add_option("--time-scale", changes.timeScale, "1: as slow as the real table, 0: at once")
        ->type_name("F")
        ->check(isNotNegative());
    command.add_option("--noise", changes.noise, "Standard deviation of spectral values")
        ->type_name("F")
        ->check(isNotNegative());
    command
        .add_option("--fault", changes.fault,
                    "CALL:N:STATUS, CALL:N:throw, CALL:N:hang=SECONDS; \"\" for none")
        ->type_name("FAULT");
    command.add_option("--table", changes.table, "off: no table answers")
        ->type_name("on|off")
        ->check(isOnOrOff());
    command.add_option("--spectrophotometer", changes.spectrophotometer, "off: it is lifted off the table")
        ->type_name("on|off")
        ->check(isOnOrOff());
    command.add_flag("--press", changes.press, "Press the button once");
}

} // namespace tablectl
