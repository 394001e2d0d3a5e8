// The host's frame: pixels and named metadata.
#pragma once

#include "host/impxframe.h"
#include "refhost/datatypes.h"
#include "refhost/ledger.h"

#include <atomic>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace refhost {

/// A named block that the plug-in attached to a frame.
struct MetaData {
    std::string name;
    std::string description;
    DataType type = DataType::Byte;
    std::vector<unsigned char> bytes;

    /// The items as doubles, whatever their type; empty for a text.
    std::vector<double> numbers() const;
};

class Frame;

struct FrameRelease {
    void operator()(Frame* frame) const;
};
/// A frame that the host owns, released through its `destroy`.
using FramePtr = std::unique_ptr<Frame, FrameRelease>;

/// A matrix of counts, zero at first. A frame belongs to one thread at a time. Recorded as complaints: a second
/// `destroy`, any use after it, metadata without a name, of an unknown type, or of a size that is no multiple of the
/// type's, a buffer whose items are not as wide as the pixels.
class Frame final : public dv::IMpxFrame, public Tracked {
public:
    Frame(unsigned width, unsigned height, DataType type, const std::shared_ptr<Ledger>& ledger);

    int addMetaData(const char* name, const char* description, int dataType, const void* data,
                    std::size_t byteSize) override;
    void destroy() override;
    int acquireData(dv::IRefByteBuff* buffer, double zero) override;
    void* dataPointer(double zero) override;
    std::size_t pixelCount() override;

    /// Nominal size: the chips' blocks of 256 times 256 pixels lie one after another.
    unsigned width() const { return frameWidth; }
    unsigned height() const { return frameHeight; }
    DataType type() const { return pixelType; }
    std::span<const unsigned char> bytes() const { return pixels; }
    /// The pixel as a number, or 0 past the end.
    std::uint64_t pixel(std::size_t index) const;
    const std::vector<MetaData>& metaData() const { return blocks; }
    /// The block of that name, or null.
    const MetaData* findMetaData(const std::string& name) const;

private:
    friend FramePtr adopt(dv::IMpxFrame* frame);

    bool usable(const char* operation) const;
    void complain(const std::string& what) const;

    const unsigned frameWidth;
    const unsigned frameHeight;
    const DataType pixelType;
    const std::weak_ptr<Ledger> ledger;
    std::atomic<bool> released{false};
    bool handedOver = false; // to the host
    std::vector<unsigned char> pixels;
    std::vector<MetaData> blocks;
};

/// Takes over a frame that the plug-in handed out; null stays null. Every frame comes from this host's factory.
FramePtr adopt(dv::IMpxFrame* frame);

} // namespace refhost
