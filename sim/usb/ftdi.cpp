// The functions of libftdi that the plug-in calls, on the virtual bus. Results and error texts are those of libftdi
// 1.5, also for trouble: the host's ways out of it are what gets tested here.
#define _FTDI_DISABLE_DEPRECATED
#pragma GCC visibility push(default)
#include <ftdi.h>
#pragma GCC visibility pop

#include "sim/usb/bench.h"
#include "sim/usb/bus.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

using sim::Bridge;
using sim::Bus;
using sim::Context;
using sim::Session;
using sim::Sighting;
using sim::UsbResult;

namespace {

constexpr int NOT_OPEN = -666;
constexpr unsigned FIRST_CHUNK = 4096;    ///< bytes
constexpr unsigned LARGEST_CHUNK = 16384; ///< bytes of one read transfer
constexpr unsigned PACKET = 512;          ///< bytes of a high-speed packet
constexpr unsigned STATUS = 2;            ///< bytes at the head of each packet
constexpr int TIME_LIMIT_MS = 5000;
constexpr std::size_t MOST_CONTEXTS = 509; ///< two descriptors each: more than these a process cannot have

constexpr const char* UNAVAILABLE = "USB device unavailable";
constexpr const char* INVALID_CONTEXT = "ftdi context invalid";

/// Runs the test's hook before and behind a call.
class Hooked {
public:
    explicit Hooked(std::span<const std::uint8_t> bytes = {}) { run(bytes); }
    ~Hooked() { run({}); }
    Hooked(const Hooked&) = delete;
    Hooked& operator=(const Hooked&) = delete;

private:
    static void run(std::span<const std::uint8_t> bytes)
    {
        if (const sim::UsbHook hook = Bus::instance().hook; hook != nullptr)
            hook(bytes);
    }
};

/// The text in a context, which a thread that reads and one that writes may both leave at the same time.
std::atomic_ref<const char*> errorText(ftdi_context* ftdi)
{
    return std::atomic_ref<const char*>(ftdi->error_str);
}

/// Leaves the text in the context and returns the result, as every function of libftdi ends.
int fail(ftdi_context* ftdi, int result, const char* text)
{
    if (ftdi != nullptr)
        errorText(ftdi) = text;
    return result;
}

// libusb's types are only ever known by pointer: here they are our own.

Session* sessionOf(const ftdi_context* ftdi)
{
    return ftdi == nullptr ? nullptr : reinterpret_cast<Session*>(ftdi->usb_dev);
}

Context* contextOf(const ftdi_context* ftdi)
{
    return ftdi == nullptr ? nullptr : reinterpret_cast<Context*>(ftdi->usb_ctx);
}

const Sighting& sightingOf(libusb_device* device)
{
    return *reinterpret_cast<const Sighting*>(device);
}

bool matches(const Sighting& chip, int vendor, int product)
{
    const auto& identity = chip.bridge->identity();
    return identity.vendor == vendor && identity.product == product;
}

/// What the bus's own search for FTDI chips takes, when it is given no numbers.
bool isStandardChip(const Sighting& chip)
{
    constexpr int STANDARD_PRODUCTS[] = {0x6001, 0x6010, 0x6011, 0x6014, 0x6015};
    return std::ranges::any_of(STANDARD_PRODUCTS, [&](int product) { return matches(chip, 0x0403, product); });
}

std::chrono::milliseconds readLimit(const ftdi_context* ftdi)
{
    return std::chrono::milliseconds(ftdi->usb_read_timeout);
}

std::chrono::milliseconds writeLimit(const ftdi_context* ftdi)
{
    return std::chrono::milliseconds(ftdi->usb_write_timeout);
}

void forgetBuffered(ftdi_context* ftdi)
{
    ftdi->readbuffer_offset = 0;
    ftdi->readbuffer_remaining = 0;
}

void attach(ftdi_context* ftdi, const Sighting& chip)
{
    Session* session = Bus::instance().sessions.add({chip});
    ftdi->usb_dev = reinterpret_cast<libusb_device_handle*>(session);
}

/// Closes the device without a word about success. Returns false if the chip was claimed and is gone.
bool detach(ftdi_context* ftdi)
{
    const Session* session = sessionOf(ftdi);
    if (session == nullptr)
        return true;
    const bool there = !session->claimed || session->chip.bridge->release(session->chip.plugging);
    Bus::instance().sessions.remove(session);
    ftdi->usb_dev = nullptr;
    return there;
}

/// Claims the chip for a session that stays open.
int openChip(ftdi_context* ftdi, const Sighting& chip)
{
    attach(ftdi, chip);
    if (!chip.bridge->claim(chip.plugging)) {
        detach(ftdi);
        return fail(ftdi, -5, "unable to claim usb device. Make sure the default FTDI driver is not in use");
    }
    sessionOf(ftdi)->claimed = true;
    if (ftdi_usb_reset(ftdi) != 0) {
        detach(ftdi);
        return fail(ftdi, -6, "ftdi_usb_reset failed");
    }
    ftdi->type = chip.bridge->identity().product == 0x6014 ? TYPE_232H : TYPE_2232H;
    ftdi->max_packet_size = PACKET;
    ftdi->baudrate = 9600;
    return fail(ftdi, 0, "all fine");
}

void copyText(const std::string& text, char* room, int size)
{
    if (room == nullptr || size <= 0)
        return;
    const std::size_t count = std::min(text.size(), static_cast<std::size_t>(size) - 1);
    std::memcpy(room, text.data(), count);
    room[count] = '\0';
}

/// One control request. `request(bridge, plugging)` returns false if the chip is gone.
template <typename Request>
int control(ftdi_context* ftdi, int notOpen, int failed, const char* text, Request request)
{
    const Session* session = sessionOf(ftdi);
    if (session == nullptr)
        return fail(ftdi, notOpen, UNAVAILABLE);
    const Hooked hooked;
    Bridge& bridge = *session->chip.bridge;
    const sim::Plugging plugging = session->chip.plugging;
    const bool answered = bridge.awaitAnswer(plugging, writeLimit(ftdi)) && request(bridge, plugging);
    return answered ? 0 : fail(ftdi, failed, text);
}

bool answers(Bridge& bridge, sim::Plugging plugging)
{
    return bridge.answers(plugging);
}

int purge(ftdi_context* ftdi, const char* text)
{
    if (sessionOf(ftdi) != nullptr)
        forgetBuffered(ftdi);
    return control(ftdi, -3, -1, text, [](Bridge& bridge, sim::Plugging plugging) { return bridge.purge(plugging); });
}

std::size_t takeBuffered(ftdi_context* ftdi, std::span<std::uint8_t> room)
{
    const std::size_t count = std::min<std::size_t>(room.size(), ftdi->readbuffer_remaining);
    if (count > 0)
        std::memcpy(room.data(), ftdi->readbuffer + ftdi->readbuffer_offset, count);
    ftdi->readbuffer_offset += static_cast<unsigned>(count);
    ftdi->readbuffer_remaining -= static_cast<unsigned>(count);
    return count;
}

/// One transfer. What it brings beyond `room` stays in the context for the next read.
UsbResult transfer(ftdi_context* ftdi, const Session& session, std::span<std::uint8_t> room)
{
    const unsigned chunk = ftdi->readbuffer_chunksize;
    const unsigned payload = chunk - STATUS * ((chunk + PACKET - 1) / PACKET);
    Bridge& bridge = *session.chip.bridge;
    if (room.size() >= payload)
        return bridge.transferIn(session.chip.plugging, room.first(payload), payload, readLimit(ftdi));
    forgetBuffered(ftdi);
    UsbResult result =
        bridge.transferIn(session.chip.plugging, {ftdi->readbuffer, payload}, room.size(), readLimit(ftdi));
    if (result.value > 0) {
        ftdi->readbuffer_remaining = static_cast<unsigned>(result.value);
        result.value = static_cast<int>(takeBuffered(ftdi, room));
    }
    return result;
}

} // namespace

