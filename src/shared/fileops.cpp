// Streams and lines; see fileops.h.
#include "shared/fileops.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>

namespace {

constexpr unsigned long MIN_LINE_SIZE = 60;
constexpr unsigned long FIRST_LINE_SIZE = 120;
constexpr const char* CLOSE_ON_EXEC = "e"; // a program that the host starts meanwhile has no use for the file

bool growLine(char** line, unsigned long* size)
{
    const unsigned long newSize = *size < MIN_LINE_SIZE ? FIRST_LINE_SIZE : *size * 2;
    char* grown = static_cast<char*>(std::realloc(*line, newSize));
    if (grown == nullptr)
        return false;
    *line = grown;
    *size = newSize;
    return true;
}

// Counts what it reads instead of measuring it as a text, so that a NUL in the file is a character like any other.
long readLine(FILE* file, char** line, unsigned long* size)
{
    if (*size <= MIN_LINE_SIZE && !growLine(line, size))
        return -1;
    unsigned long length = 0;
    int c = 0;
    while (c != '\n' && (c = std::getc(file)) != EOF) {
        if (length + 1 == *size && !growLine(line, size))
            return -1;
        (*line)[length++] = static_cast<char>(c);
    }
    (*line)[length] = '\0';
    const bool nothing = c == EOF && (length == 0 || !std::feof(file));
    return nothing ? -1 : static_cast<long>(length);
}

} // namespace

File::File(const char* filePath, const char* mode)
    : file(filePath != nullptr ? std::fopen(filePath, (std::string(mode) + CLOSE_ON_EXEC).c_str()) : nullptr),
      path(filePath)
{
}

File::~File()
{
    if (file != nullptr)
        std::fclose(file);
}

bool fileExists(const char* path)
{
    struct stat info {};
    return path != nullptr && stat(path, &info) == 0;
}

bool fileExists(const std::string& path)
{
    return fileExists(path.c_str());
}

long getline(FILE* file, char** line, unsigned long* size)
{
    if (file == nullptr || line == nullptr || size == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const bool own = *line == nullptr || *size == 0;
    if (own) {
        *line = nullptr;
        *size = 0;
    }
    const long length = readLine(file, line, size);
    if (length < 0 && own) {
        std::free(*line);
        *line = nullptr;
        *size = 0;
    }
    return length;
}
