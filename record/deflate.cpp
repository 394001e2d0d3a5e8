// Compression of chunks.
#include "record/deflate.h"

#include <cstddef>
#include <libdeflate.h>
#include <memory>

namespace record {
namespace {

struct Free {
    void operator()(libdeflate_compressor* compressor) const { libdeflate_free_compressor(compressor); }
};

/// A compressor is slow to make and serves one thread: each thread keeps that of the level it used last.
libdeflate_compressor* compressorOf(int level)
{
    thread_local int madeFor = 0;
    thread_local std::unique_ptr<libdeflate_compressor, Free> compressor;
    if (madeFor != level) {
        compressor.reset(libdeflate_alloc_compressor(level));
        madeFor = level;
    }
    return compressor.get();
}

} // namespace

std::vector<unsigned char> deflated(const std::vector<unsigned char>& bytes, int level)
{
    libdeflate_compressor* compressor = compressorOf(level);
    if (compressor == nullptr)
        return {};
    // A room that is kept: fresh memory would cost more than the copy of what is a fraction of it.
    thread_local std::vector<unsigned char> room;
    room.resize(bytes.size());
    const auto size = libdeflate_zlib_compress(compressor, bytes.data(), bytes.size(), room.data(), room.size());
    return {room.begin(), room.begin() + static_cast<std::ptrdiff_t>(size)};
}

} // namespace record
