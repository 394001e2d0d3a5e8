// Ctrl-C.
#include "apps/latixel/interrupt.h"

#include "apps/latixel/exitcode.h"

#include <atomic>
#include <iterator>
#include <unistd.h>

namespace tool {
namespace {

constexpr int SIGNALS[] = {SIGINT, SIGTERM, SIGHUP};

std::atomic<int> received{0};
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler may use nothing else");

void onSignal(int)
{
    if (received.fetch_add(1) == 0)
        return;
    constexpr char WORDS[] = "\nlatixel: ended at once; see \"latixel check FILE\" for what the file holds\n";
    [[maybe_unused]] const auto ignored = write(STDERR_FILENO, WORDS, sizeof WORDS - 1);
    _exit(static_cast<int>(ExitCode::Killed));
}

} // namespace

Interrupt::Interrupt()
{
    received = 0;
    struct sigaction action {};
    action.sa_handler = onSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < std::size(SIGNALS); ++i)
        sigaction(SIGNALS[i], &action, &former[i]);
}

Interrupt::~Interrupt()
{
    for (std::size_t i = 0; i < std::size(SIGNALS); ++i)
        sigaction(SIGNALS[i], &former[i], nullptr);
}

bool Interrupt::requested() const
{
    return received > 0;
}

} // namespace tool
