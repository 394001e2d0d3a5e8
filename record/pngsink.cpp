// Frames as coloured PNG pictures.
#include "record/pngsink.h"

#include "record/error.h"

#include <algorithm>
#include <png.h>

namespace record {
namespace {

struct Free {
    void operator()(png_image* image) const { png_image_free(image); }
};

} // namespace

PngSink::PngSink(const OutputOptions& given) : options(given), probe(std::make_unique<OutputFile>(given.path, true)) {}

void PngSink::begin(const SeriesInfo& info)
{
    frames = info.frames;
    picturesPerFrame = info.picturesPerFrame;
    probe.reset();
    if (options.mayReplace)
        return;
    for (const long frame : {0L, static_cast<long>(frames) - 1})
        OutputFile(nameOf(options.path, frame, 0, frames, picturesPerFrame), false);
}

std::filesystem::path PngSink::nameOf(const std::filesystem::path& base, long frame, std::size_t picture,
                                      unsigned frames, unsigned pictures)
{
    std::string suffix;
    if (frames > 1) {
        const std::string number = std::to_string(frame);
        const std::size_t digits = std::max<std::size_t>(4, std::to_string(frames - 1).size());
        suffix = "_" + std::string(digits - std::min(digits, number.size()), '0') + number;
    }
    if (pictures > 1)
        suffix += "_c" + std::to_string(picture);
    return base.parent_path() / (base.stem().string() + suffix + base.extension().string());
}

void PngSink::write(const FrameRecord& frame)
{
    for (std::size_t i = 0; i < frame.pictures.size(); ++i)
        writePicture(frame.pictures[i], nameOf(options.path, frame.index, i, frames, picturesPerFrame));
    ++written;
}

void PngSink::writePicture(const Picture& picture, const std::filesystem::path& path) const
{
    OutputFile file(path, options.mayReplace);
    const auto indexes = colourIndexes(picture, options.range ? *options.range : automaticRange(picture));

    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = picture.width;
    image.height = picture.height;
    image.format = PNG_FORMAT_RGB_COLORMAP;
    image.colormap_entries = Colormap::STEPS + 1;
    const std::unique_ptr<png_image, Free> release(&image);
    // A colour is three bytes in a row, as the library wants them.
    static_assert(sizeof(Colour) == 3);
    const auto& colours = colormap(options.colours).colours;
    if (png_image_write_to_file(&image, file.temporary().c_str(), 0, indexes.data(), 0, colours.data()) == 0)
        throw OutputError("cannot write " + path.string() + ": " + image.message);
    file.complete();
}

void PngSink::finish(const SeriesSummary&) {}

std::string PngSink::place() const
{
    return nameOf(options.path, 0, 0, frames, picturesPerFrame).string() +
           (frames > 1 || picturesPerFrame > 1 ? " and following" : "");
}

} // namespace record
