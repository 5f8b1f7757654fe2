// Files that the user names, and temporary ones.
#pragma once

#include <filesystem>
#include <string>

namespace tablectl {

// Whether both names lead to one file of the disk, there already or not.
bool isSameFile(const std::string& one, const std::string& other);

// Throws DeviceFailure when nothing can be written there. Better before a long scan than after it.
void checkWritable(const std::string& file);

// The folder for temporary files; throws DeviceFailure when there is none.
std::filesystem::path temporaryFolder();

} // namespace tablectl
