// Frames that are taken and not kept.
#pragma once

#include "record/framesink.h"

#include <atomic>

namespace record {

class NoneSink final : public FrameSink {
public:
    void begin(const SeriesInfo&) override {}
    void write(const FrameRecord&) override { ++taken; }
    void finish(const SeriesSummary&) override {}
    std::string place() const override { return "nowhere"; }
    std::size_t safeFrames() const override { return taken; }

private:
    std::atomic<std::size_t> taken{0};
};

} // namespace record
