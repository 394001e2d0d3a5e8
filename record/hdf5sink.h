// Frames in an HDF5 file with the NeXus layout.
#pragma once

#include "record/framesink.h"
#include "record/h5.h"
#include "record/outputfile.h"

#include <map>

namespace record {

/// The file opens with the frames as its default plot:
///
///     entry                            NXentry: title, start_time, end_time, outcome, program_name
///       data                           NXdata
///         data                         frames x height x width counts, one chunk a frame
///         data_counter1                the second counter, where both are read
///         frame, time, y, x            axes: number in the series, seconds since its start, pixels
///       instrument                     NXinstrument
///         detector                     NXdetector: description, serial_number, chip_ids, firmware, plugin
///           data                       link to entry/data/data
///           count_time                 exposure of each frame in seconds
///           parameters, configuration  NXcollection: settings at the start
///           frame_metadata             NXcollection: frames x values, not-a-number for a frame without
///
/// Bad pixels have all bits set; the attribute `bad_pixel_value` of the counts tells the number.
class Hdf5Sink final : public FrameSink {
public:
    explicit Hdf5Sink(const OutputOptions& options);

    void begin(const SeriesInfo& info) override;
    void write(const FrameRecord& frame) override;
    void finish(const SeriesSummary& summary) override;
    std::string place() const override { return output.path().string(); }

private:
    /// A metadata block of one name, which has the same length in all frames.
    struct Block {
        h5::Growing dataset;
        std::size_t length;
    };

    template <typename Work>
    void guarded(Work work) const;
    void writeRoot();
    void writeEntry(const SeriesInfo& info);
    void writeDetector(const SeriesInfo& info);
    void writeSettings(const std::vector<SettingGroup>& groups);
    void writeData(const SeriesInfo& info);
    void writeMetaData(const std::vector<refhost::MetaData>& list);
    void closeObjects();

    OutputFile output;
    const int compression;
    h5::Handle file;
    h5::Handle entry;
    h5::Handle detector;
    h5::Handle data;
    h5::Handle metaData;
    std::vector<h5::Growing> counts; // one for each counter
    std::vector<h5::Growing> axes;   // frame, time, count_time
    std::map<std::string, Block> blocks;
    hsize_t written = 0;
};

} // namespace record
