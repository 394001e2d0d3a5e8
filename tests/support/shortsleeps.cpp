// Takes the C library's place for the sleeps of the plug-in, which bring-up and shut-down of a board are full of: with
// virtual boards a twentieth of each is enough.
#include <ctime>
#include <unistd.h>

extern "C" int usleep(useconds_t microseconds)
{
    constexpr useconds_t SHORTER = 20;
    const timespec rest{microseconds / SHORTER / 1000000, static_cast<long>(microseconds / SHORTER % 1000000) * 1000};
    return nanosleep(&rest, nullptr);
}
