// Frames that are taken and not kept.
#pragma once

#include "record/framesink.h"

namespace record {

class NoneSink final : public FrameSink {
public:
    void begin(const SeriesInfo&) override {}
    void write(const FrameRecord&) override {}
    void finish(const SeriesSummary&) override {}
    std::string place() const override { return "nowhere"; }
};

} // namespace record
