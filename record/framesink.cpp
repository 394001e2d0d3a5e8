// Choosing a sink.
#include "record/framesink.h"

#include "record/hdf5sink.h"
#include "record/nonesink.h"
#include "record/pngsink.h"
#include "record/tiffsink.h"

#include <algorithm>
#include <cctype>

namespace record {

void FrameSink::encode(const PictureMaker& maker, const refhost::Frame& frame, FrameRecord& record, bool) const
{
    record.pictures = maker.make(frame);
    record.tally = maker.tally(record.pictures);
}

std::optional<OutputFormat> formatOf(const std::filesystem::path& path)
{
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (extension == ".h5" || extension == ".hdf5" || extension == ".nxs")
        return OutputFormat::Hdf5;
    if (extension == ".tif" || extension == ".tiff")
        return OutputFormat::Tiff;
    if (extension == ".png")
        return OutputFormat::Png;
    return std::nullopt;
}

std::unique_ptr<FrameSink> makeSink(const OutputOptions& options)
{
    switch (options.format) {
    case OutputFormat::Hdf5:
        return std::make_unique<Hdf5Sink>(options);
    case OutputFormat::Tiff:
        return std::make_unique<TiffSink>(options);
    case OutputFormat::Png:
        return std::make_unique<PngSink>(options);
    case OutputFormat::None:
        break;
    }
    return std::make_unique<NoneSink>();
}

} // namespace record
