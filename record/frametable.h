// The ledger of an HDF5 file: one row for each frame that counts.
#pragma once

#include "record/framesink.h"
#include "record/h5.h"

namespace record {

/// A row of the table, as HDF5 and its readers see it.
struct FrameRow {
    static constexpr std::size_t TEXT_BYTES = 256;

    std::int64_t number = 0; ///< in the series, from 0
    double time = 0;         ///< seconds since the start of the series
    double exposure = 0;     ///< seconds
    std::uint64_t missingBytes = 0;
    std::uint64_t zeroPixels = 0;
    std::uint64_t saturatedPixels = 0;
    char remarks[TEXT_BYTES] = {}; ///< metadata that the first frame did not have, "NAME=VALUE VALUE"; cut where longer
};

/// The table in a file. Rows wait until they are flushed, which is done behind the frames themselves: what the table
/// has a row for is in the file, whatever happened then.
class FrameTable {
public:
    static constexpr const char* NAME = "frame_table";

    explicit FrameTable(hid_t parent);

    void add(const FrameRow& row) { waiting.push_back(row); }
    /// Writes the rows that wait, and flushes the table.
    void flush();
    /// Rows that are safe in the file.
    hsize_t rows() const { return written; }

    /// All rows of the table in `parent`. Throws h5::Error.
    static std::vector<FrameRow> read(hid_t parent);

private:
    static h5::Handle rowType();

    h5::Growing table;
    std::vector<FrameRow> waiting;
    hsize_t written = 0;
};

} // namespace record
