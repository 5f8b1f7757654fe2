// The settings of the virtual instrument, and attaching and detaching one.
#include "Chart.h"
#include "Commands.h"
#include "Errors.h"
#include "HardwareFile.h"
#include "RecordingFile.h"

#include <VellDevice/RuntimeFolder.h>

#include <cctype>
#include <optional>
#include <system_error>

namespace tablectl {

namespace {

// A new file's name for a device path, like it.
std::filesystem::path fileFor(const std::string& devicePath) {
    std::string name;
    for (const char character : devicePath)
        name += std::isalnum(static_cast<unsigned char>(character)) ? character : '_';
    std::filesystem::path file;
    do {
        file = std::filesystem::path(VellService::hardwareFolderPath()) / (name + ".plist");
        name += '_';
    } while (std::filesystem::exists(file)); // of another path
    return file;
}

HardwareFile attached(const std::string& devicePath) {
    if (const auto problem = VellService::ensureHardwareFolder())
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
    std::erase_if(files, [&](const HardwareFile& file) {
        return !wanted.empty() && file.devicePath() != wanted && file.serialNumber() != wanted;
    });
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

void apply(const SimulationChanges& changes, HardwareFile& file) {
    if (changes.serial)
        file.set("SerialNumber", *changes.serial);
    if (changes.identifier)
        file.set("Identifier", *changes.identifier);
    if (changes.chart)
        file.set("Chart", changes.chart->empty() ? "" : std::filesystem::absolute(*changes.chart).string());
    if (changes.recording)
        file.set("Recording",
                 changes.recording->empty() ? "" : std::filesystem::absolute(*changes.recording).string());
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

} // namespace

void commands::simulate(Context& context, const SimulationChanges& changes) {
    if (changes.chart && !changes.chart->empty())
        checkVirtualChart(*changes.chart); // an unreadable one is reported here, not in the plug-in's log
    if (changes.recording && !changes.recording->empty())
        readRecordingFile(*changes.recording); // the same
    HardwareFile file = changes.attach.empty() ? chosenFile(context) : attached(changes.attach);
    if (changes.detach) {
        detach(file);
        return;
    }
    apply(changes, file);
    file.save();
    show(context.output, file);
}

} // namespace tablectl
