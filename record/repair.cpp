// Mends files whose writer was killed.
#include "record/repair.h"

#include "record/check.h"
#include "record/diskfile.h"
#include "record/error.h"
#include "record/frametable.h"
#include "record/text.h"
#include "record/tiffsink.h"

#include <fstream>

namespace record {
namespace {

constexpr const char* OUTCOME = "not closed";
constexpr const char* DETECTOR = "/entry/instrument/detector";

h5::Handle openMarked(const std::filesystem::path& path)
{
    const h5::Handle access(H5Pcreate(H5P_FILE_ACCESS), H5Pclose);
    h5::check(H5Pset_libver_bounds(access, H5F_LIBVER_V110, H5F_LIBVER_V110));
    h5::check(H5Pset_file_locking(access, false, true)); // there is no writer: the lock above says so
    // Two switches that HDF5 has for this: the mark is cleared, and the end that the file tells of may be wrong.
    const hbool_t yes = true;
    h5::check(H5Pset(access, "clear_status_flags", &yes));
    h5::check(H5Pset(access, "skip_eof_check", &yes));
    h5::Handle file(H5Fopen(path.c_str(), H5F_ACC_RDWR, access), H5Fclose);
    // The end that it tells of is older than what lies behind: closing would cut that off.
    h5::check(H5Fincrement_filesize(file, 0));
    return file;
}

void cut(hid_t parent, const std::string& name, hsize_t rows)
{
    const h5::Handle dataset(H5Dopen2(parent, name.c_str(), H5P_DEFAULT), H5Dclose);
    const h5::Handle space(H5Dget_space(dataset), H5Sclose);
    std::vector<hsize_t> extent(static_cast<std::size_t>(std::max(1, H5Sget_simple_extent_ndims(space))));
    h5::check(H5Sget_simple_extent_dims(space, extent.data(), nullptr));
    if (extent[0] <= rows)
        return;
    extent[0] = rows;
    h5::check(H5Dset_extent(dataset, extent.data()));
}

void cutAll(hid_t file, hsize_t rows)
{
    for (const char* name : {"/entry/data/data", "/entry/data/frame", "/entry/data/time"})
        cut(file, name, rows);
    if (H5Lexists(file, "/entry/data/data_counter1", H5P_DEFAULT) > 0)
        cut(file, "/entry/data/data_counter1", rows);
    cut(file, std::string(DETECTOR) + "/count_time", rows);
    const h5::Handle blocks(H5Gopen2(file, "/entry/instrument/detector/frame_metadata", H5P_DEFAULT), H5Gclose);
    for (const std::string& name : h5::namesIn(blocks))
        cut(blocks, name, rows);
}

void setTotals(hid_t file, const FileCheck& check)
{
    const auto set = [file](const char* name, const auto& value) {
        h5::overwrite(h5::Handle(H5Dopen2(file, name, H5P_DEFAULT), H5Dclose), value);
    };
    set("/entry/totals/frames_delivered", check.delivered);
    set("/entry/totals/frames_incomplete", check.incomplete);
    set("/entry/totals/frames_missing", check.missing());
    set("/entry/totals/saturated_pixels", check.saturatedPixels);
    set("/entry/outcome", std::string(OUTCOME));
}

void repairHdf5(const std::filesystem::path& path, const FileCheck& check)
{
    try {
        h5::Handle file = openMarked(path);
        cutAll(file, check.delivered);
        setTotals(file, check);
        h5::check(file.reset());
    } catch (const h5::Error& error) {
        throw OutputError("cannot repair " + path.string() + ": " + printable(error.what()));
    }
}

void repairTiff(const std::filesystem::path& path)
{
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
    const auto read = [&file](std::uint64_t offset, void* data, std::size_t size) {
        file.clear();
        file.seekg(static_cast<std::streamoff>(offset));
        return static_cast<bool>(file.read(static_cast<char*>(data), static_cast<std::streamsize>(size)));
    };
    const auto write = [&file](std::uint64_t offset, const std::string& bytes) {
        file.clear();
        file.seekp(static_cast<std::streamoff>(offset));
        return static_cast<bool>(file.write(bytes.data(), static_cast<std::streamsize>(bytes.size())));
    };
    const TiffChain chain = readTiffChain(read);
    bool good = true;
    if (chain.brokenLinkAt != 0)
        good = write(chain.brokenLinkAt, std::string(chain.isBig ? 8 : 4, '\0'));
    good = good && TiffSink::writeOutcome(chain.pages.front(), OUTCOME, write) && file.flush();
    if (!good)
        throw OutputError("cannot repair " + path.string());
}

} // namespace

void repairFile(const std::filesystem::path& path)
{
    const NoWriter noWriter(path);
    const FileCheck check = checkFile(path);
    if (!check.isOurs)
        throw OutputError(path.string() + " holds no frames of ours");
    if (check.isClosed)
        return;
    if (check.isHdf5)
        repairHdf5(path, check);
    else
        repairTiff(path);
}

} // namespace record
