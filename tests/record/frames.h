// Frames, and the files that were written of them.
#pragma once

#include "record/error.h"
#include "record/framesink.h"
#include "record/h5.h"
#include "refhost/host.h"
#include "support/tempfolder.h"

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <tiffio.h>
#include <vector>

namespace support {

/// A frame of chips whose pixels `value(chip, x, y)` tells.
template <typename Item>
refhost::FramePtr frame(refhost::Host& host, unsigned chips,
                        const std::function<Item(unsigned chip, unsigned x, unsigned y)>& value)
{
    dv::IMpxFrame* made = host.frameFactory()->createFrame(256 * chips, 256, sizeof(Item) == 4 ? 5 : 2);
    auto* pixels = static_cast<Item*>(made->dataPointer(0));
    for (unsigned chip = 0; chip < chips; ++chip)
        for (unsigned y = 0; y < 256; ++y)
            for (unsigned x = 0; x < 256; ++x)
                *pixels++ = value(chip, x, y);
    return refhost::adopt(made);
}

/// An HDF5 file that was written.
class Hdf5File {
public:
    explicit Hdf5File(const std::filesystem::path& path)
        : file(H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose)
    {
    }

    /// Throws when it is not there.
    record::h5::Handle dataset(const char* path) const { return {H5Dopen2(file, path, H5P_DEFAULT), H5Dclose}; }
    record::h5::Handle group(const char* path) const { return {H5Gopen2(file, path, H5P_DEFAULT), H5Gclose}; }
    std::vector<hsize_t> shape(const char* path) const
    {
        const record::h5::Handle space(H5Dget_space(dataset(path)), H5Sclose);
        std::vector<hsize_t> sizes(static_cast<std::size_t>(H5Sget_simple_extent_ndims(space)));
        H5Sget_simple_extent_dims(space, sizes.data(), nullptr);
        return sizes;
    }
    std::vector<double> numbers(const char* path) const
    {
        const record::h5::Handle space(H5Dget_space(dataset(path)), H5Sclose);
        std::vector<double> values(static_cast<std::size_t>(H5Sget_simple_extent_npoints(space)));
        record::h5::check(H5Dread(dataset(path), H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data()));
        return values;
    }

private:
    record::h5::Handle file;
};

/// A page of a TIFF file that was written.
struct TiffPage {
    std::uint16_t bits = 0; ///< of a count
    std::string description;
    std::vector<std::uint32_t> counts;
};

inline std::vector<TiffPage> tiffPages(const std::filesystem::path& path)
{
    const std::unique_ptr<TIFF, decltype(&TIFFClose)> tiff(TIFFOpen(path.c_str(), "r"), TIFFClose);
    std::vector<TiffPage> pages;
    do {
        TiffPage& page = pages.emplace_back();
        const char* description = "";
        std::uint32_t rows = 0;
        TIFFGetField(tiff.get(), TIFFTAG_IMAGEDESCRIPTION, &description);
        TIFFGetField(tiff.get(), TIFFTAG_BITSPERSAMPLE, &page.bits);
        TIFFGetField(tiff.get(), TIFFTAG_IMAGELENGTH, &rows);
        page.description = description;
        std::vector<std::uint16_t> line(static_cast<std::size_t>(TIFFScanlineSize(tiff.get())) / 2);
        for (std::uint32_t row = 0; row < rows && TIFFReadScanline(tiff.get(), line.data(), row) == 1; ++row)
            for (std::size_t i = 0; i < line.size(); i += page.bits / 16)
                page.counts.push_back(page.bits == 32 ? std::uint32_t{line[i + 1]} << 16 | line[i] : line[i]);
    } while (TIFFReadDirectory(tiff.get()) == 1);
    return pages;
}

} // namespace support
