// File functions over the C library's streams.
#pragma once

#include <cstdio>
#include <string>

/// Holds a C stream open for its own life.
class File {
public:
    /// Opens `filePath`, whose text must outlive the object, like `fopen`. A null path is not tried.
    File(const char* filePath, const char* mode);
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    /// The stream; null if it could not be opened.
    operator FILE*() const { return file; }

private:
    FILE* file;
    const char* path;
};

/// Whether something stands at the path: file, directory or other.
bool fileExists(const char* path);
bool fileExists(const std::string& path);

/// Reads one line, its line feed included, into a buffer made by `malloc` that grows as needed, and puts a NUL behind.
/// With a null `*line` or a `*size` of 0 it makes a buffer of its own, which the caller frees. Returns the number of
/// bytes; -1 at the end of the file (an own buffer is freed and `*line` null then), on a read error or a lack of
/// memory, and with `errno` at `EINVAL` on null pointers. Not safe on one stream from two threads.
long getline(FILE* file, char** line, unsigned long* size);
