// The host's books.
#include "refhost/ledger.h"

namespace refhost {
namespace {

constexpr std::size_t KEPT_COMPLAINTS = 1000;
constexpr std::size_t KEPT_SHELLS = 1000;

} // namespace

void Ledger::complain(std::string text)
{
    const std::lock_guard lock(mutex);
    ++complaintTotal;
    if (texts.size() < KEPT_COMPLAINTS)
        texts.push_back(std::move(text));
}

std::vector<std::string> Ledger::complaints() const
{
    const std::lock_guard lock(mutex);
    return texts;
}

std::size_t Ledger::complaintCount() const
{
    const std::lock_guard lock(mutex);
    return complaintTotal;
}

void Ledger::clearComplaints()
{
    const std::lock_guard lock(mutex);
    texts.clear();
    complaintTotal = 0;
}

void Ledger::born(Kind kind)
{
    const std::lock_guard lock(mutex);
    ++alive[slot(kind)];
}

void Ledger::handedOver()
{
    const std::lock_guard lock(mutex);
    --alive[slot(Kind::PluginFrame)];
    ++alive[slot(Kind::HostFrame)];
}

void Ledger::buried(Kind kind, std::unique_ptr<Tracked> shell)
{
    std::unique_ptr<Tracked> oldest; // ends after the lock
    const std::lock_guard lock(mutex);
    auto& graves = shells[slot(kind)];
    --alive[slot(kind)];
    graves.push_back(std::move(shell));
    if (graves.size() > KEPT_SHELLS) {
        oldest = std::move(graves.front());
        graves.pop_front();
    }
}

std::size_t Ledger::live(Kind kind) const
{
    const std::lock_guard lock(mutex);
    return alive[slot(kind)];
}

} // namespace refhost
