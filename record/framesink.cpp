// Choosing a sink.
#include "apps/latixel/framesink.h"

#include "apps/latixel/hdf5sink.h"
#include "apps/latixel/nonesink.h"
#include "apps/latixel/pngsink.h"
#include "apps/latixel/tiffsink.h"

#include <algorithm>
#include <cctype>

namespace tool {

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

} // namespace tool
