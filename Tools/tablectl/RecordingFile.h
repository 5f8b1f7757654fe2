#pragma once

#include <TaviSDK/Recording.h>

#include <string>

namespace tablectl {

// Throws UsageFailure with file, line and reason when it is no recording, or a damaged one.
TaviSDK::Recording readRecordingFile(const std::string& file);

// The device path that the recorded table belongs to; "" when the recording does not tell.
std::string recordedPath(const TaviSDK::Recording& recording);

} // namespace tablectl
