// Frames as coloured PNG pictures, one file for each picture.
#pragma once

#include "record/framesink.h"
#include "record/outputfile.h"

#include <atomic>

namespace record {

/// A series of one picture has the name that was given. Otherwise the number of the frame, from 0 and with at least
/// four digits, stands before the extension, and with two counters the counter behind it: name_0007_c1.png. Each file
/// appears when it is complete. A picture's range of counts is automatic, or the same for all when one is given.
class PngSink final : public FrameSink {
public:
    explicit PngSink(const OutputOptions& options);

    void begin(const SeriesInfo& info) override;
    void write(const FrameRecord& frame) override;
    void finish(const SeriesSummary& summary) override;
    std::string place() const override;
    std::size_t safeFrames() const override { return written; }

    /// The name of one picture of a series with `frames` frames and `pictures` pictures in each.
    static std::filesystem::path nameOf(const std::filesystem::path& base, long frame, std::size_t picture,
                                        unsigned frames, unsigned pictures);

private:
    void writePicture(const Picture& picture, const std::filesystem::path& path) const;

    const OutputOptions options;
    std::unique_ptr<OutputFile> probe; // shows at the start that the folder can be written
    unsigned frames = 1;
    unsigned picturesPerFrame = 1;
    std::atomic<std::size_t> written{0}; // read by other threads
};

} // namespace record