int ftdi_init(ftdi_context* ftdi)
{
    *ftdi = ftdi_context{};
    ftdi->usb_read_timeout = TIME_LIMIT_MS;
    ftdi->usb_write_timeout = TIME_LIMIT_MS;
    ftdi->type = TYPE_BM;
    ftdi->baudrate = -1;
    ftdi->writebuffer_chunksize = FIRST_CHUNK;
    ftdi->bitbang_mode = 1;
    ftdi->index = INTERFACE_A;
    ftdi->in_ep = 0x02;
    ftdi->out_ep = 0x81;
    ftdi->module_detach_mode = AUTO_DETACH_SIO_MODULE;
    if (Bus::instance().contexts.size() >= MOST_CONTEXTS)
        return fail(ftdi, -3, "libusb_init() failed");
    ftdi->usb_ctx = reinterpret_cast<libusb_context*>(Bus::instance().contexts.add({}));
    return ftdi_read_data_set_chunksize(ftdi, FIRST_CHUNK);
}

void ftdi_deinit(ftdi_context* ftdi)
{
    if (ftdi == nullptr)
        return;
    detach(ftdi);
    ftdi->readbuffer = nullptr;
    Bus::instance().contexts.remove(contextOf(ftdi));
    ftdi->usb_ctx = nullptr;
}

