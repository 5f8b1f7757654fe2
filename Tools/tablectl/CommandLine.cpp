// The grammar of the command line: the only file that knows the parser's library, which takes long to
// compile.
#include "CommandLine.h"

#include "Commands.h"
#include "Output.h"

#include <Base/Number.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <stdexcept>
#include <string_view>

namespace tablectl {

namespace {

// The whole text as a number; NaN when it is none.
double numberIn(const std::string& text) {
    return Base::parseNumber<double>(text).value_or(std::nan(""));
}

// A check of an option's value that says in words what is wrong with it.
CLI::Validator makeCheck(bool (*isRight)(const std::string&), const std::string& problem) {
    return {[=](const std::string& text) { return isRight(text) ? std::string() : problem + ": " + text; },
            ""};
}

const CLI::Validator kNumber =
    makeCheck([](const std::string& text) { return !std::isnan(numberIn(text)); }, "not a number");

const CLI::Validator kNotNegative =
    makeCheck([](const std::string& text) { return std::isfinite(numberIn(text)) && numberIn(text) >= 0; },
              "not a number of 0 or more");

const CLI::Validator kCount = makeCheck(
    [](const std::string& text) {
        const double number = numberIn(text);
        return number >= 1 && number <= 1e6 && number == std::floor(number);
    },
    "not a whole number above 0");

const CLI::Validator kOnOrOff =
    makeCheck([](const std::string& text) { return text == "on" || text == "off"; }, "neither on nor off");

// CALL:N:EFFECT by its form; which calls there are the instrument knows.
bool isFault(const std::string& text) {
    const std::size_t first = text.find(':');
    const std::size_t second = text.find(':', first + 1);
    if (first == text.npos || second == text.npos)
        return text.empty(); // none
    const double occurrence = numberIn(text.substr(first + 1, second - first - 1));
    const std::string effect = text.substr(second + 1);
    const bool hangs = effect.starts_with("hang=") && numberIn(effect.substr(5)) >= 0;
    const bool hasStatus = numberIn(effect) == std::floor(numberIn(effect));
    return occurrence >= 1 && occurrence == std::floor(occurrence) &&
           (effect == "throw" || hangs || hasStatus);
}

const CLI::Validator kFault = makeCheck(isFault, "not CALL:N:STATUS, CALL:N:throw or CALL:N:hang=SECONDS");

// Under what heading the help lists a command.
std::string groupOf(const std::string& command) {
    static const std::map<std::string, std::vector<std::string>> kGroups = {
        {"Look", {"list", "status", "commands", "get", "position"}},
        {"Set", {"set", "mode", "send", "lock"}},
        {"Move", {"move", "home", "cancel", "reset", "align"}},
        {"Measure", {"calibrate", "scan", "spot"}},
        {"Files", {"average", "compare", "report", "convert", "recording"}},
        {"Virtual instrument", {"simulate"}}};
    for (const auto& [group, commands] : kGroups) {
        if (std::find(commands.begin(), commands.end(), command) != commands.end())
            return group;
    }
    throw std::logic_error("no heading for " + command);
}

// The parser, and where it puts what it finds. What a command line gives for a command lives as long as the
// command, which holds it.
class Grammar {
public:
    explicit Grammar(CommandLine& line) : mLine(line) {
        mApp.set_version_flag("--version", "tablectl " TOOLS_VERSION);
        mApp.require_subcommand(1);
        mApp.fallthrough();
        mApp.get_formatter()->column_width(34);
        mApp.get_formatter()->label("SUBCOMMAND", "COMMAND");
        addOptions();
        addInformation();
        addControl();
        addScan();
        addPlaces();
        addFiles();
        addSimulate();
        addRecording();
    }

    CLI::App& app() { return mApp; }

private:
    template <class Action>
    CLI::App& add(const std::string& name, const std::string& description, Action action) {
        CLI::App* command = mApp.add_subcommand(name, description)->group(groupOf(name));
        command->callback([this, action] { mLine.command = action; });
        return *command;
    }

    void addOptions();
    void addInformation();
    void addControl();
    void addScan();
    void addPlaces();
    void addFiles();
    void addTimeScale(CLI::App& command);
    void addPlacement(CLI::App& command, PlacementRequest& placement);
    void addSimulate();
    void addRecording();

