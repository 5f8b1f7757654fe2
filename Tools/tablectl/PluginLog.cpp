#include "PluginLog.h"

#include <Base/Number.h>

#include <fcntl.h>
#include <sys/stat.h>

namespace tablectl {

namespace {

constexpr std::size_t kLongestLine = std::size_t{1} << 16;
constexpr std::size_t kMostWarnings = 1000;
constexpr std::size_t kDateLength = 24; // "2026-01-31 12:00:00.123 "

// "DATE LEVEL [PROCESS:THREAD] TEXT"; what the text says comes last, so that nothing in it is taken for the
// rest.
struct LogLine {
    std::string_view level;
    std::string_view text;
    bool isOfWorker = false; // of a thread beside the one that serves clients

    explicit LogLine(std::string_view line) {
        if (line.size() < kDateLength)
            return;
        line.remove_prefix(kDateLength);
        const std::size_t open = line.find(" [");
        const std::size_t colon = line.find(':', open);
        const std::size_t close = line.find("] ", colon);
        if (open == line.npos || colon == line.npos || close == line.npos)
            return;
        level = line.substr(0, open);
        isOfWorker = line.substr(open + 2, colon - open - 2) != line.substr(colon + 1, close - colon - 1);
        text = line.substr(close + 2);
    }
};

} // namespace

PluginLog::PluginLog(const std::filesystem::path& file) : mPath(file) {
    openFile();
    if (mFile)
        lseek(mFile.get(), 0, SEEK_END);
}

void PluginLog::openFile() {
    mFile.reset(open(mPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
    struct stat status {};
    if (mFile && (fstat(mFile.get(), &status) != 0 || !S_ISREG(status.st_mode)))
        mFile.reset();
}

void PluginLog::update() {
    readOn();
    struct stat named {};
    struct stat opened {};
    if (!mFile || stat(mPath.c_str(), &named) != 0 || fstat(mFile.get(), &opened) != 0 ||
        (named.st_ino == opened.st_ino && named.st_dev == opened.st_dev))
        return;
    readOn(); // what was written before it was put aside
    openFile();
    readOn();
}

void PluginLog::readOn() {
    char block[4096];
    for (ssize_t got; mFile && (got = read(mFile.get(), block, sizeof block)) > 0;) {
        mUnfinished.append(block, static_cast<std::size_t>(got));
        std::size_t begin = 0;
        for (std::size_t end; (end = mUnfinished.find('\n', begin)) != std::string::npos; begin = end + 1)
            take(std::string_view(mUnfinished).substr(begin, end - begin));
        mUnfinished.erase(0, begin);
        if (mUnfinished.size() > kLongestLine)
            mFile.reset(); // no log
    }
}

std::optional<bool> PluginLog::wasSpotRead(int row) const {
    const auto found = mRows.find(row);
    return found != mRows.end() ? std::optional(found->second) : std::nullopt;
}

void PluginLog::take(std::string_view line) {
    static constexpr std::string_view kMeasuringRow = "TaviIODeviceService::advancedMeasure - measuring row ";
    const LogLine parts(line);
    if (!parts.isOfWorker)
        return;
    if (parts.text.starts_with(kMeasuringRow)) {
        const std::string_view rest = parts.text.substr(kMeasuringRow.size());
        mRow = Base::parseNumber<int>(rest.substr(0, rest.find('.'))).value_or(-1);
        mRows[mRow] = false;
    } else if (parts.text.starts_with("Error scanning, trying to scan using spot")) {
        mRows[mRow] = true;
    }
    if ((parts.level == "WARNING" || parts.level == "ERROR") && mWarnings.size() < kMostWarnings)
        mWarnings.emplace_back(line);
}

} // namespace tablectl
