// The ledger of an HDF5 file.
#include "record/frametable.h"

#include <cstddef>

namespace record {
namespace {

constexpr hsize_t ROWS_PER_CHUNK = 32;

void insert(hid_t type, const char* name, std::size_t offset, hid_t field)
{
    h5::check(H5Tinsert(type, name, offset, field));
}

} // namespace

FrameTable::FrameTable(hid_t parent) : table(parent, NAME, rowType(), {}, ROWS_PER_CHUNK) {}

h5::Handle FrameTable::rowType()
{
    const h5::Handle text(H5Tcopy(H5T_C_S1), H5Tclose);
    h5::check(H5Tset_size(text, FrameRow::TEXT_BYTES));
    h5::check(H5Tset_strpad(text, H5T_STR_NULLPAD));
    h5::Handle type(H5Tcreate(H5T_COMPOUND, sizeof(FrameRow)), H5Tclose);
    insert(type, "number", offsetof(FrameRow, number), H5T_NATIVE_INT64);
    insert(type, "time", offsetof(FrameRow, time), H5T_NATIVE_DOUBLE);
    insert(type, "exposure", offsetof(FrameRow, exposure), H5T_NATIVE_DOUBLE);
    insert(type, "missing_bytes", offsetof(FrameRow, missingBytes), H5T_NATIVE_UINT64);
    insert(type, "zero_pixels", offsetof(FrameRow, zeroPixels), H5T_NATIVE_UINT64);
    insert(type, "saturated_pixels", offsetof(FrameRow, saturatedPixels), H5T_NATIVE_UINT64);
    insert(type, "remarks", offsetof(FrameRow, remarks), text);
    return type;
}

void FrameTable::flush()
{
    const h5::Handle type = rowType();
    for (const FrameRow& row : waiting)
        table.put(written++, &row, type);
    waiting.clear();
    table.flush();
}

std::vector<FrameRow> FrameTable::read(hid_t parent)
{
    const h5::Handle dataset(H5Dopen2(parent, NAME, H5P_DEFAULT), H5Dclose);
    const h5::Handle space(H5Dget_space(dataset), H5Sclose);
    const hssize_t count = H5Sget_simple_extent_npoints(space);
    h5::check(count);
    std::vector<FrameRow> rows(static_cast<std::size_t>(count));
    if (!rows.empty())
        h5::check(H5Dread(dataset, rowType(), H5S_ALL, H5S_ALL, H5P_DEFAULT, rows.data()));
    return rows;
}

} // namespace record
