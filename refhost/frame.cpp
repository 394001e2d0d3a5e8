// The host's frame.
#include "refhost/frame.h"

#include <algorithm>

namespace refhost {

std::vector<double> MetaData::numbers() const
{
    std::vector<double> values;
    if (type == DataType::Text)
        return values;
    for (std::size_t at = 0; at + sizeOf(type) <= bytes.size(); at += sizeOf(type))
        values.push_back(numberAt(type, bytes.data() + at));
    return values;
}

void FrameRelease::operator()(Frame* frame) const
{
    frame->destroy();
}

FramePtr adopt(dv::IMpxFrame* handedOut)
{
    auto* frame = static_cast<Frame*>(handedOut);
    if (frame == nullptr || !frame->usable("handing out"))
        return nullptr;
    if (frame->handedOver) {
        frame->complain("was handed out twice");
        return nullptr;
    }
    frame->handedOver = true;
    if (const auto books = frame->ledger.lock())
        books->handedOver();
    return FramePtr(frame);
}

Frame::Frame(unsigned width, unsigned height, DataType type, const std::shared_ptr<Ledger>& books)
    : frameWidth(width),
      frameHeight(height),
      pixelType(type),
      ledger(books),
      pixels(std::size_t{width} * height * sizeOf(type))
{
    books->born(Ledger::Kind::PluginFrame);
}

int Frame::addMetaData(const char* name, const char* description, int dataType, const void* data, std::size_t byteSize)
{
    if (!usable("addMetaData"))
        return -1;
    const auto type = dataTypeOf(dataType);
    if (name == nullptr || *name == '\0' || !type || (data == nullptr && byteSize != 0)) {
        complain("metadata without a name, without data or of the unknown type " + std::to_string(dataType));
        return -1;
    }
    if (*type != DataType::Text && byteSize % sizeOf(*type) != 0) {
        complain("metadata " + std::string(name) + " of " + std::to_string(byteSize) +
                 " bytes, which is no multiple of " + std::to_string(sizeOf(*type)));
        return -1;
    }
    const auto* bytes = static_cast<const unsigned char*>(data);
    blocks.push_back({name, description != nullptr ? description : "", *type, {bytes, bytes + byteSize}});
    return 0;
}

void Frame::destroy()
{
    if (released.exchange(true)) {
        complain("was destroyed twice");
        return;
    }
    pixels = std::vector<unsigned char>();
    blocks = std::vector<MetaData>();
    const auto kind = handedOver ? Ledger::Kind::HostFrame : Ledger::Kind::PluginFrame;
    if (const auto books = ledger.lock())
        books->buried(kind, std::unique_ptr<Tracked>(this));
    else
        delete this;
}

int Frame::acquireData(dv::IRefByteBuff* buffer, double)
{
    if (!usable("acquireData"))
        return -1;
    if (buffer == nullptr) {
        complain("acquireData into a null buffer");
        return -1;
    }
    const int result = buffer->setByte(pixels.data(), pixels.size());
    if (buffer->size() != pixelCount()) {
        complain("its " + std::to_string(pixelCount()) + " pixels became " + std::to_string(buffer->size()) +
                 " items of another width");
    }
    return result;
}

void* Frame::dataPointer(double)
{
    return usable("dataPointer") ? pixels.data() : nullptr;
}

std::size_t Frame::pixelCount()
{
    return usable("pixelCount") ? std::size_t{frameWidth} * frameHeight : 0;
}

std::uint64_t Frame::pixel(std::size_t index) const
{
    const std::size_t at = index * sizeOf(pixelType);
    return at < pixels.size() ? static_cast<std::uint64_t>(numberAt(pixelType, pixels.data() + at)) : 0;
}

const MetaData* Frame::findMetaData(const std::string& name) const
{
    const auto found =
        std::find_if(blocks.begin(), blocks.end(), [&](const MetaData& block) { return block.name == name; });
    return found != blocks.end() ? &*found : nullptr;
}

bool Frame::usable(const char* operation) const
{
    if (released)
        complain(std::string(operation) + " after it was destroyed");
    return !released;
}

void Frame::complain(const std::string& what) const
{
    if (const auto books = ledger.lock())
        books->complain("a frame of " + std::to_string(frameWidth) + "x" + std::to_string(frameHeight) + ": " + what);
}

} // namespace refhost
