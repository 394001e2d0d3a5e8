// The library interface that the plug-in implements for the host.
#pragma once

#include "host/idorvet.h"
#include "host/ihwdev.h"

namespace dv {

/// The plug-in as the host sees it. The host calls the operations by their position, from one thread at a time.
class IHwLib {
public:
    /// Reads the settings, looks for devices and brings them up. Returns 0, whatever happened to the devices.
    virtual int open(IDorvet* dorvet) = 0;
    /// Closes and destroys all devices. Returns 0.
    virtual int close() = 0;
    /// Appends the devices to `list`. Returns 0.
    virtual int deviceList(IPtrList<IHwDev*>* list) const = 0;
    /// Returns 0 and does nothing: new devices are seen by a new `open`.
    virtual int refreshDevices() = 0;
    virtual void setLibEventFunc(EventFunc func, void* user) = 0;
    /// Null: the library has no parameters of its own.
    virtual IParamMgr* parameters() const = 0;
};

} // namespace dv

/// The library object; the plug-in's one exported function.
extern "C" dv::IHwLib* dvGetHwLib();
