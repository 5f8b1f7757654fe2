#pragma once

#include <Base/FileDescriptor.h>

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tablectl {

// What the measurements of a plug-in write to its log from now on, as far as a scan wants to know it: which
// rows were read patch by patch after the strips had failed, and warnings. Lines of other threads are not
// looked at: they may quote what any client has sent. The log is followed when the plug-in puts a full file
// aside. One that cannot be read (it is no regular file, the plug-in writes elsewhere or with less in it)
// tells nothing.
class PluginLog {
public:
    explicit PluginLog(const std::filesystem::path& file);

    void update();                                  // reads what has been written meanwhile
    std::optional<bool> wasSpotRead(int row) const; // nothing when the log does not tell
    const std::vector<std::string>& warnings() const { return mWarnings; }

private:
    void openFile();
    void readOn();
    void take(std::string_view line);

    std::filesystem::path mPath;
    Base::FileDescriptor mFile;
    std::string mUnfinished; // the beginning of a line
    int mRow = -1;
    std::map<int, bool> mRows; // those begun; true: read by spots
    std::vector<std::string> mWarnings;
};

} // namespace tablectl
