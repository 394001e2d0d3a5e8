// The list of devices that every library object has.
#include "plugin/ahwlib.h"

int AHwLib::open(IDorvet* host)
{
    dorvet = host;
    return 0;
}

int AHwLib::close()
{
    for (auto* device : devices) {
        device->closeDevice();
        device->destroy();
    }
    devices.clear();
    return 0;
}

int AHwLib::deviceList(dv::IPtrList<dv::IHwDev*>* list) const
{
    for (auto* device : devices)
        list->add(device);
    return 0;
}

void AHwLib::setLibEventFunc(dv::EventFunc func, void* user)
{
    libEventFunc = func;
    libEventUser = user;
}
