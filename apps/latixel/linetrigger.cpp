// Software triggers from a person.
#include "apps/latixel/linetrigger.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace tool {

bool LineTrigger::take()
{
    readWhatIsThere();
    if (lines == 0)
        return false;
    --lines;
    return true;
}

void LineTrigger::readWhatIsThere()
{
    pollfd waiting{input, POLLIN, 0};
    while (!atEnd && poll(&waiting, 1, 0) > 0) {
        std::array<char, 256> buffer{};
        const ssize_t count = read(input, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR)
            continue;
        atEnd = count <= 0;
        if (count > 0)
            lines += static_cast<unsigned long>(std::count(buffer.begin(), buffer.begin() + count, '\n'));
    }
}

} // namespace tool
