// The one thing about files that the system takes from its home platform beyond POSIX: opening a file and
// taking a shared lock on it in one step.
#pragma once

// Opens `path` read-only, creates it when it is missing, and waits until no other process holds it
// exclusively; the descriptor then carries a shared flock(2) lock. On the home platform this is one call,
//
//     open(path, O_RDONLY | O_CREAT | O_SHLOCK | O_NOFOLLOW | O_CLOEXEC, 0644)
//
// and a port there is that line. The result is a descriptor above 0, or -1 with errno set. Symbolic links are
// not followed, and only a regular file is opened (a pipe in its place would hang the caller, a folder cannot
// be locked): errno is ELOOP or EINVAL then. The file that was locked may have been removed from its path
// meanwhile; whoever cares compares the two. Any thread.
int OpenWithSharedLock(const char* path);
