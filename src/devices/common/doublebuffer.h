// The two buffers between an acquisition thread and the host: one takes the stream from the link while the frame before
// is decoded from the other.
#pragma once

#include "shared/buffer.h"
#include "shared/osdepend.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace HwLatixel {

/// A stream buffer and its copy, each with a lock of its own, so that decoding the copy holds up nobody who receives.
/// The locks keep each access whole; that a frame is not overwritten before its reader has come is the hand-shake's
/// part. Order: the copy's lock before the stream's, and both behind the locks of the device.
class DoubleBuffer {
public:
    /// Sets the size of both, cleared.
    void resize(std::size_t size)
    {
        ThreadLock copyLock(&copySync);
        ThreadLock streamLock(&streamSync);
        fresh = false;
        missing = 0;
        copiedMissing = 0;
        stream.reinit(size);
        stream.zero();
        copied.reinit(size);
        copied.zero();
    }
    /// Runs `fill(std::span<unsigned char>)` on the stream. What the stream held before is no frame any more.
    template <typename Fill>
    auto receive(Fill fill)
    {
        ThreadLock lock(&streamSync);
        fresh = false;
        return fill(std::span<unsigned char>(stream.data(), stream.size()));
    }
    /// The stream is a frame from now on, of which so many bytes have not come.
    void announce(std::size_t missingBytes)
    {
        ThreadLock lock(&streamSync);
        fresh = true;
        missing = missingBytes;
    }
    /// Takes the stream over into the copy.
    void copy()
    {
        ThreadLock copyLock(&copySync);
        ThreadLock streamLock(&streamSync);
        std::copy_n(stream.data(), stream.size(), copied.data());
        copiedMissing = missing;
        fresh = false;
    }
    /// The same, unless the frame was taken over before: then the stream may hold a part of the next one. Whether it
    /// was taken over now.
    bool copyAnnounced()
    {
        ThreadLock copyLock(&copySync);
        ThreadLock streamLock(&streamSync);
        const bool taken = fresh;
        // What the copy held is of no use any more, and the stream is filled anew: they change places.
        if (taken)
            stream.swap(copied);
        if (taken)
            copiedMissing = missing;
        fresh = false;
        return taken;
    }
    /// Bytes that have not come of the frame in the copy.
    std::size_t copyMissing()
    {
        ThreadLock lock(&copySync);
        return copiedMissing;
    }
    std::size_t size()
    {
        ThreadLock lock(&streamSync);
        return stream.size();
    }
    /// Runs `decode(std::span<const unsigned char>)` on the copy, or on the stream.
    template <typename Decode>
    auto read(bool fromCopy, Decode decode)
    {
        ThreadLock lock(fromCopy ? &copySync : &streamSync);
        const Buffer<unsigned char>& source = fromCopy ? copied : stream;
        return decode(std::span<const unsigned char>(source.data(), source.size()));
    }

private:
    ThreadSyncObject streamSync;
    ThreadSyncObject copySync;
    Buffer<unsigned char> stream{0, false}; ///< guarded by streamSync
    Buffer<unsigned char> copied{0, false}; ///< guarded by copySync
    bool fresh = false;                     ///< streamSync; the stream is a frame that nobody has taken over
    std::size_t missing = 0;                ///< streamSync; of the stream
    std::size_t copiedMissing = 0;          ///< copySync; of the copy
};

} // namespace HwLatixel