int ftdi_usb_find_all(ftdi_context* ftdi, ftdi_device_list** devlist, int vendor, int product)
{
    *devlist = nullptr;
    if (contextOf(ftdi) == nullptr)
        return fail(ftdi, -5, "libusb_get_device_list() failed");
    sim::ensureBench();
    int count = 0;
    for (Sighting& chip : Bus::instance().sightings()) {
        if (!(vendor == 0 && product == 0 ? isStandardChip(chip) : matches(chip, vendor, product)))
            continue;
        auto* device = reinterpret_cast<libusb_device*>(new Sighting(std::move(chip)));
        *devlist = new ftdi_device_list{nullptr, device};
        devlist = &(*devlist)->next;
        ++count;
    }
    return count;
}

void ftdi_list_free(ftdi_device_list** devlist)
{
    for (ftdi_device_list* entry = *devlist; entry != nullptr;) {
        ftdi_device_list* next = entry->next;
        delete &sightingOf(entry->dev);
        delete entry;
        entry = next;
    }
    *devlist = nullptr;
}

int ftdi_usb_get_strings(ftdi_context* ftdi, libusb_device* dev, char* manufacturer, int mnfLen, char* description,
                         int descLen, char* serial, int serialLen)
{
    if (ftdi == nullptr || dev == nullptr)
        return -1;
    const Sighting& chip = sightingOf(dev);
    if (ftdi->usb_dev == nullptr) {
        if (const UsbResult opened = chip.bridge->open(chip.plugging); opened.value < 0)
            return fail(ftdi, -4, opened.text != nullptr ? opened.text : "libusb_open() failed");
        attach(ftdi, chip);
    }
    const UsbResult fetched = chip.bridge->fetchStrings(chip.plugging);
    detach(ftdi);
    if (fetched.value < 0)
        return fail(ftdi, -8, fetched.text != nullptr ? fetched.text : "libusb_get_string_descriptor_ascii() failed");
    copyText(chip.bridge->identity().manufacturer, manufacturer, mnfLen);
    copyText(chip.bridge->description(), description, descLen);
    copyText(chip.bridge->identity().serial, serial, serialLen);
    return 0;
}

int ftdi_usb_open_desc(ftdi_context* ftdi, int vendor, int product, const char* description, const char* serial)
{
    if (ftdi == nullptr)
        return fail(ftdi, -11, INVALID_CONTEXT);
    if (contextOf(ftdi) == nullptr)
        return fail(ftdi, -12, "libusb_get_device_list() failed");
    sim::ensureBench();
    for (const Sighting& chip : Bus::instance().sightings()) {
        if (!matches(chip, vendor, product))
            continue;
        // As in libftdi, the first such chip that cannot be asked ends the search.
        if (const UsbResult opened = chip.bridge->open(chip.plugging); opened.value < 0)
            return fail(ftdi, -4, opened.text != nullptr ? opened.text : "usb_open() failed");
        if (const UsbResult fetched = chip.bridge->fetchStrings(chip.plugging); fetched.value < 0)
            return fail(ftdi, -8, fetched.text != nullptr ? fetched.text : "unable to fetch product description");
        if ((description == nullptr || chip.bridge->description() == description) &&
            (serial == nullptr || chip.bridge->identity().serial == serial))
            return openChip(ftdi, chip);
    }
    return fail(ftdi, -3, "device not found");
}

int ftdi_usb_close(ftdi_context* ftdi)
{
    if (ftdi == nullptr)
        return -3;
    return detach(ftdi) ? 0 : -1;
}

int ftdi_usb_reset(ftdi_context* ftdi)
{
    if (sessionOf(ftdi) != nullptr)
        forgetBuffered(ftdi);
    return control(ftdi, -2, -1, "FTDI reset failed",
                   [](Bridge& bridge, sim::Plugging plugging) { return bridge.purge(plugging); });
}

int ftdi_usb_purge_buffers(ftdi_context* ftdi)
{
    return purge(ftdi, "FTDI purge of RX buffer failed");
}

int ftdi_tcioflush(ftdi_context* ftdi)
{
    return purge(ftdi, "FTDI purge of TX buffer failed");
}

