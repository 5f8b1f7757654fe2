// Chart layouts and measurement files: CGATS.17 text.
//
// A file is a header of keywords, the names of the fields between BEGIN_DATA_FORMAT and END_DATA_FORMAT, and
// one line per data set between BEGIN_DATA and END_DATA. Fields may stand in any order; keywords and fields
// that nobody asks for are passed over; "#" begins a comment; a quoted text may hold spaces, and a doubled
// quote stands for one.
//
// Nothing here keeps global state: every function may be called from any thread, a MeasurementFile from one
// at a time.
#pragma once

#include <stdexcept>
#include <string>

namespace Color {

// A file that makes no sense or cannot be read or written. what() is "FILE:LINE: REASON", or "FILE: REASON"
// where the file as a whole is meant (line 0).
class CgatsError : public std::runtime_error {
public:
    CgatsError(std::string file, int line, std::string reason);
    const std::string& file() const noexcept { return mFile; }
    int line() const noexcept { return mLine; }
    const std::string& reason() const noexcept { return mReason; }

private:
    std::string mFile;
    int mLine;
    std::string mReason;
};

} // namespace Color
