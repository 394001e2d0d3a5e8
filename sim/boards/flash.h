// The SPI flash of an interface board, and the parameter store that it holds.
#pragma once

#include "sim/wire/spi.h"

#include <nlohmann/json_fwd.hpp>

namespace sim {

/// Builds the contents of a flash:
///   {"parameters": [{"name": "BiasMin", "type": "double", "value": 0.0 or a list or, for "char", a text}, ...],
///    "magic": "IBMD", "version": 1, "total_size": n, "record_size": n}
/// where all but the parameters are there to make a store that is broken. {"image": [bytes]} gives raw contents, and
/// an empty object a blank flash. Types: char byte i16 u16 i32 u32 i64 u64 float double bool.
/// Throws std::runtime_error for a bad parameter.
Bytes flashImage(const nlohmann::json& flash);

class LATIXELSIM_API Flash : public SpiSlave {
public:
    Flash() : SpiSlave("flash", 4, 2) {}

    void setContents(Bytes bytes) { contents = std::move(bytes); }
    Bytes exchange(std::span<const std::uint8_t> sent, const Complain& complain) override;

    /// Bytes that were read since the board was made.
    std::size_t bytesRead() const { return readCount; }

private:
    Bytes contents;
    std::size_t readCount = 0;
};

} // namespace sim