    CommandLine& mLine;
    CLI::App mApp{
        "Drives a scanning table with a spectrophotometer.\n"
        "Exit status: 0 done, 1 the device refused or failed, 2 usage or an unreadable layout, 3 no such "
        "device,\n128 + N ended by signal N.",
        "tablectl"};
};

void Grammar::addOptions() {
    Options& options = mLine.options;
    mApp.add_option("--runtime-dir", mLine.runtimeFolder, "Where the plug-ins' sockets are")
        ->type_name("DIR")
        ->envname("VELL_RUNTIME_DIR");
    mApp.add_option("--device", options.device, "Path, name or serial number, when there are several")
        ->type_name("NAME");
    mApp.add_flag("--json", options.json, "One JSON object per line on standard output");
    mApp.add_option("--simulated", options.simulated, "Use a virtual table of its own, with this chart on it")
        ->type_name("LAYOUT");
    mApp.add_option("--replayed", options.replayed,
                    "The same, with a recording that is played back in the virtual table's place")
        ->type_name("FILE")
        ->excludes("--simulated");
    mApp.add_option("--noise", options.noise, "Of the --simulated table's readings (standard deviation)")
        ->type_name("F")
        ->check(kNotNegative);
    mApp.add_option("--record", options.record,
                    "Record what passes between the plug-in and the --simulated table")
        ->type_name("FILE");
}

void Grammar::addInformation() {
    add("list", "Lists the devices that are there", commands::list);

    const auto watch = std::make_shared<bool>(false);
    add("status", "Shows the device's record", [watch](Context& context) {
        commands::status(context, *watch);
    }).add_flag("--watch", *watch, "Go on showing it as it changes");

    add("commands", "Lists the commands that the device takes", commands::commands);

    const auto keys = std::make_shared<std::vector<std::string>>();
    add("get", "Prints attributes of the record", [keys](Context& context) { commands::get(context, *keys); })
        .add_option("KEY", *keys, "Names of attributes or fields, as `status` shows them")
        ->type_name("")
        ->required();
}

void Grammar::addControl() {
    using Pair = std::pair<std::string, std::string>;

    const auto option = std::make_shared<Pair>();
    CLI::App& set = add("set", "Sets an option of the instrument", [option](Context& context) {
        commands::set(context, option->first, option->second);
    });
    set.add_option("KEY", option->first, "The option, or LowResolutionScan")->type_name("")->required();
    set.add_option("VALUE", option->second, "Its new value")->type_name("")->required();

    const auto mode = std::make_shared<std::string>();
    add("mode", "Sets the measurement mode", [mode](Context& context) { commands::mode(context, *mode); })
        .add_option("NAME", *mode, "ScanningReflectance or SingleReflectance")
        ->type_name("")
        ->required();

    add("calibrate", "Calibrates on the white tile", commands::calibrate);

    const auto place = std::make_shared<Pair>();
    CLI::App& move = add("move", "Moves the head",
                         [place](Context& context) { commands::move(context, place->first, place->second); });
    move.add_option("X", place->first, "Table coordinates")->type_name("")->required()->check(kNumber);
    move.add_option("Y", place->second)->type_name("")->required()->check(kNumber);

    add("position", "Prints where the head is", commands::position);
    add("home", "Sends the head home", commands::home);
    add("cancel", "Cancels the running measurement, unless another client has locked the device",
        commands::cancel);
    add("reset", "Ends whatever the device does and sends the head home, with the same exception",
        commands::reset);

    const auto name = std::make_shared<std::string>();
    const auto arguments = std::make_shared<std::vector<std::string>>();
    CLI::App& send = add("send", "Sends any command and shows what the device answers",
                         [name, arguments](Context& context) { commands::send(context, *name, *arguments); });
    send.add_option("COMMAND", *name, "Its name, as `commands` lists it")->type_name("")->required();
    send.add_option("KEY=VALUE", *arguments, "Its arguments")->type_name("");

    const auto seconds = std::make_shared<double>();
    add("lock", "Holds the device lock for a while",
        [seconds](Context& context) { commands::lock(context, *seconds); })
        .add_option("SECONDS", *seconds, "For how long")
        ->type_name("")
        ->required()
        ->check(kNotNegative);
}

void Grammar::addScan() {
    const auto request = std::make_shared<ScanRequest>();
    CLI::App& scan =
        add("scan", "Measures a chart", [request](Context& context) { commands::scan(context, *request); });
    scan.add_option("LAYOUT", request->layoutFile, "The chart's layout file, or a target without a place")
        ->type_name("")
        ->required();
    addPlacement(scan, request->placement);
    scan.add_option("--output", request->outputFile, "Measurement file (default: standard output)")
        ->type_name("FILE");
    CLI::Option* resume = scan.add_option("--resume", request->resumeFile,
                                          "Go on with the interrupted measurement in this file")
                              ->type_name("FILE")
                              ->excludes("--output");
    scan.add_option("--repeat", request->repeat, "Measure N times, for the mean of all readings")
        ->type_name("N")
        ->check(kCount)
        ->excludes(resume);
    scan.add_flag("--xyz", request->xyz, "Columns of tristimulus values beside CIELAB");
    scan.add_option("--report", request->reportFile, "A page that shows measured beside reference")
        ->type_name("FILE");
    scan.add_option("--rows", request->rows, "Only rows A-B, counted from 0, one by one")->type_name("A-B");
    scan.add_option("--spot", request->spotReadings,
                    "Read each patch N times at spots (5 at most) instead of strips")
        ->type_name("N")
        ->check(kCount);
    scan.add_flag("--low-resolution", request->lowResolution, "Recognise patches that differ clearly only");
    scan.add_flag("--strict", request->strict, "End when the first row has the colours of another place");
    scan.add_flag("--no-picture", request->noPicture, "Do not draw the chart on a terminal as it fills");
    addTimeScale(scan);
}

void Grammar::addTimeScale(CLI::App& command) {
    command
        .add_option("--time-scale", mLine.options.timeScale,
                    "Of the virtual instrument: 1 as the real table, 0 at once")
        ->type_name("F")
        ->check(kNotNegative);
}

// Where a target lies whose file does not say so.
void Grammar::addPlacement(CLI::App& command, PlacementRequest& placement) {
    CLI::Option* grid =
        command.add_option("--grid", placement.grid, "The chart's cells; LAST: those of a short last row")
            ->type_name("ROWSxCOLUMNS[+LAST]");
    CLI::Option* corners = command
                               .add_option("--corners", placement.corners,
                                           "Centres of the patches top left, bottom left, bottom right")
                               ->type_name("X,Y X,Y X,Y")
                               ->expected(3);
    command.add_option("--placement", placement.file, "A file that says both, as `align` writes it")
        ->type_name("FILE")
        ->excludes(grid)
        ->excludes(corners);
}

// Those about places on the table that a chart's layout does not know.
void Grammar::addPlaces() {
    struct Spot {
        Color::Point place;
        int count = 1;
    };
    const auto spot = std::make_shared<Spot>();
    CLI::App& spotCommand = add("spot", "Reads the colour of one place", [spot](Context& context) {
        commands::spot(context, spot->place, spot->count);
    });
    spotCommand.add_option("X", spot->place.x, "Table coordinates")
        ->type_name("")
        ->required()
        ->check(kNumber);
    spotCommand.add_option("Y", spot->place.y)->type_name("")->required()->check(kNumber);
    spotCommand.add_option("--count", spot->count, "Read it N times")->type_name("N")->check(kCount);
    addTimeScale(spotCommand);

    const auto request = std::make_shared<AlignRequest>();
    CLI::App& align = add("align", "Finds out where a chart lies: arrow keys set the visor on its corners",
                          [request](Context& context) { commands::align(context, *request); });
    align.add_option("TARGET", request->targetFile, "The chart's layout file, or a target without a place")
        ->type_name("")
        ->required();
    addPlacement(align, request->placement);
    align
        .add_option("--output", request->outputFile,
                    "The placement, for scan --placement (default: standard output)")
        ->type_name("FILE");
    addTimeScale(align);
}

// Those that take measurement files and need no device.
void Grammar::addFiles() {
    const auto take = [](CLI::App& command, const std::string& name, std::string& file,
                         const std::string& text) {
        command.add_option(name, file, text)->type_name(name.starts_with("--") ? "FILE" : "")->required();
    };
    struct Average {
        std::vector<std::string> files;
        std::string output;
    };
    const auto average = std::make_shared<Average>();
    CLI::App& averageCommand =
        add("average", "Writes the mean of several measurements of one chart",
            [average](Context& context) { commands::average(context, average->files, average->output); });
    averageCommand.add_option("FILE", average->files, "The measurements")->type_name("")->required();
    take(averageCommand, "--output", average->output, "Their mean: one line for each patch");

    const auto comparison = std::make_shared<CompareRequest>();
    CLI::App& compare = add("compare", "Tells by how much two measurements differ (CIEDE2000)",
                            [comparison](Context& context) { commands::compare(context, *comparison); });
    take(compare, "A", comparison->first, "A measurement, or any file with CIELAB or spectra");
    take(compare, "B", comparison->second, "Another one; patches of one SAMPLE_ID are compared");
    compare.add_option("--limit", comparison->limit, "Exit status 1 when mean or maximum are greater")
        ->type_name("MEAN,MAX");
    compare.add_option("--report", comparison->reportFile, "A page that shows B beside A")->type_name("FILE");

    struct Files {
        std::string measurement;
        std::string reference;
        std::string output;
    };
    const auto report = std::make_shared<Files>();
    CLI::App& reportCommand = add("report", "Makes the page of a measurement", [report](Context& context) {
        commands::report(context, report->measurement, report->reference, report->output);
    });
    take(reportCommand, "MEASUREMENT", report->measurement, "The measurement");
    reportCommand
        .add_option("--reference", report->reference, "The layout whose spectra it is compared with")
        ->type_name("FILE");
    take(reportCommand, "--output", report->output, "The page");

    const auto conversion = std::make_shared<Files>();
    CLI::App& convert =
        add("convert", "Writes a measurement in another form", [conversion](Context& context) {
            commands::convert(context, conversion->measurement, conversion->output);
        });
    take(convert, "MEASUREMENT", conversion->measurement, "The measurement");
    take(convert, "--output", conversion->output, "A name that ends in .cxf (CxF3), .csv or .txt (CGATS)");
}

void Grammar::addSimulate() {
    const auto changes = std::make_shared<SimulationChanges>();
    CLI::App& simulate = add("simulate", "Changes the virtual instrument, and shows its settings",
                             [changes](Context& context) { commands::simulate(context, *changes); });
    CLI::Option* attach =
        simulate.add_option("--attach", changes->attach, "Attach a new table with this device path")
            ->type_name("PATH");
    simulate.add_flag("--detach", changes->detach, "Detach the table")->excludes(attach);
    simulate.add_option("--serial", changes->serial, "Serial number of the table")->type_name("TEXT");
    simulate
        .add_option("--identifier", changes->identifier, "What the table calls itself (default: its path)")
        ->type_name("TEXT");
    simulate.add_option("--chart", changes->chart, "Layout of the chart on the table; \"\" for bare paper")
        ->type_name("FILE");
    simulate
        .add_option("--recording", changes->recording, "Recording to be played back, in the chart's place")
        ->type_name("FILE");
    simulate.add_option("--time-scale", changes->timeScale, "1: as slow as the real table, 0: at once")
        ->type_name("F")
        ->check(kNotNegative);
    simulate.add_option("--noise", changes->noise, "Standard deviation of spectral values")
        ->type_name("F")
        ->check(kNotNegative);
    simulate
        .add_option("--fault", changes->fault,
                    "CALL:N:STATUS, CALL:N:throw, CALL:N:hang=SECONDS; \"\" for none")
        ->type_name("FAULT")
        ->check(kFault);
    simulate.add_option("--table", changes->table, "off: no table answers")
        ->type_name("on|off")
        ->check(kOnOrOff);
    simulate.add_option("--spectrophotometer", changes->spectrophotometer, "off: it is lifted off the table")
        ->type_name("on|off")
        ->check(kOnOrOff);
    simulate.add_flag("--press", changes->press, "Press the button once");
}

void Grammar::addRecording() {
    const auto file = std::make_shared<std::string>();
    const auto anonymous = std::make_shared<bool>(false);
    CLI::App& recording =
        add("recording", "Tells what is in a recording of a session with the instrument",
            [file, anonymous](Context& context) { commands::recording(context, *file, *anonymous); });
    recording.add_option("FILE", *file, "What --record wrote")->type_name("")->required();
    recording.add_flag("--anonymous", *anonymous, "Write the recording without serial numbers, and no more");
}

// Shows the help that was asked for, or says what is wrong with the command line. The exit status.
int explain(const CLI::App& app, const CLI::ParseError& error, bool json) {
    if (error.get_exit_code() == 0)
        return app.exit(error);
    const auto commands = app.get_subcommands();
    const auto unknown = app.remaining();
    std::string problem = error.what();
    if (commands.empty() && unknown.empty())
        problem = "name a command";
    else if (commands.empty())
        problem = std::string("no such ") + (unknown.front().starts_with("-") ? "option: " : "command: ") +
                  unknown.front();
    const std::string command = commands.empty() ? "" : " " + commands.front()->get_name();
    reportFailure(json, problem);
    std::fprintf(stderr, "See tablectl%s --help.\n", command.c_str());
    return 2;
}

} // namespace

std::optional<int> readCommandLine(int argc, const char* const* argv, CommandLine& line) {
    Grammar grammar(line);
    try {
        grammar.app().parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        const bool json = std::find(argv, argv + argc, std::string_view("--json")) != argv + argc;
        return explain(grammar.app(), error, json);
    }
}

} // namespace tablectl
