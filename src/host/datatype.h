// Codes of the data types that cross the boundary: of parameters, of a frame's pixels, of blocks of metadata.
#pragma once

#include <cstddef>
#include <iterator>

/// What `IParamMgr::addParam`, `IFrameFactory::createFrame` and `IMpxFrame::addMetaData` take as a data type. Indexes
/// `typeNames` and, but for the last, `sizeofType`. The same numbers stand in the boards' flash memories.
enum _DataType : int {
    DTYPE_CHAR = 0,
    DTYPE_BYTE = 1,
    DTYPE_I16 = 2,
    DTYPE_U16 = 3,
    DTYPE_I32 = 4,
    DTYPE_U32 = 5,
    DTYPE_I64 = 6,
    DTYPE_U64 = 7,
    DTYPE_FLOAT = 8,
    DTYPE_DOUBLE = 9,
    DTYPE_BOOL = 10,
    DTYPE_STRING = 11,
    DTYPE_UNKNOWN = 12,
};

/// Name of each type; hosts compare the last one as it is spelled here.
inline constexpr const char* typeNames[] = {"char", "byte",  "i16",    "u16",  "i32",    "u32",   "i64",
                                            "u64",  "float", "double", "bool", "string", "uknown"};

/// Bytes of one item of each type; a string counts as its pointer. `DTYPE_UNKNOWN` has no size.
inline constexpr std::size_t sizeofType[] = {1, 1, 2, 2, 4, 4, 8, 8, 4, 8, 4, 8};

static_assert(std::size(typeNames) == DTYPE_UNKNOWN + 1 && std::size(sizeofType) == DTYPE_UNKNOWN);
