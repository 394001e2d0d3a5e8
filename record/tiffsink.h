// Frames as the pages of one TIFF file.
#pragma once

#include "record/diskfile.h"
#include "record/framesink.h"
#include "record/outputfile.h"
#include "record/tiffchain.h"

#include <atomic>
#include <functional>
#include <memory>
#include <tiffio.h>

namespace record {

/// Each picture is a page of unsigned counts, 32 bits for Medipix3 and 16 bits for Medipix2 and Timepix; with two
/// counters the pages of a frame follow each other, the low counter first. A page's description is a JSON object with
/// the frame's number, times, counter and metadata; that of the first page also has the device and its settings.
/// Files that may grow beyond 4 GB are BigTIFF.
///
/// The file has its final name from its first page on. The first page's description tells how the series ended, and
/// says "recording" until then; of a file that still says so the whole pages count.
class TiffSink final : public FrameSink {
public:
    static constexpr const char* RECORDING = "recording"; ///< outcome of a series that runs
    static constexpr std::size_t OUTCOME_ROOM = 240;      ///< bytes; blanks behind the outcome

    explicit TiffSink(const OutputOptions& options);
    ~TiffSink() override;

    void begin(const SeriesInfo& info) override;
    void write(const FrameRecord& frame) override;
    void finish(const SeriesSummary& summary) override;
    void flush() override;
    std::string place() const override { return output.path().string(); }
    std::size_t safeFrames() const override { return safe; }

    using WriteAt = std::function<bool(std::uint64_t offset, const std::string& text)>;
    /// Puts the outcome into the description of a file's first page, in place. False where there is no room for one.
    static bool writeOutcome(const TiffPageInfo& page, const std::string& outcome, const WriteAt& write);

private:
    struct Close {
        void operator()(TIFF* tiff) const { TIFFClose(tiff); }
    };

    void createFile();
    std::string describePage(const FrameRecord& frame, std::size_t picture, bool first) const;
    void writePage(const Picture& picture, const std::string& description);
    void setTags(const Picture& picture, const std::string& description);
    void check();
    [[noreturn]] void fail();

    OutputFile output;
    const int compression;
    SeriesInfo series;
    std::unique_ptr<DiskFile> disk; // outlives what the library has open in it
    std::uint64_t position = 0;     // of the library in the file
    std::unique_ptr<TIFF, Close> tiff;
    bool failed = false;
    std::atomic<std::size_t> safe{0}; // read by other threads
};

} // namespace record
