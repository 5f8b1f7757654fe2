// What each command does, named as on the command line. Each runs on the command's thread, and ends by
// returning or with a Failure.
#pragma once

#include "Context.h"

#include <Color/ChartLayout.h>

#include <optional>
#include <string>
#include <vector>

namespace tablectl {

// Where a target lies, as the command line says it; "" where it does not.
struct PlacementRequest {
    std::string grid;                 // ROWSxCOLUMNS or ROWSxCOLUMNS+LAST
    std::vector<std::string> corners; // X,Y three times: top left, bottom left, bottom right
    std::string file;                 // instead of both
};

struct ScanRequest {
    std::string layoutFile;
    PlacementRequest placement;
    std::string outputFile; // "": to standard output, when the scan is over
    std::string resumeFile; // an interrupted measurement that goes on; "": none
    std::string reportFile; // "": none
    std::string rows;       // A-B or A, the first and last; "": the whole chart
    std::optional<int> spotReadings;
    int repeat = 1; // so many times the whole, for the mean
    bool xyz = false;
    bool lowResolution = false;
    bool strict = false;    // a chart that does not lie as its layout says ends the scan
    bool noPicture = false; // of the chart as it fills
};

struct AlignRequest {
    std::string targetFile;
    PlacementRequest placement; // where the corners are looked for
    std::string outputFile;     // "": to standard output
};

struct CompareRequest {
    std::string first;
    std::string second;
    std::string limit;      // MEAN,MAX of CIEDE2000; "": none
    std::string reportFile; // "": none
};

// What is to change of a virtual instrument.
struct SimulationChanges {
    std::string attach; // the path of a new table; "": an attached one is changed
    bool detach = false;
    bool press = false;
    std::optional<std::string> serial;
    std::optional<std::string> identifier;
    std::optional<std::string> chart;     // "" for bare paper
    std::optional<std::string> recording; // to be played back; "" for none
    std::optional<std::string> fault;     // "" for none
    std::optional<double> timeScale;
    std::optional<double> noise;
    std::optional<bool> table;
    std::optional<bool> spectrophotometer;
};

namespace commands {

// Information.cpp: those that only look.
void list(Context& context);
void status(Context& context, bool watch);
void commands(Context& context);
void get(Context& context, const std::vector<std::string>& keys);

// Control.cpp: those that change something or move the head.
void set(Context& context, const std::string& key, const std::string& value);
void mode(Context& context, const std::string& name);
void calibrate(Context& context);
void move(Context& context, const std::string& x, const std::string& y);
void position(Context& context);
void home(Context& context);
void cancel(Context& context);
void reset(Context& context);
void send(Context& context, const std::string& name, const std::vector<std::string>& arguments);
void lock(Context& context, double seconds);

// Align.cpp and Spot.cpp
void align(Context& context, const AlignRequest& request);
void spot(Context& context, const Color::Point& place, int count);

// Average.cpp, Compare.cpp and Convert.cpp: those that need no device
void average(Context& context, const std::vector<std::string>& names, const std::string& outputFile);
void compare(Context& context, const CompareRequest& request);
void report(Context& context, const std::string& file, const std::string& reference,
            const std::string& output);
void convert(Context& context, const std::string& file, const std::string& output);

// Scan.cpp and SimulateCommand.cpp
void scan(Context& context, const ScanRequest& request);
void simulate(Context& context, const SimulationChanges& changes);

// RecordingCommand.cpp: what is in a recording; or the recording itself, without serial numbers.
void recording(Context& context, const std::string& file, bool anonymous);

} // namespace commands

} // namespace tablectl
