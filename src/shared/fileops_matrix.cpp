// Matrices as text; see fileops.h.
#include "shared/fileops.h"

#include <locale.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

using namespace fileops;

namespace {

/// Gives the calling thread the C locale's numbers for its life, whatever the host has set.
class PlainNumbers {
public:
    PlainNumbers() : plain(newlocale(LC_NUMERIC_MASK, "C", nullptr)), before(uselocale(plain)) {}
    ~PlainNumbers()
    {
        uselocale(before);
        if (plain != nullptr)
            freelocale(plain);
    }
    PlainNumbers(const PlainNumbers&) = delete;
    PlainNumbers& operator=(const PlainNumbers&) = delete;

private:
    locale_t plain;
    locale_t before;
};

/// Reads a `Scanned`, which is what `format` takes, and stores it as an `Item`.
template <typename Item, typename Scanned>
bool readItem(FILE* file, const char* format, char* to)
{
    Scanned scanned{};
    if (std::fscanf(file, format, &scanned) != 1)
        return false;
    const Item item = static_cast<Item>(scanned);
    std::memcpy(to, &item, sizeof(item));
    return true;
}

/// Writes an `Item` as the `Printed` that `format` takes.
template <typename Item, typename Printed>
bool printItem(FILE* file, const char* format, const char* from)
{
    Item item;
    std::memcpy(&item, from, sizeof(item));
    return std::fprintf(file, format, static_cast<Printed>(item)) >= 0;
}

struct ReadFormat {
    _DataType type;
    const char* format;
    bool (*read)(FILE*, const char*, char*);
};

struct WriteFormat {
    _DataType type;
    const char* format;
    bool (*print)(FILE*, const char*, const char*);
};

constexpr ReadFormat READ_FORMATS[] = {
    {DTYPE_BYTE, "%u", readItem<std::uint8_t, unsigned>}, {DTYPE_I16, "%d", readItem<std::int16_t, int>},
    {DTYPE_U16, "%u", readItem<std::uint16_t, unsigned>}, {DTYPE_I32, "%d", readItem<std::int32_t, int>},
    {DTYPE_U32, "%u", readItem<std::uint32_t, unsigned>}, {DTYPE_DOUBLE, "%lf", readItem<double, double>},
};

constexpr WriteFormat DECIMAL_FORMATS[] = {
    {DTYPE_BYTE, "%u", printItem<std::uint8_t, unsigned>}, {DTYPE_I16, "%hd", printItem<std::int16_t, int>},
    {DTYPE_U16, "%u", printItem<std::uint16_t, unsigned>}, {DTYPE_I32, "%d", printItem<std::int32_t, int>},
    {DTYPE_U32, "%u", printItem<std::uint32_t, unsigned>}, {DTYPE_FLOAT, "%lf", printItem<float, double>},
    {DTYPE_DOUBLE, "%lf", printItem<double, double>},
};

constexpr WriteFormat HEX_FORMATS[] = {
    {DTYPE_BYTE, "%02X", printItem<std::uint8_t, unsigned>}, {DTYPE_I16, "%04X", printItem<std::uint16_t, unsigned>},
    {DTYPE_U16, "%04X", printItem<std::uint16_t, unsigned>}, {DTYPE_I32, "%08X", printItem<std::uint32_t, unsigned>},
    {DTYPE_U32, "%08X", printItem<std::uint32_t, unsigned>},
};

/// The row of a type, null if the table has none.
template <typename Row, std::size_t Count>
const Row* rowOf(const Row (&rows)[Count], _DataType type)
{
    const Row* row = std::find_if(rows, rows + Count, [type](const Row& r) { return r.type == type; });
    return row != rows + Count ? row : nullptr;
}

// The type is looked at first: what stands in a file is not lost to a call that can't write.
int writeMatrix(const char* path, const WriteFormat* format, const void* data, unsigned long size, unsigned long width,
                bool append)
{
    if (format == nullptr)
        return WRONG_TYPE;
    const PlainNumbers numbers;
    File file(path, append ? "a+" : "w");
    if (file == nullptr)
        return OPEN_FAILED;
    const auto* item = static_cast<const char*>(data);
    for (unsigned long i = 0; i < size; ++i, item += sizeofType[format->type]) {
        const bool endsRow = width != 0 && (i + 1) % width == 0;
        if (!format->print(file, format->format, item) || std::fputc(endsRow ? '\n' : ' ', file) == EOF)
            return WRITE_FAILED;
    }
    return std::fflush(file) == 0 ? 0 : WRITE_FAILED;
}

bool isBlank(const std::string& line)
{
    return line.find_first_not_of(" \t\r\n") == std::string::npos;
}

unsigned long countNumbers(const std::string& line)
{
    unsigned long count = 0;
    const char* at = line.c_str();
    for (char* end = nullptr; std::strtod(at, &end), end != at; at = end)
        ++count;
    return count;
}

/// The lines of a file, one after another.
class Lines {
public:
    explicit Lines(const char* path) : file(path, "r") {}
    ~Lines() { std::free(text); }
    Lines(const Lines&) = delete;
    Lines& operator=(const Lines&) = delete;

    bool isOpen() const { return file != nullptr; }
    /// The next line, with the feed that ends it. False behind the last one.
    bool next(std::string& line)
    {
        const long length = isOpen() ? ::getline(file, &text, &size) : -1;
        if (length > 0)
            line.assign(text, static_cast<std::size_t>(length));
        return length > 0;
    }

private:
    const File file;
    char* text = nullptr;
    unsigned long size = 0;
};

} // namespace

int readAsciiMatrix(const char* path, _DataType type, unsigned long size, void* data)
{
    const ReadFormat* format = rowOf(READ_FORMATS, type);
    if (format == nullptr)
        return WRONG_TYPE;
    const PlainNumbers numbers;
    const File file(path, "r");
    if (file == nullptr)
        return OPEN_FAILED;
    auto* item = static_cast<char*>(data);
    for (unsigned long i = 0; i < size; ++i, item += sizeofType[type]) {
        if (!format->read(file, format->format, item))
            return TOO_SHORT;
    }
    return 0;
}

int writeAsciiMatrix(const char* path, _DataType type, const void* data, unsigned long size, unsigned long width,
                     bool append)
{
    return writeMatrix(path, rowOf(DECIMAL_FORMATS, type), data, size, width, append);
}

int writeAsciiMatrixHex(const char* path, _DataType type, const void* data, unsigned long size, unsigned long width,
                        bool append)
{
    return writeMatrix(path, rowOf(HEX_FORMATS, type), data, size, width, append);
}

int getAsciiMatrixDimensions(const char* path, unsigned long* width, unsigned long* height)
{
    *width = 0;
    *height = 0;
    const PlainNumbers numbers;
    Lines lines(path);
    for (std::string line; lines.next(line);) {
        if (isBlank(line))
            continue;
        if (*height == 0)
            *width = countNumbers(line);
        ++*height;
    }
    return 0;
}

long getNumberOfLinesInFile(const char* path, bool skipEmpty)
{
    Lines lines(path);
    if (!lines.isOpen())
        return OPEN_FAILED;
    long count = 0;
    for (std::string line; lines.next(line);) {
        if (!skipEmpty || !isBlank(line))
            ++count;
    }
    return count;
}
