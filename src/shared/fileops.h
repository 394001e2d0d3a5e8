// File functions: streams, lines, matrices as text, bytes, directories.
//
// Where a comment does not tell other results they are 0 or one of those in `fileops`. A null path is one that can't be
// opened. Nothing here locks anything.
#pragma once

#include "host/datatype.h"

#include <cstdio>
#include <string>
#include <vector>

namespace fileops {
inline constexpr int OPEN_FAILED = -1;  ///< The file can't be opened.
inline constexpr int TOO_SHORT = -2;    ///< It ends, or stops being what is read, before all has come.
inline constexpr int WRITE_FAILED = -3; ///< It can't be written.
inline constexpr int WRONG_TYPE = -4;   ///< The function does not handle this type.
inline constexpr int NO_DIRECTORY = -5; ///< The directory can't be opened.
} // namespace fileops

/// Holds a C stream open for its own life. Programs that the process starts do not inherit it.
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

// ---- Matrices as text, with a decimal point under every locale of the host ----

/// Reads `size` numbers, with any white space between them, into `size` items at `data`. Numbers that don't fit into
/// an item lose their high bits. For bytes, 16 and 32 bits with and without sign, and doubles.
int readAsciiMatrix(const char* path, _DataType type, unsigned long size, void* data);
/// Writes `size` items in rows of `width`, or in a single row where that is 0: a blank behind each item, a line feed
/// behind the last one of a row. `append` keeps what is in the file. For the types of `readAsciiMatrix`, and floats.
int writeAsciiMatrix(const char* path, _DataType type, const void* data, unsigned long size, unsigned long width,
                     bool append);
/// The same in hexadecimal, with as many digits as the type has. For bytes, 16 and 32 bits with and without sign.
int writeAsciiMatrixHex(const char* path, _DataType type, const void* data, unsigned long size, unsigned long width,
                        bool append);
/// The number of lines that have more than white space, and of the numbers at the beginning of the first of them. Both
/// 0 for a file that can't be opened. Returns 0.
int getAsciiMatrixDimensions(const char* path, unsigned long* width, unsigned long* height);
/// The number of lines, with `skipEmpty` of those that have more than white space. `fileops::OPEN_FAILED` when it can't
/// be opened.
long getNumberOfLinesInFile(const char* path, bool skipEmpty);

// ---- Bytes ----

/// Reads the first `size` bytes of a file.
int readBinary(const char* path, void* data, unsigned long size);
/// Writes `size` bytes, with `append` behind what is in the file.
int writeBinary(const char* path, const void* data, unsigned long size, bool append);
/// Bytes of a file, -1 when it can't be opened or is a directory.
long getFileSize(const char* path);
/// Whether both files can be read and hold the same bytes. `chunk` bytes of each are compared at a time.
bool isFilesEqual(const char* a, const char* b, unsigned long chunk);
/// Copies a file's bytes over what `to` holds. A file is never copied onto itself: that leaves it as it is.
int copyFile(const char* from, const char* to);

// ---- Directories ----

/// Whether `name` matches `mask`, where "*" stands for any characters, also none, and "?" for one other than ".". Upper
/// and lower case differ.
bool matchMask(const char* name, const char* mask);
/// Appends the names in a directory that match `mask` (null: all), in the file system's order, without "." and "..".
/// `noDirs` leaves out directories and links to them; `fullPath` puts the directory and "/" before each name.
/// Returns 0 or `fileops::NO_DIRECTORY`.
int listFilesInDir(const char* dir, const char* mask, bool noDirs, bool fullPath, std::vector<std::string>& out);
/// The text before the last "/", empty without one.
std::string getFileDir(const char* path);
/// Makes a directory for its owner alone. Returns 0, or -1 when it could not be made or is there already.
int createDir(const char* path);
/// Makes each directory that a "/" in the path stands behind. Returns 0, whether or not they could be made, or -1 for a
/// null path.
int createFilePath(const char* path);
/// Copies the files in and below the directory `from` to the same places below `to`, with the directories that they
/// need. Links and special files are left out, and so is `to` where it lies below `from`. Returns 0; -1 when `from` is
/// no directory that can be walked; otherwise, when all the rest is copied, the first failure's result.
int copyFileDir(const char* from, const char* to);
/// Deletes a file, a link, or a directory with all below it. Links are deleted, never followed, and what other file
/// systems hold stays. Returns 0, or -1 at the first failure: what came before it is gone.
int deleteFileDir(const char* path);
