#pragma once

#include "VirtualInstrument.h"

#include <optional>
#include <string>

namespace TaviSDK {

// The property list that stands for a table on the machine: its Path, its Siblings (the spectrophotometer is
// on the table when they hold it) and the Simulation dictionary.
//
// Reads it as settings. The names of chart and recording are relative to the file's folder; the identifier is
// the Path unless the Simulation names one. Nothing when the file cannot be read whole or is no such property
// list. A file that is gone is a table that does not answer. Any thread, one at a time.
std::optional<Simulation> readHardwareFile(const std::string& path);

} // namespace TaviSDK
