// Items of the data types that cross the boundary, as numbers and as texts.
#pragma once

#include "host/datatype.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace refhost {

/// The type of a parameter, of a frame's pixels or of a block of metadata, with the code that crosses the boundary.
enum class DataType : int {
    Char = DTYPE_CHAR,
    Byte = DTYPE_BYTE,
    Int16 = DTYPE_I16,
    UInt16 = DTYPE_U16,
    Int32 = DTYPE_I32,
    UInt32 = DTYPE_U32,
    Int64 = DTYPE_I64,
    UInt64 = DTYPE_U64,
    Float = DTYPE_FLOAT,
    Double = DTYPE_DOUBLE,
    Bool = DTYPE_BOOL,
    Text = DTYPE_STRING,
};

/// The type with that code, or nothing where no type has it.
std::optional<DataType> dataTypeOf(int code);

/// Bytes of one item: 4 for a bool, 8 for a text, whose characters lie elsewhere.
std::size_t sizeOf(DataType type);

/// Short name of the type, such as "u32".
std::string_view nameOf(DataType type);

/// Calls `visit` with a zero of the C++ type that holds one item. A text has no such type: it is taken for bytes.
template <typename Visit>
auto visitItem(DataType type, Visit visit)
{
    switch (type) {
    case DataType::Char:
        return visit(std::int8_t{0});
    case DataType::Int16:
        return visit(std::int16_t{0});
    case DataType::UInt16:
        return visit(std::uint16_t{0});
    case DataType::Int32:
        return visit(std::int32_t{0});
    case DataType::UInt32:
        return visit(std::uint32_t{0});
    case DataType::Int64:
        return visit(std::int64_t{0});
    case DataType::UInt64:
        return visit(std::uint64_t{0});
    case DataType::Float:
        return visit(float{0});
    case DataType::Double:
        return visit(double{0});
    case DataType::Bool:
        return visit(std::uint32_t{0});
    case DataType::Byte:
    case DataType::Text:
        break;
    }
    return visit(std::uint8_t{0});
}

/// The item at `place`, which need not be aligned, as a number.
double numberAt(DataType type, const void* place);
/// Stores the number at `place` as an item; what does not fit becomes the nearest value of the type, not-a-number 0.
void putNumber(DataType type, void* place, double value);
/// The item at `place` as text that reads back as the same value.
std::string textAt(DataType type, const void* place);
/// Reads an item from the whole of `text` and stores it at `place`. False, and nothing stored, when the text is no
/// value of the type.
bool putText(DataType type, void* place, std::string_view text);

} // namespace refhost
