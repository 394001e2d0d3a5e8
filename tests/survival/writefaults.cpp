// Preloaded into a program that writes files: makes its writes fail, block or be the last thing that it does.
//
// LATIXEL_FAULT_FILE is the beginning of the file's path. LATIXEL_FAULT is WHAT:N, for the N-th write to it, from 1:
//
//     enospc, edquot         this one and all that follow fail, until the file's reserve is given free
//     eio, estale            this one and all that follow fail
//     block                  this one takes a minute
//     kill, killinflush      the program is killed before it; killinflush counts those between latixelFlush calls
//
// Truncating and fdatasync count as writes. LATIXEL_FAULT_COUNT is a file that tells the number of writes at the end.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

std::atomic<long> writes{0};
std::atomic<bool> inFlush{false};
std::atomic<bool> reserveGiven{false};

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string pathOf(int descriptor)
{
    char target[4096];
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t length = readlink(link.c_str(), target, sizeof target);
    return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : std::string();
}

bool isWatched(const std::string& path)
{
    static const std::string begin = environment("LATIXEL_FAULT_FILE");
    return !begin.empty() && path.compare(0, begin.size(), begin) == 0 && path.find(".reserve") == std::string::npos;
}

/// The error number of this write, 0 for none.
int fault(int descriptor)
{
    static const std::string text = environment("LATIXEL_FAULT");
    static const std::string what = text.substr(0, text.find(':'));
    static const long at = text.find(':') != std::string::npos ? std::atol(text.c_str() + text.find(':') + 1) : 0;
    if (!isWatched(pathOf(descriptor)) || (what == "killinflush" && !inFlush))
        return 0;
    const long number = ++writes;
    if ((what == "kill" || what == "killinflush") && number == at)
        raise(SIGKILL);
    if (what == "block" && number == at)
        sleep(60);
    if (number < at)
        return 0;
    if (what == "eio" || what == "estale")
        return what == "eio" ? EIO : ESTALE;
    if ((what == "enospc" || what == "edquot") && !reserveGiven)
        return what == "enospc" ? ENOSPC : EDQUOT;
    return 0;
}

template <typename Function, typename... Arguments>
auto passOn(const char* name, int descriptor, Arguments... arguments)
{
    static const auto real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
    using Result = decltype(real(descriptor, arguments...));
    if (const int error = fault(descriptor); error != 0) {
        errno = error;
        return static_cast<Result>(-1);
    }
    return real(descriptor, arguments...);
}

[[gnu::destructor]] void tellCount()
{
    const std::string file = environment("LATIXEL_FAULT_COUNT");
    const int out = file.empty() ? -1 : open(file.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
    if (out >= 0)
        dprintf(out, "%ld", writes.load());
}

} // namespace

extern "C" {

void latixelFlush(bool begins)
{
    inFlush = begins;
}

ssize_t pwrite(int descriptor, const void* data, std::size_t size, off_t offset)
{
    return passOn<ssize_t(int, const void*, std::size_t, off_t)>("pwrite", descriptor, data, size, offset);
}

ssize_t pwrite64(int descriptor, const void* data, std::size_t size, off64_t offset)
{
    return passOn<ssize_t(int, const void*, std::size_t, off64_t)>("pwrite64", descriptor, data, size, offset);
}

int ftruncate(int descriptor, off_t size) noexcept
{
    return passOn<int(int, off_t)>("ftruncate", descriptor, size);
}

int ftruncate64(int descriptor, off64_t size) noexcept
{
    return passOn<int(int, off64_t)>("ftruncate64", descriptor, size);
}

int fdatasync(int descriptor)
{
    return passOn<int(int)>("fdatasync", descriptor);
}

int close(int descriptor)
{
    static const auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "close"));
    if (pathOf(descriptor).find(".reserve") != std::string::npos)
        reserveGiven = true;
    return real(descriptor);
}
}
