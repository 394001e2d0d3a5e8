// A file that grows while a series runs: reserve, second try, locks.
#include "record/diskfile.h"

#include "record/error.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace record {
namespace {

// The writer shares the lock of a byte that no file has; who wants to be sure that there is no writer wants it alone.
// Readers are in nobody's way: over a network their own locks are shared ones of the whole file.
constexpr off_t LOCKED_BYTE = off_t{1} << 62;

bool lock(int descriptor, short type)
{
    struct flock request {};
    request.l_type = type;
    request.l_whence = SEEK_SET;
    request.l_start = LOCKED_BYTE;
    request.l_len = 1;
    return fcntl(descriptor, F_OFD_SETLK, &request) == 0;
}

OutputError cannotWrite(const std::filesystem::path& path, int error)
{
    return OutputError("cannot write " + path.string() + ": " + std::strerror(error));
}

} // namespace

DiskFile::DiskFile(const std::filesystem::path& path, std::size_t reserveBytes)
    : descriptor(open(path.c_str(), O_RDWR | O_TRUNC | O_CLOEXEC))
{
    if (descriptor < 0)
        throw cannotWrite(path, errno);
    lock(descriptor, F_RDLCK); // a file system without locks is no reason to take no frames
    try {
        makeReserve(path, reserveBytes);
    } catch (...) {
        close(descriptor);
        throw;
    }
}

DiskFile::~DiskFile()
{
    giveReserve();
    close(descriptor);
}

void DiskFile::makeReserve(const std::filesystem::path& path, std::size_t bytes)
{
    const std::string name = path.string() + ".reserve";
    reserve = open(name.c_str(), O_CREAT | O_TRUNC | O_RDWR | O_CLOEXEC, 0600);
    if (reserve < 0)
        throw cannotWrite(path, errno);
    unlink(name.c_str());
    if (const int error = posix_fallocate(reserve, 0, static_cast<off_t>(bytes)); error == ENOSPC || error == EDQUOT) {
        giveReserve();
        throw cannotWrite(path, error);
    }
}

void DiskFile::giveReserve()
{
    if (reserve >= 0)
        close(reserve);
    reserve = -1;
}

template <typename Try>
bool DiskFile::twice(Try attempt)
{
    if (dead || attempt())
        return true;
    if (firstError == 0)
        firstError = errno;
    const bool hadReserve = reserve >= 0;
    giveReserve();
    if (hadReserve && attempt())
        return true;
    dead = true;
    return false;
}

bool DiskFile::tryWrite(std::uint64_t offset, const unsigned char* data, std::size_t size) const
{
    while (size > 0) {
        const ssize_t done = pwrite(descriptor, data, size, static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        data += done;
        offset += static_cast<std::uint64_t>(done);
        size -= static_cast<std::size_t>(done);
    }
    return true;
}

bool DiskFile::writeAt(std::uint64_t offset, const void* data, std::size_t size)
{
    return twice([&] { return tryWrite(offset, static_cast<const unsigned char*>(data), size); });
}

bool DiskFile::resize(std::uint64_t size)
{
    return twice([&] { return ftruncate(descriptor, static_cast<off_t>(size)) == 0; });
}

bool DiskFile::readAt(std::uint64_t offset, void* data, std::size_t size) const
{
    auto* to = static_cast<unsigned char*>(data);
    while (size > 0) {
        const ssize_t done = pread(descriptor, to, size, static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR)
            continue;
        if (done < 0)
            return false;
        if (done == 0) {
            std::memset(to, 0, size);
            return true;
        }
        to += done;
        offset += static_cast<std::uint64_t>(done);
        size -= static_cast<std::size_t>(done);
    }
    return true;
}

std::uint64_t DiskFile::size() const
{
    struct stat status {};
    return fstat(descriptor, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

void DiskFile::syncNowAndThen()
{
    if (std::chrono::steady_clock::now() >= nextSync)
        sync();
}

void DiskFile::sync()
{
    // A network folder may keep a failure to itself until here.
    twice([this] { return fdatasync(descriptor) == 0 || errno == EINVAL || errno == ENOSYS; });
    nextSync = std::chrono::steady_clock::now() + SYNC_INTERVAL;
}

bool hasWriter(const std::filesystem::path& path)
{
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return false;
    struct flock request {};
    request.l_type = F_WRLCK;
    request.l_whence = SEEK_SET;
    request.l_start = LOCKED_BYTE;
    request.l_len = 1;
    const bool locked = fcntl(file, F_OFD_GETLK, &request) == 0 && request.l_type != F_UNLCK;
    close(file);
    return locked;
}

NoWriter::NoWriter(const std::filesystem::path& path) : descriptor(open(path.c_str(), O_RDWR | O_CLOEXEC))
{
    if (descriptor < 0)
        throw cannotWrite(path, errno);
    if (lock(descriptor, F_WRLCK) || (errno != EAGAIN && errno != EACCES))
        return;
    close(descriptor);
    throw OutputError(path.string() + " is being written: wait until its series has ended");
}

NoWriter::~NoWriter()
{
    close(descriptor);
}

} // namespace record
