#ifndef TARVO_UTIL_ATOMIC_FILE_H
#define TARVO_UTIL_ATOMIC_FILE_H

#include <sys/types.h>

#include <string>

// Replaces the file at `path` with `content` so that a crash, a full disk or an I/O error leaves
// either the old file or the new one whole: the content goes to an owner-only temporary file
// beside it, is flushed to disk and renamed over it. An existing file keeps its mode; one this
// process may not write is left alone. Temporary files of writers that died are removed first.
// Returns false, with the old file untouched, when anything failed.
bool replace_file_atomically(const std::string& path, const std::string& content);

// The calls through which the bytes reach the disk; tests swap them to inject failures.
struct FileWriteCalls {
    ssize_t (*write)(int fd, const void* data, size_t size);
    int (*fsync)(int fd);
};
extern FileWriteCalls file_write_calls;

#endif
