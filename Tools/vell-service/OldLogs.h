#pragma once

namespace service {

// Removes the plug-ins' log files (NAME_PROCESS.log, and those put aside as NAME_PROCESS.log.1) from the log
// folder, but for the 20 written to last and those of processes that are running.
void removeOldLogs();

} // namespace service
