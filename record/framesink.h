// Where the frames of a series go.
#pragma once

#include "record/picture/colormap.h"
#include "record/picture/contrast.h"
#include "record/picture/layout.h"
#include "refhost/frame.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace record {

/// One setting of the device at the start of a series.
struct Setting {
    std::string name;
    std::string description;
    std::variant<std::string, double, std::vector<double>> value;
};

/// Settings that belong together; the name is a word.
struct SettingGroup {
    std::string name;
    std::vector<Setting> settings;
};

/// What is known of a series before its first frame.
struct SeriesInfo {
    std::string device;
    std::string serial;
    std::string firmware;
    std::string pluginVersion;
    std::string startTime; ///< ISO 8601
    std::vector<std::string> chipIDs;
    unsigned width = 0; ///< of a picture
    unsigned height = 0;
    unsigned picturesPerFrame = 1;
    unsigned bitsPerPixel = 32;     ///< 16 or 32 in files of counts; bad pixels have all bits set
    std::uint32_t highestCount = 0; ///< of a pixel's counter; 0 where it is not known
    unsigned frames = 1;            ///< as asked for
    double seconds = 1;
    std::vector<SettingGroup> settings;
};

/// A picture as it goes into the file: its bytes behind the filters of the format.
struct Chunk {
    std::vector<unsigned char> bytes;
    bool deflated = false;
};

/// One frame on its way to a file.
struct FrameRecord {
    long index = 0;
    double arrival = 0;  ///< seconds since the start of the series
    double exposure = 0; ///< seconds
    std::vector<refhost::MetaData> metaData;
    std::uint64_t missingBytes = 0; ///< that the device did not deliver; not 0 marks the frame as incomplete
    PixelTally tally;
    std::vector<Picture> pictures; ///< or instead of them
    std::vector<Chunk> chunks;     ///< for formats whose `encode` makes these
};

/// What is known at the end.
struct SeriesSummary {
    std::string endTime; ///< ISO 8601
    std::string outcome; ///< "finished", "stopped" or the device's error
};

/// Takes frames one after another. `begin`, `write`, `flush` and `finish` come in this order, never two at a time, but
/// maybe from different threads. They throw OutputError when the output cannot be written; what was written is kept,
/// and `finish` may still be called then. Without a frame nothing is left of a single file.
class FrameSink {
public:
    virtual ~FrameSink() = default;

    virtual void begin(const SeriesInfo& info) = 0;
    /// Lays a frame out as `write` wants it: the larger part of the work, which several threads may do at a time, for
    /// frames of a series that has begun. With `inHurry` there is no time to make it small. Leaves pictures and chunks
    /// empty when the frame is not what `maker` is for.
    virtual void encode(const PictureMaker& maker, const refhost::Frame& frame, FrameRecord& record,
                        bool inHurry) const;
    virtual void write(const FrameRecord& frame) = 0;
    /// Makes sure that what was written outlives the process. Comes at least once a second while frames come.
    virtual void flush() {}
    virtual void finish(const SeriesSummary& summary) = 0;
    /// Where the frames are, for people.
    virtual std::string place() const = 0;
    /// Frames that are in the file whatever happens from now on.
    virtual std::size_t safeFrames() const = 0;
};

enum class OutputFormat { Hdf5, Tiff, Png, None };

struct OutputOptions {
    std::filesystem::path path;
    OutputFormat format = OutputFormat::None;
    std::optional<int> compression; ///< 0 to 9; HDF5 takes 1 by default and TIFF 0
    ColormapName colours = ColormapName::Viridis;
    std::optional<ContrastRange> range; ///< automatic for each picture when not given
    bool mayReplace = false;
};

/// The format that the file's extension stands for: .h5, .hdf5, .nxs, .tif, .tiff, .png; nothing for any other.
std::optional<OutputFormat> formatOf(const std::filesystem::path& path);

/// The sink of the format. Throws OutputError when the place cannot be written.
std::unique_ptr<FrameSink> makeSink(const OutputOptions& options);

} // namespace record
