#pragma once

#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tablectl {

// What a plug-in writes to its log from now on, as far as a scan wants to know it: which rows it read patch
// by patch after the strips had failed, and its warnings. It is followed when the plug-in puts a full file
// aside. A log that cannot be read, or that the plug-in writes elsewhere or with less in it, tells nothing.
class PluginLog {
public:
    explicit PluginLog(const std::filesystem::path& file);

    void update();                                  // reads what has been written meanwhile
    std::optional<bool> wasSpotRead(int row) const; // nothing when the log does not tell
    const std::vector<std::string>& warnings() const { return mWarnings; }

private:
    void read();
    void take(const std::string& line);

    std::filesystem::path mFile;
    std::ifstream mStream;
    std::string mUnfinished; // the beginning of a line
    int mRow = -1;
    std::map<int, bool> mRows; // those begun; true: read by spots
    std::vector<std::string> mWarnings;
};

} // namespace tablectl
