#include <Color/Cgats.h>

#include <utility>

namespace Color {

namespace {

std::string describe(const std::string& file, int line, const std::string& reason) {
    return line > 0 ? file + ":" + std::to_string(line) + ": " + reason : file + ": " + reason;
}

} // namespace

CgatsError::CgatsError(std::string file, int line, std::string reason)
    : std::runtime_error(describe(file, line, reason)),
      mFile(std::move(file)),
      mLine(line),
      mReason(std::move(reason)) {}

} // namespace Color
