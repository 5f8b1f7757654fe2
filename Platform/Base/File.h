#pragma once

#include <cstddef>
#include <string>
#include <system_error>

namespace Base {

// A file as it was read; without an error the whole of it.
struct FileContents {
    std::string bytes;
    std::error_code error;

    explicit operator bool() const { return !error; }
    bool isMissing() const {
        return error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory;
    }
    bool isFolder() const { return error == std::errc::is_a_directory; }
    bool isTooLarge() const { return error == std::errc::file_too_large; }
};

// Pipes and devices have their place where a user names a file on a command line. In a folder that others
// write to, a pipe or a link to one would hold up whoever opens it.
enum class FileKind { regular, any };

// Reads a file of at most `limit` bytes. Never waits for a file of the kind `regular`; another one is then
// an error. Any thread.
FileContents readFile(const std::string& path, std::size_t limit, FileKind kind = FileKind::regular);

} // namespace Base
