// The mean of several measurements of one chart.
#include "Commands.h"
#include "Errors.h"
#include "Files.h"
#include "Measured.h"

#include <Color/Average.h>

#include <algorithm>
#include <map>

namespace tablectl {

namespace {

// One chart under one light, or its means would be of nothing.
void checkIsSame(const Measured& first, const Measured& other) {
    const auto fail = [&](const std::string& what) {
        throw UsageFailure(other.file + ": " + what + " not that of " + first.file);
    };
    if (other.data.condition != first.data.condition)
        fail("the measurement condition is");
    if (other.data.fieldNames != first.data.fieldNames)
        fail("the fields beside the measured ones are");
    if (other.data.grid != first.data.grid)
        fail("the grid is");
    std::map<std::pair<int, int>, std::string> ids;
    for (const Color::Reading& reading : first.means)
        ids[{reading.row, reading.column}] = reading.sampleId;
    for (const Color::Reading& reading : other.means) {
        const auto found = ids.find({reading.row, reading.column});
        if (found != ids.end() && found->second != reading.sampleId)
            fail("the patch at row " + std::to_string(reading.row) + ", column " +
                 std::to_string(reading.column) + " is");
    }
}

void tell(Context& context, const std::vector<Measured>& files, const Measured& all) {
    std::size_t width = 3;
    for (const Measured& measured : files)
        width = std::max(width, measured.file.size());
    std::vector<std::string> objects;
    const auto line = [&](const std::string& name, const Color::Scatter& scatter) {
        objects.push_back(
            Json().add("file", name).add("mean", scatter.mean).add("maximum", scatter.maximum).text());
        if (!context.output.isJson())
            context.output.line(name + std::string(width - name.size(), ' ') + "  mean " +
                                fixedText(scatter.mean, 2) + "  maximum " + fixedText(scatter.maximum, 2));
    };
    for (const Measured& measured : files)
        line(measured.file, scatterOf(measured.data.readings, all.means));
    const Color::Scatter whole = scatterOf(all.data.readings, all.means);
    if (context.output.isJson())
        context.output.object(Json()
                                  .add("patches", static_cast<long>(all.means.size()))
                                  .add("readings", static_cast<long>(all.data.readings.size()))
                                  .add("mean", whole.mean)
                                  .add("maximum", whole.maximum)
                                  .addRaw("files", "[" + join(objects, ",") + "]"));
    else
        line("all", whole);
}

} // namespace

void commands::average(Context& context, const std::vector<std::string>& names,
                       const std::string& outputFile) {
    std::vector<Measured> files;
    for (const std::string& name : names) {
        if (isSameFile(name, outputFile))
            throw UsageFailure(outputFile + ": the mean would replace a measurement");
        files.push_back(readMeasured(name));
        checkIsSame(files.front(), files.back());
    }
    Measured all = files.front();
    for (auto file = files.begin() + 1; file != files.end(); ++file)
        all.data.readings.insert(all.data.readings.end(), file->data.readings.begin(),
                                 file->data.readings.end());
    const Color::MeasurementHeader header = headerOf(all);
    all.means = Color::meanReadings(all.data.readings);
    replaceFile(outputFile, measurementText(layoutOf(all), header, all.means));
    tell(context, files, all);
}

} // namespace tablectl
