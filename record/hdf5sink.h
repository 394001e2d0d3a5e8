// Frames in an HDF5 file with the NeXus layout.
#pragma once

#include "record/diskfile.h"
#include "record/framesink.h"
#include "record/frametable.h"
#include "record/h5.h"
#include "record/outputfile.h"

#include <atomic>
#include <chrono>
#include <map>
#include <optional>

namespace record {

/// The file opens with the frames as its default plot:
///
///     entry                            NXentry: title, start_time, end_time, outcome, program_name
///       data                           NXdata
///         data                         frames x height x width counts, one chunk a frame
///         data_counter1                the second counter, where both are read
///         frame, time, y, x            axes: number in the series, seconds since its start, pixels
///       totals                         NXcollection: frames requested, delivered, incomplete, missing, saturated
///       instrument                     NXinstrument
///         detector                     NXdetector: description, serial_number, chip_ids, firmware, plugin
///           data                       link to entry/data/data
///           count_time                 exposure of each frame in seconds
///           frame_table                a row for each frame that counts, see FrameRow
///           parameters, configuration  NXcollection: settings at the start
///           frame_metadata             NXcollection: frames x values, not-a-number for a frame without
///
/// Bad pixels have all bits set; the attribute `bad_pixel_value` of the counts tells the number.
///
/// The file is made when the first frame is there, and has its final name from then on. Others may read it while it
/// grows, and all that it will ever hold is created before they do: what a later frame brings that the first had not
/// goes as text into its row. While the series runs `outcome` is "recording"; a file that still says so was not closed,
/// and of it those frames count that the table has rows for.
class Hdf5Sink final : public FrameSink {
public:
    static constexpr const char* RECORDING = "recording"; ///< outcome of a series that runs

    explicit Hdf5Sink(const OutputOptions& options);
    ~Hdf5Sink() override;

    void begin(const SeriesInfo& info) override;
    void encode(const PictureMaker& maker, const refhost::Frame& frame, FrameRecord& record,
                bool inHurry) const override;
    void write(const FrameRecord& frame) override;
    void flush() override;
    void finish(const SeriesSummary& summary) override;
    std::string place() const override { return output.path().string(); }
    std::size_t safeFrames() const override { return safe; }

private:
    /// A metadata block of one name, which has the same length in all frames.
    struct Block {
        h5::Growing dataset;
        std::size_t length;
    };
    /// What is overwritten at the end.
    struct Closing {
        h5::Handle title, endTime, outcome, delivered, incomplete, missing, saturated;
    };

    template <typename Work>
    void guarded(Work work);
    void createFile(const FrameRecord& first);
    void writeRoot();
    void writeEntry();
    void writeTotals();
    void writeDetector();
    void writeSettings(hid_t detector);
    void writeData();
    void createBlocks(hid_t detector, const std::vector<refhost::MetaData>& list);
    void append(const FrameRecord& frame);
    std::string appendBlocks(const std::vector<refhost::MetaData>& list);
    void count(const FrameRecord& frame);
    void flushAll();
    void overwriteClosing(const SeriesSummary& summary);
    void closeObjects();

    OutputFile output;
    const int compression;
    SeriesInfo series;
    std::unique_ptr<DiskFile> disk; // outlives what HDF5 has open in it
    h5::Handle file;
    h5::Handle entry;
    h5::Handle data;
    std::vector<h5::Growing> counts; // one for each counter
    std::vector<h5::Growing> axes;   // frame, time, count_time
    std::map<std::string, Block> blocks;
    std::optional<FrameTable> table;
    Closing closing;
    hsize_t written = 0;
    std::uint64_t incompleteFrames = 0;
    std::uint64_t saturatedPixels = 0;
    bool failed = false;              // the disk has refused a write
    std::atomic<std::size_t> safe{0}; // read by other threads
};

} // namespace record
