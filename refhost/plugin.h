// A plug-in: loading, opening, its devices, closing, unloading.
#pragma once

#include "host/ihwlib.h"
#include "refhost/device.h"

#include <filesystem>
#include <memory>
#include <vector>

namespace refhost {

/// A shared library that is loaded for everybody: its symbols take the place of those of libraries loaded later.
/// It stays loaded until the process ends.
class GlobalLibrary {
public:
    /// Throws Error when the library cannot be loaded.
    explicit GlobalLibrary(const std::filesystem::path& path);
    /// The function of that name, or null.
    void* symbol(const char* name) const;

private:
    void* handle = nullptr;
};

/// A plug-in and its devices. Used from one thread at a time; the devices are not bound to it.
class Plugin {
public:
    /// Loads the library at `path`. Throws Error that says what is wrong: no such file, not loadable, no
    /// `dvGetHwLib`, no library object.
    Plugin(Host& host, const std::filesystem::path& path);
    /// Takes a library object that lies in this program.
    Plugin(Host& host, dv::IHwLib* library);
    /// Closes and unloads.
    ~Plugin();
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;

    /// Opens the library, which looks for devices and brings them up: it takes seconds. Throws Error when the
    /// library refuses. Records it when a device is null, listed twice, or of a type without a meaning.
    void open();
    bool isOpen() const { return opened; }
    const std::vector<std::unique_ptr<Device>>& devices() const { return list; }
    /// The device of that name or of that number in the list, or null.
    Device* find(const std::string& nameOrNumber) const;

    /// Closes all devices; the Device objects end. Afterwards what the plug-in has not released is a complaint.
    void close();
    /// Leaves the library open and loaded for good: for a device that no longer answers, whose threads still run.
    void abandon();

private:
    void listDevices();

    Host& host;
    void* handle = nullptr; // of dlopen; null where the library lies in this program
    dv::IHwLib* library = nullptr;
    bool opened = false;
    std::vector<std::unique_ptr<Device>> list;
};

} // namespace refhost
