#pragma once

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

namespace tablectl {

// What a plug-in writes to its log from now on, as far as a scan wants to know it: which rows it read patch
// by patch after the strips had failed, and its warnings. A log that cannot be read tells nothing.
class PluginLog {
public:
    explicit PluginLog(const std::filesystem::path& file);

    void update(); // reads what has been written meanwhile
    bool wasSpotRead(int row) const { return mSpotRows.contains(row); }
    const std::vector<std::string>& warnings() const { return mWarnings; }

private:
    void take(const std::string& line);

    std::ifstream mStream;
    std::string mUnfinished; // the beginning of a line
    int mRow = -1;
    std::set<int> mSpotRows;
    std::vector<std::string> mWarnings;
};

} // namespace tablectl
