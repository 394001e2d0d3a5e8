// The library object without its devices: what the host sees of the plug-in before discovery fills the list.
#pragma once

#include "host/ihwlib.h"

#include <functional>
#include <vector>

/// Base of the library object. The host calls it from one thread at a time; nothing here locks. No exception leaves its
/// operations: what can fail returns 1 then, as for a null pointer.
class AHwLib : public dv::IHwLib {
public:
    int open(IDorvet* host) override;
    int close() override;
    int deviceList(dv::IPtrList<dv::IHwDev*>* list) const override;
    int refreshDevices() override { return 0; }
    void setLibEventFunc(dv::EventFunc func, void* user) override;
    dv::IParamMgr* parameters() const override { return libParams; }
    virtual ~AHwLib() = default;

protected:
    /// What an exception has told, for the log.
    using Report = std::function<void(const char* text)>;

    /// Closes and destroys all devices, and forgets them.
    void closeDevices(const Report& report);

    IDorvet* dorvet = nullptr;            ///< the host, not owned; null until `open`
    std::vector<dv::IHwDev*> devices;     ///< in order of creation; the library owns them until `close`
    dv::IParamMgr* libParams = nullptr;   ///< nothing assigns it: the library has no parameters
    dv::EventFunc libEventFunc = nullptr; ///< kept for the host, never called
    void* libEventUser = nullptr;
};
