#pragma once

#include <Base/FileDescriptor.h>

#include <optional>
#include <string>

namespace VellService {

// The folders that the programs of one user share. Any thread.
//
// The runtime folder is $VELL_RUNTIME_DIR, else $XDG_RUNTIME_DIR/vell, else /tmp/vell-<uid>. It holds the
// sockets, so it is this user's alone: mode 0700, and refused when it is a symbolic link or belongs to
// somebody else.
std::string runtimeFolderPath();
std::string hardwareFolderPath(); // $VELL_HARDWARE_DIR, else "hardware" in the runtime folder
std::string logFolderPath();      // $VELL_LOG_DIR, else "log" in the runtime folder

// The socket of the plug-in that serves a device path: in the runtime folder, named by the hash of the path
// in lower case, since paths that differ in letter case only name one device.
std::string socketPath(const std::string& devicePath);

// Makes the folder where it is missing. Nothing on success, else why not, as a sentence for a log line or a
// user.
std::optional<std::string> ensureRuntimeFolder();
// For a process that only looks into it: changes nothing. Nothing when the folder is fit, "" when there is
// none (yet), else why it is not.
std::optional<std::string> checkRuntimeFolder();
// As ensureRuntimeFolder, for a folder in the runtime folder or one that the user has named.
std::optional<std::string> ensureFolder(const std::string& path);
// The same for the hardware folder, where a file is a device: it must be this user's, and his alone to write
// to.
std::optional<std::string> ensureHardwareFolder();

} // namespace VellService
