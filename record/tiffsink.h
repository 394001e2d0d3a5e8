// Frames as the pages of one TIFF file.
#pragma once

#include "record/framesink.h"
#include "record/outputfile.h"

#include <memory>
#include <tiffio.h>

namespace record {

/// Each picture is a page of unsigned counts, 32 bits for Medipix3 and 16 bits for Medipix2 and Timepix; with two
/// counters the pages of a frame follow each other, the low counter first. A page's description is a JSON object with
/// the frame's number, times, counter and metadata; that of the first page also has the device and its settings.
/// Files that may grow beyond 4 GB are BigTIFF.
class TiffSink final : public FrameSink {
public:
    explicit TiffSink(const OutputOptions& options);

    void begin(const SeriesInfo& info) override;
    void write(const FrameRecord& frame) override;
    void finish(const SeriesSummary& summary) override;
    std::string place() const override { return file.path().string(); }

private:
    struct Close {
        void operator()(TIFF* tiff) const { TIFFClose(tiff); }
    };

    void writePage(const Picture& picture, const std::string& description);
    void setTags(const Picture& picture, const std::string& description);
    [[noreturn]] void fail() const;

    OutputFile file;
    const int compression;
    SeriesInfo series;
    std::unique_ptr<TIFF, Close> tiff;
    bool firstPage = true;
};

} // namespace record
