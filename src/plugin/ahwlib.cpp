// The list of devices that every library object has.
#include "plugin/ahwlib.h"

#include "shared/contained.h"

#include <utility>

namespace {

constexpr int FAILED = 1;

} // namespace

int AHwLib::open(IDorvet* host)
{
    dorvet = host;
    return host != nullptr ? 0 : FAILED;
}

int AHwLib::close()
{
    closeDevices([](const char*) {});
    return 0;
}

int AHwLib::deviceList(dv::IPtrList<dv::IHwDev*>* list) const
{
    const auto addAll = [&] {
        for (auto* device : devices)
            list->add(device);
    };
    return list != nullptr && contained(addAll) ? 0 : FAILED;
}

void AHwLib::setLibEventFunc(dv::EventFunc func, void* user)
{
    libEventFunc = func;
    libEventUser = user;
}

// The list is empty before the first device goes: a callback that a device makes meanwhile finds none that is gone.
void AHwLib::closeDevices(const Report& report)
{
    for (auto* device : std::exchange(devices, {})) {
        contained([&] { device->closeDevice(); }, report);
        contained([&] { device->destroy(); }, report);
    }
}
