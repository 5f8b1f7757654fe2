#include "PluginLog.h"

#include <cstdlib>
#include <iterator>

namespace tablectl {

PluginLog::PluginLog(const std::filesystem::path& file) : mFile(file), mStream(file, std::ios::binary) {
    mStream.seekg(0, std::ios::end);
}

void PluginLog::update() {
    read();
    std::error_code error;
    const auto size = std::filesystem::file_size(mFile, error);
    if (error || !mStream.is_open() || size >= static_cast<std::uintmax_t>(mStream.tellg()))
        return;
    read(); // what was written before it was put aside
    mStream = std::ifstream(mFile, std::ios::binary);
    read();
}

void PluginLog::read() {
    mStream.clear(); // of the end of the file
    mUnfinished.append(std::istreambuf_iterator<char>(mStream), {});
    std::size_t begin = 0;
    for (std::size_t end; (end = mUnfinished.find('\n', begin)) != std::string::npos; begin = end + 1)
        take(mUnfinished.substr(begin, end - begin));
    mUnfinished.erase(0, begin);
}

std::optional<bool> PluginLog::wasSpotRead(int row) const {
    const auto found = mRows.find(row);
    return found != mRows.end() ? std::optional(found->second) : std::nullopt;
}

void PluginLog::take(const std::string& line) {
    static const std::string kMeasuringRow = "advancedMeasure - measuring row ";
    if (const std::size_t found = line.find(kMeasuringRow); found != std::string::npos) {
        mRow = std::atoi(line.c_str() + found + kMeasuringRow.size());
        mRows[mRow] = false;
    } else if (line.find("trying to scan using spot") != std::string::npos) {
        mRows[mRow] = true;
    }
    if (line.find(" WARNING [") != std::string::npos || line.find(" ERROR [") != std::string::npos)
        mWarnings.push_back(line);
}

} // namespace tablectl
