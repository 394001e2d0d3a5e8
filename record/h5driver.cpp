// HDF5's driver for a DiskFile: the functions that it calls for each access.
#include "record/h5driver.h"

#include "record/h5.h"

#include <memory>

namespace record::h5 {
namespace {

struct DriverInfo {
    DiskFile* disk;
};

struct OpenFile {
    H5FD_t head{}; // HDF5's own, first
    DiskFile* disk = nullptr;
    haddr_t allocated = 0;
};

constexpr haddr_t HIGHEST_ADDRESS = (haddr_t{1} << 63) - 1;

OpenFile& of(H5FD_t* file)
{
    return *reinterpret_cast<OpenFile*>(file);
}

const OpenFile& of(const H5FD_t* file)
{
    return *reinterpret_cast<const OpenFile*>(file);
}

herr_t result(bool good)
{
    return good ? 0 : -1;
}

H5FD_t* openDisk(const char*, unsigned, hid_t properties, haddr_t)
{
    const auto* info = static_cast<const DriverInfo*>(H5Pget_driver_info(properties));
    if (info == nullptr)
        return nullptr;
    auto file = std::make_unique<OpenFile>();
    file->disk = info->disk;
    return &file.release()->head;
}

herr_t closeDisk(H5FD_t* file)
{
    const std::unique_ptr<OpenFile> owned(&of(file));
    return 0;
}

int compareDisks(const H5FD_t* one, const H5FD_t* other)
{
    return of(one).disk == of(other).disk ? 0 : (of(one).disk < of(other).disk ? -1 : 1);
}

herr_t queryFeatures(const H5FD_t*, unsigned long* flags)
{
    // No accumulator of metadata: readers follow the file while it grows, and so its writes keep their order.
    *flags = H5FD_FEAT_AGGREGATE_METADATA | H5FD_FEAT_DATA_SIEVE | H5FD_FEAT_AGGREGATE_SMALLDATA |
             H5FD_FEAT_SUPPORTS_SWMR_IO | H5FD_FEAT_DEFAULT_VFD_COMPATIBLE;
    return 0;
}

haddr_t allocatedEnd(const H5FD_t* file, H5FD_mem_t)
{
    return of(file).allocated;
}

herr_t setAllocatedEnd(H5FD_t* file, H5FD_mem_t, haddr_t address)
{
    of(file).allocated = address;
    return 0;
}

haddr_t fileEnd(const H5FD_t* file, H5FD_mem_t)
{
    return of(file).disk->size();
}

herr_t readDisk(H5FD_t* file, H5FD_mem_t, hid_t, haddr_t address, std::size_t size, void* buffer)
{
    return result(of(file).disk->readAt(address, buffer, size));
}

herr_t writeDisk(H5FD_t* file, H5FD_mem_t, hid_t, haddr_t address, std::size_t size, const void* buffer)
{
    return result(of(file).disk->writeAt(address, buffer, size));
}

herr_t truncateDisk(H5FD_t* file, hid_t, hbool_t)
{
    DiskFile& disk = *of(file).disk;
    return result(disk.size() == of(file).allocated || disk.resize(of(file).allocated));
}

// The file has its own lock. HDF5 marks files as being written only where there are functions for one.
herr_t lockDisk(H5FD_t*, hbool_t)
{
    return 0;
}

herr_t unlockDisk(H5FD_t*)
{
    return 0;
}

hid_t driver()
{
    static const hid_t registered = [] {
        H5FD_class_t functions{};
        functions.name = "latixel";
        functions.maxaddr = HIGHEST_ADDRESS;
        functions.fc_degree = H5F_CLOSE_WEAK;
        functions.fapl_size = sizeof(DriverInfo);
        functions.open = openDisk;
        functions.close = closeDisk;
        functions.cmp = compareDisks;
        functions.query = queryFeatures;
        functions.get_eoa = allocatedEnd;
        functions.set_eoa = setAllocatedEnd;
        functions.get_eof = fileEnd;
        functions.read = readDisk;
        functions.write = writeDisk;
        functions.truncate = truncateDisk;
        functions.lock = lockDisk;
        functions.unlock = unlockDisk;
        constexpr H5FD_mem_t MAP[] = H5FD_FLMAP_DICHOTOMY;
        std::copy(std::begin(MAP), std::end(MAP), functions.fl_map);
        return H5FDregister(&functions);
    }();
    return registered;
}

} // namespace

void setDisk(hid_t accessProperties, DiskFile& disk)
{
    const DriverInfo info{&disk};
    check(H5Pset_driver(accessProperties, driver(), &info));
}

} // namespace record::h5