int ftdi_set_bitmode(ftdi_context* ftdi, unsigned char bitmask, unsigned char mode)
{
    const int result =
        control(ftdi, -2, -1, "unable to configure bitbang mode. Perhaps not a BM/2232C type chip?",
                [&](Bridge& bridge, sim::Plugging plugging) { return bridge.setBitMode(plugging, bitmask, mode); });
    if (result == 0) {
        ftdi->bitbang_mode = mode;
        ftdi->bitbang_enabled = mode != BITMODE_RESET;
    }
    return result;
}

int ftdi_setflowctrl(ftdi_context* ftdi, int /*flowctrl*/)
{
    return control(ftdi, -2, -1, "set flow control failed", answers);
}

int ftdi_set_line_property(ftdi_context* ftdi, ftdi_bits_type /*bits*/, ftdi_stopbits_type /*sbit*/,
                           ftdi_parity_type /*parity*/)
{
    return control(ftdi, -2, -1, "Setting new line property failed", answers);
}

int ftdi_set_baudrate(ftdi_context* ftdi, int baudrate)
{
    if (sessionOf(ftdi) == nullptr)
        return fail(ftdi, -3, UNAVAILABLE);
    if (baudrate <= 0)
        return fail(ftdi, -1, "Silly baudrate <= 0.");
    const int result = control(ftdi, -3, -2, "Setting new baudrate failed", answers);
    if (result == 0)
        ftdi->baudrate = baudrate;
    return result;
}

int ftdi_set_latency_timer(ftdi_context* ftdi, unsigned char latency)
{
    if (latency < 1)
        return fail(ftdi, -1, "latency out of range. Only valid for 1-255");
    return control(ftdi, -3, -2, "unable to set latency timer",
                   [&](Bridge& bridge, sim::Plugging plugging) { return bridge.setLatency(plugging, latency); });
}

int ftdi_get_latency_timer(ftdi_context* ftdi, unsigned char* latency)
{
    return control(ftdi, -2, -1, "reading latency timer failed", [&](Bridge& bridge, sim::Plugging plugging) {
        const auto set = bridge.latency(plugging);
        *latency = set.value_or(*latency);
        return set.has_value();
    });
}

int ftdi_read_data_set_chunksize(ftdi_context* ftdi, unsigned int chunksize)
{
    Context* context = contextOf(ftdi);
    if (context == nullptr)
        return fail(ftdi, -1, INVALID_CONTEXT);
    forgetBuffered(ftdi);
    context->readBuffer.resize(std::min(chunksize, LARGEST_CHUNK));
    ftdi->readbuffer = context->readBuffer.data();
    ftdi->readbuffer_chunksize = static_cast<unsigned>(context->readBuffer.size());
    return 0;
}

int ftdi_write_data_set_chunksize(ftdi_context* ftdi, unsigned int chunksize)
{
    if (ftdi == nullptr)
        return -1;
    ftdi->writebuffer_chunksize = chunksize;
    return 0;
}

int ftdi_read_data(ftdi_context* ftdi, unsigned char* buf, int size)
{
    const Session* session = sessionOf(ftdi);
    if (session == nullptr)
        return fail(ftdi, NOT_OPEN, UNAVAILABLE);
    const Hooked hooked;
    const auto failed = [&](UsbResult result) {
        return fail(ftdi, result.value, result.text != nullptr ? result.text : "usb bulk read failed");
    };
    Bridge& bridge = *session->chip.bridge;
    if (const UsbResult refused = bridge.beginRead(); refused.value < 0)
        return failed(refused);
    const std::span room(buf, static_cast<std::size_t>(std::max(size, 0)));
    std::size_t moved = takeBuffered(ftdi, room);
    while (moved < room.size()) {
        const UsbResult got = transfer(ftdi, *session, room.subspan(moved));
        if (got.value < 0)
            return failed(got);
        if (got.value == 0)
            break;
        moved += static_cast<std::size_t>(got.value);
    }
    bridge.endRead(moved);
    return static_cast<int>(moved);
}

int ftdi_write_data(ftdi_context* ftdi, const unsigned char* buf, int size)
{
    const Session* session = sessionOf(ftdi);
    if (session == nullptr)
        return fail(ftdi, NOT_OPEN, UNAVAILABLE);
    if (size <= 0)
        return 0;
    const std::span bytes(buf, static_cast<std::size_t>(size));
    const Hooked hooked(bytes);
    const UsbResult result = session->chip.bridge->write(session->chip.plugging, bytes, writeLimit(ftdi));
    if (result.value < 0)
        return fail(ftdi, result.value, result.text != nullptr ? result.text : "usb bulk write failed");
    return result.value;
}

const char* ftdi_get_error_string(ftdi_context* ftdi)
{
    return ftdi == nullptr ? "" : errorText(ftdi).load();
}
