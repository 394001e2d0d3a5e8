// Compression of chunks, as every reader of HDF5 opens it.
#pragma once

#include <vector>

namespace record {

/// The bytes as a zlib stream. `level` is 1 to 9. Empty when the stream would be longer than the bytes. Called from
/// any thread.
std::vector<unsigned char> deflated(const std::vector<unsigned char>& bytes, int level);

} // namespace record
