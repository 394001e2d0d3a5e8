// The host's frame: a matrix of counts with named metadata.
#pragma once

#include "host/datatype.h"
#include "host/values.h"

#include <cstddef>

namespace dv {

class IMpxFrame {
public:
    /// Attaches a named block of `byteSize` bytes of the _DataType `dataType`; the frame copies it.
    virtual int addMetaData(const char* name, const char* description, int dataType, const void* data,
                            std::size_t byteSize) = 0;
    /// Releases the frame.
    virtual void destroy() = 0;
    /// Makes `buffer` refer to the frame's pixels. `zero` is 0.0.
    virtual int acquireData(IRefByteBuff* buffer, double zero) = 0;
    /// First pixel. `zero` is 0.0.
    virtual void* dataPointer(double zero) = 0;
    /// Number of pixels.
    virtual std::size_t pixelCount() = 0;
};

} // namespace dv
