// HDF5 on a file of ours instead of its own file functions.
#pragma once

#include "record/diskfile.h"

#include <hdf5.h>

namespace record::h5 {

/// Makes files that are opened with these access properties lie in `disk`, which must outlive them. The files are
/// those that HDF5's own driver makes, and can be read by it meanwhile. Throws Error.
void setDisk(hid_t accessProperties, DiskFile& disk);

} // namespace record::h5
