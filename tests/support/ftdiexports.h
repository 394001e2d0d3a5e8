// The C functions of libftdi, played by `ScriptedFtdi`. To be included by one source of a test program.
#pragma once

#include "support/scriptedftdi.h"

#include <ftdi.h>

#include <algorithm>

// NOLINTBEGIN(misc-definitions-in-headers): one source of a program takes libftdi's place with them.
namespace {

ScriptedFtdi& script()
{
    return ScriptedFtdi::instance();
}

/// Records a call with its arguments, and answers as the script has it.
template <typename... Args>
int called(std::string function, Args... args)
{
    const auto result = script().results.find(function);
    ((function += " " + std::to_string(args)), ...);
    script().calls.push_back(function);
    return result != script().results.end() ? result->second : 0;
}

void meet(const char* function, int limit)
{
    if (script().hook)
        script().hook(function, limit);
}

} // namespace

extern "C" {

int ftdi_init(ftdi_context* context)
{
    const int result = called(context->usb_ctx != nullptr ? "init of a context in use" : "init");
    context->usb_ctx = result < 0 ? nullptr : reinterpret_cast<libusb_context*>(context);
    script().liveContexts += result < 0 ? 0 : 1;
    return result;
}

void ftdi_deinit(ftdi_context* context)
{
    called("deinit");
    script().liveContexts -= context->usb_ctx != nullptr ? 1 : 0;
    context->usb_ctx = nullptr;
}

int ftdi_usb_find_all(ftdi_context*, ftdi_device_list** list, int vendor, int product)
{
    static std::deque<ftdi_device_list> nodes; // never freed: one listing leaves its list behind
    const int result = called("find_all", vendor, product);
    for (auto& device : script().devices) {
        if (device.vidPid == static_cast<unsigned>(vendor << 16 | product) && result >= 0) {
            *list = &nodes.emplace_back(ftdi_device_list{nullptr, reinterpret_cast<libusb_device*>(&device)});
            list = &(*list)->next;
        }
    }
    return result;
}

int ftdi_usb_get_strings(ftdi_context*, libusb_device* dev, char*, int, char* description, int, char* serial, int)
{
    auto& device = *reinterpret_cast<ScriptedFtdi::Device*>(dev);
    if (called("get_strings " + device.description), device.timesReadable-- <= 0)
        return -8;
    std::copy(device.description.begin(), device.description.end(), description);
    std::copy(device.serial.begin(), device.serial.end(), serial);
    return 0;
}

int ftdi_usb_open_desc(ftdi_context* context, int vendor, int product, const char* description, const char* serial)
{
    meet("open", context->usb_write_timeout);
    called(std::string("open ") + description + (serial == nullptr ? "" : serial), vendor, product);
    const int result = script().results["open"];
    context->usb_dev = result == 0 ? reinterpret_cast<libusb_device_handle*>(context) : nullptr;
    return result;
}

int ftdi_read_data(ftdi_context* context, unsigned char* buffer, int size)
{
    auto& s = script();
    meet("read", context->usb_read_timeout);
    ++s.readCount;
    if (s.reads.empty())
        return 0;
    auto& [data, error] = s.reads.front();
    const std::string part = data.substr(0, static_cast<std::size_t>(size));
    const int result = error != 0 ? error : static_cast<int>(part.size());
    std::copy(part.begin(), part.end(), buffer);
    data.erase(0, part.size());
    if (data.empty())
        s.reads.pop_front();
    return result;
}

int ftdi_write_data(ftdi_context* context, const unsigned char* buffer, int size)
{
    auto& s = script();
    meet("write", context->usb_write_timeout);
    int result = s.stuck ? 0 : size;
    if (!s.writeResults.empty()) {
        result = s.writeResults.front();
        s.writeResults.pop_front();
    }
    s.written.append(buffer, buffer + std::clamp(result, 0, size));
    return result;
}

// clang-format off
using Ctx = ftdi_context;
int ftdi_usb_close(Ctx* context) { return context->usb_dev = nullptr, called("close"); }
void ftdi_list_free(ftdi_device_list** list) { *list = nullptr, called("list_free"); }
const char* ftdi_get_error_string(Ctx*) { return "words of libftdi"; }
int ftdi_usb_reset(Ctx* context) { return meet("reset", context->usb_write_timeout), called("reset"); }
int ftdi_usb_purge_buffers(Ctx*) { return called("purge"); }
int ftdi_set_bitmode(Ctx*, unsigned char mask, unsigned char mode) { return called("bitmode", mask, mode); }
int ftdi_setflowctrl(Ctx*, int flow) { return called("flow", flow); }
int ftdi_read_data_set_chunksize(Ctx*, unsigned size) { return called("read_chunk", size); }
int ftdi_write_data_set_chunksize(Ctx*, unsigned size) { return called("write_chunk", size); }
int ftdi_set_latency_timer(Ctx*, unsigned char latency) { return called("latency", latency); }
int ftdi_get_latency_timer(Ctx* context, unsigned char* latency) { return *latency = 2, meet("get_latency", context->usb_read_timeout), called("get_latency"); }
int ftdi_set_line_property(Ctx*, ftdi_bits_type b, ftdi_stopbits_type s, ftdi_parity_type p) { return called("line", b, s, p); }
int ftdi_set_baudrate(Ctx*, int baud) { return called("baud", baud); }
// clang-format on

} // extern "C"
// NOLINTEND(misc-definitions-in-headers)
