// Files that the user names, and temporary ones.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace tablectl {

// Whether both names lead to one file of the disk, there already or not.
bool isSameFile(const std::string& one, const std::string& other);

// Throws DeviceFailure when nothing can be written there. Better before a long scan than after it.
void checkWritable(const std::string& file);

// The whole file; throws DeviceFailure.
std::string readFile(const std::string& file);
// Replaces a file in one step, so that nobody ever reads half of it, where its folder takes new files; what
// is no regular file (a pipe, a terminal) is written to. Throws DeviceFailure when that fails.
void replaceFile(const std::string& file, std::string_view text);

// Whether the file is one that may be replaced again and again: a regular one, or none yet.
bool isReplaceable(const std::string& file);

// The folder for temporary files; throws DeviceFailure when there is none.
std::filesystem::path temporaryFolder();

} // namespace tablectl
