// Loading, opening, closing and unloading a plug-in.
#include "refhost/plugin.h"

#include "refhost/error.h"

#include <algorithm>
#include <charconv>
#include <dlfcn.h>
#include <set>

namespace refhost {
namespace {

using LibraryFunc = dv::IHwLib* (*)();

void* load(const std::filesystem::path& path, int mode)
{
    std::error_code ignored;
    if (!std::filesystem::exists(path, ignored))
        throw Error("there is no library " + path.string());
    void* handle = dlopen(path.c_str(), RTLD_NOW | mode);
    if (handle == nullptr) {
        const char* reason = dlerror();
        throw Error("cannot load " + path.string() + ": " + (reason != nullptr ? reason : "no reason given"));
    }
    return handle;
}

} // namespace

GlobalLibrary::GlobalLibrary(const std::filesystem::path& path) : handle(load(path, RTLD_GLOBAL)) {}

void* GlobalLibrary::symbol(const char* name) const
{
    return dlsym(handle, name);
}

Plugin::Plugin(Host& owner, const std::filesystem::path& path) : host(owner), handle(load(path, RTLD_LOCAL))
{
    const auto entry = reinterpret_cast<LibraryFunc>(dlsym(handle, "dvGetHwLib"));
    library = entry != nullptr ? entry() : nullptr;
    if (library != nullptr)
        return;
    dlclose(handle);
    throw Error(path.string() + (entry == nullptr ? " is no plug-in: it has no function dvGetHwLib"
                                                  : " is no plug-in: dvGetHwLib gave no library object"));
}

Plugin::Plugin(Host& owner, dv::IHwLib* object) : host(owner), library(object)
{
    if (library == nullptr)
        throw Error("there is no library object");
}

Plugin::~Plugin()
{
    close();
    if (handle != nullptr)
        dlclose(handle);
}

void Plugin::open()
{
    if (library == nullptr || opened)
        throw Error("the plug-in is open already or was given up");
    const int result = library->open(&host);
    if (result != 0)
        throw Error("the plug-in does not open: it answered with code " + std::to_string(result));
    opened = true;
    listDevices();
}

void Plugin::listDevices()
{
    dv::PtrList<dv::IHwDev*> found;
    library->deviceList(&found);
    std::set<dv::IHwDev*> seen;
    for (dv::IHwDev* device : found.vect()) {
        if (device == nullptr || !seen.insert(device).second) {
            host.complain(device == nullptr ? "a null device in the list" : "a device stands in the list twice");
            continue;
        }
        try {
            list.push_back(std::make_unique<Device>(host, device));
        } catch (const Error& error) {
            host.complain(error.what());
        }
    }
}

Device* Plugin::find(const std::string& nameOrNumber) const
{
    for (const auto& device : list)
        if (device->name() == nameOrNumber)
            return device.get();
    std::size_t number = 0;
    const char* end = nameOrNumber.data() + nameOrNumber.size();
    const auto [rest, error] = std::from_chars(nameOrNumber.data(), end, number);
    if (error != std::errc{} || rest != end || number >= list.size())
        return nullptr;
    return list[number].get();
}

void Plugin::close()
{
    if (!opened)
        return;
    opened = false;
    library->close();
    for (const auto& device : list)
        device->markClosed();
    list.clear();
    host.complainOfLeftovers();
}

void Plugin::abandon()
{
    opened = false;
    library = nullptr;
    handle = nullptr;
    for (const auto& device : list)
        device->onEvent({});
    list.clear();
}

} // namespace refhost
