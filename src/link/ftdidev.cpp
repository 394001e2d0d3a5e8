// See ftdidev.h. Written for libftdi 1.5.
#include "link/ftdidev.h"

#include "shared/osdepend.h"

#include <ftdi.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>
#include <utility>

namespace {

using VidPids = std::vector<std::uint32_t>;

/// Vendor and product of the bridge chips that boards are built with.
constexpr std::array<std::uint32_t, 4> STANDARD_VID_PIDS = {0x04036010, 0x04036001, 0x04036014, 0x04036015};
constexpr std::uint32_t DEFAULT_VID_PID = 0x04036010;

/// Longest USB string that is asked for, without its terminator.
constexpr int USB_STRING_SIZE = 128;
/// Bytes of one USB transfer. The chip's driver takes it for both directions.
constexpr unsigned CHUNK_SIZE = 65536;
/// Milliseconds that the chip waits before it sends an incomplete packet.
constexpr unsigned char LATENCY_MS = 2;

constexpr unsigned char ALL_PINS = 0xFF;
constexpr unsigned char MODE_SERIAL = BITMODE_RESET;
constexpr unsigned char MODE_BIT_BANG = BITMODE_BITBANG;
constexpr unsigned char MODE_SYNC_FIFO = BITMODE_SYNCFF;

constexpr std::size_t SKIP_BUFFER_SIZE = 4096;
/// Bytes of text in one read of `getLine`.
constexpr std::size_t LINE_CHUNK_SIZE = 1023;

const char* const NOT_SUPPORTED = "Not supported in libFTDI";

int vendorOf(std::uint32_t vidPid)
{
    return static_cast<int>(vidPid >> 16);
}

int productOf(std::uint32_t vidPid)
{
    return static_cast<int>(vidPid & 0xFFFF);
}

/// The one place where the deprecated call is made: on the wire it is what its two successors do, and the boards'
/// firmware is used to it.
int purge(ftdi_context* context)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return ftdi_usb_purge_buffers(context);
#pragma GCC diagnostic pop
}

/// A libftdi session for a walk over the bus.
class BusContext {
public:
    BusContext() : initialised(ftdi_init(&context) >= 0) {}
    ~BusContext()
    {
        if (initialised)
            ftdi_deinit(&context);
    }
    BusContext(const BusContext&) = delete;
    BusContext& operator=(const BusContext&) = delete;

    bool ok() const { return initialised; }
    ftdi_context* get() { return &context; }

private:
    ftdi_context context{};
    bool initialised;
};

using NameTable = std::map<std::string, std::uint32_t>;

/// What a listing takes and how it goes on.
struct ListRules {
    std::span<const char*> names; ///< Beginnings of descriptions; all chips if empty.
    bool skipChannelB;
    bool readSerial;
    bool skipUnreadable; ///< Go on behind a chip whose texts can't be read, instead of giving up.

    bool takes(std::string_view description) const
    {
        return names.empty() || std::any_of(names.begin(), names.end(), [description](const char* name) {
                   return name != nullptr && description.starts_with(name);
               });
    }
};

/// Appends the chips of one pair to `out` and to the table. Returns 0, -2, -3 as the listings.
int scanPair(ftdi_context* context, std::uint32_t vidPid, const ListRules& rules, std::vector<FtdiDevInfo>& out,
             NameTable& vidPidOfName)
{
    ftdi_device_list* list = nullptr;
    if (ftdi_usb_find_all(context, &list, vendorOf(vidPid), productOf(vidPid)) < 0)
        return -2;
    for (const ftdi_device_list* node = list; node != nullptr;) {
        std::array<char, USB_STRING_SIZE + 1> manufacturer{};
        std::array<char, USB_STRING_SIZE + 1> description{};
        std::array<char, USB_STRING_SIZE + 1> serial{};
        const bool readable =
            ftdi_usb_get_strings(context, node->dev, manufacturer.data(), USB_STRING_SIZE, description.data(),
                                 USB_STRING_SIZE, serial.data(), USB_STRING_SIZE) >= 0;
        if (!readable && !rules.skipUnreadable)
            return -3; // The list is left to the end of the process, as this listing always did.
        const std::string name = description.data();
        // A readable channel B is read again without moving on: the caller waits until it is unplugged.
        if (readable && rules.skipChannelB && name.size() >= 2 && name.back() == 'B')
            continue;
        if (readable && rules.takes(name)) {
            out.push_back({name, rules.readSerial ? serial.data() : "", vidPid});
            vidPidOfName[name] = vidPid;
        }
        node = node->next;
    }
    ftdi_list_free(&list);
    return 0;
}

int scanBus(BusContext& bus, const VidPids& vidPids, const ListRules& rules, std::vector<FtdiDevInfo>& out,
            NameTable& vidPidOfName)
{
    vidPidOfName.clear();
    for (const std::uint32_t vidPid : vidPids) {
        if (const int result = scanPair(bus.get(), vidPid, rules, out, vidPidOfName); result != 0)
            return result;
    }
    return 0;
}

} // namespace

VidPids FtdiDev::mVidPids;
NameTable FtdiDev::mNameToVidPid;

FtdiDev::FtdiDev(std::string deviceName, bool unused)
    : context(std::make_unique<ftdi_context>()),
      name(std::move(deviceName)),
      unused_(unused)
{
}

FtdiDev::~FtdiDev()
{
    if (!isOpen())
        releaseContext();
}

// ---- The bus ----

int FtdiDev::addVidPid(unsigned int vid, unsigned int pid)
{
    return addVidPid(vid << 16 | (pid & 0xFFFF));
}

int FtdiDev::addVidPid(unsigned int vidPid)
{
    if (std::find(mVidPids.begin(), mVidPids.end(), vidPid) == mVidPids.end())
        mVidPids.push_back(vidPid);
    return 0;
}

int FtdiDev::listDevicesByName(const char** names, unsigned long count, std::vector<FtdiDevInfo>& out,
                               bool skipChannelB, bool readSerial)
{
    BusContext bus;
    if (!bus.ok())
        return -1;
    for (const std::uint32_t vidPid : STANDARD_VID_PIDS)
        addVidPid(vidPid);
    const ListRules rules{{names, count}, skipChannelB, readSerial, true};
    return scanBus(bus, mVidPids, rules, out, mNameToVidPid);
}

int FtdiDev::listDevicesByNameFast(const char** names, unsigned long count, std::vector<FtdiDevInfo>& out,
                                   bool skipChannelB, bool readSerial)
{
    return listDevicesByName(names, count, out, skipChannelB, readSerial);
}

int FtdiDev::listDevicesByVidpid(const unsigned long* vidPids, unsigned long count, std::vector<FtdiDevInfo>& out,
                                 bool skipChannelB)
{
    BusContext bus;
    if (!bus.ok())
        return -1;
    VidPids pairs(count);
    std::transform(vidPids, vidPids + count, pairs.begin(),
                   [](unsigned long pair) { return static_cast<std::uint32_t>(pair); });
    const ListRules rules{{}, skipChannelB, true, false};
    return scanBus(bus, pairs, rules, out, mNameToVidPid);
}

// ---- Life of the session ----

bool FtdiDev::isOpen() const
{
    return context->usb_dev != nullptr;
}

// A context that is initialised again without this loses its library session: reconnecting would leak file
// descriptors until there are none left. Zeroes are the only state that libftdi can be given to initialise safely.
void FtdiDev::releaseContext()
{
    if (contextInUse)
        ftdi_deinit(context.get());
    contextInUse = false;
    *context = ftdi_context{};
}

int FtdiDev::openDevice(bool useFlowControl, unsigned int vidPid)
{
    // A device that reconnects must not take the context from under another thread's call.
    ThreadLock writeLock(&writeSync);
    ThreadLock readLock(&readSync);
    flowControl = useFlowControl;
    releaseContext();
    contextInUse = true;
    if (ftdi_init(context.get()) < 0)
        return fail(-1, "Cannot initialize ftdi.");
    std::uint32_t ids = vidPid != 0 ? vidPid : DEFAULT_VID_PID;
    if (const auto listed = mNameToVidPid.find(name); listed != mNameToVidPid.end())
        ids = listed->second;
    if (ftdi_usb_open_desc(context.get(), vendorOf(ids), productOf(ids), name.c_str(), nullptr) != 0)
        return failOfLibrary(-1);
    setUpLink(MODE_SERIAL);
    return 0;
}

int FtdiDev::closeDevice()
{
    ThreadLock writeLock(&writeSync);
    ThreadLock readLock(&readSync);
    if (!isOpen())
        return 0;
    const int result = ftdi_usb_close(context.get());
    releaseContext();
    return result;
}

bool FtdiDev::isConnected()
{
    ThreadLock writeLock(&writeSync);
    ThreadLock readLock(&readSync);
    unsigned char latency = 0;
    return isOpen() && ftdi_get_latency_timer(context.get(), &latency) == 0;
}

// Results don't count here: a chip that has gone shows at the next transfer.
void FtdiDev::setUpLink(unsigned char mode)
{
    ThreadLock writeLock(&writeSync);
    ThreadLock readLock(&readSync);
    contextInUse = true; // setting the chunk size allocates, also on a closed device
    ftdi_usb_reset(context.get());
    purge(context.get());
    ftdi_set_bitmode(context.get(), ALL_PINS, MODE_SERIAL);
    if (mode != MODE_SERIAL)
        ftdi_set_bitmode(context.get(), ALL_PINS, mode);
    ftdi_setflowctrl(context.get(), flowControl ? SIO_RTS_CTS_HS : SIO_DISABLE_FLOW_CTRL);
    ftdi_read_data_set_chunksize(context.get(), CHUNK_SIZE);
    ftdi_write_data_set_chunksize(context.get(), CHUNK_SIZE);
    ftdi_set_latency_timer(context.get(), LATENCY_MS);
}

int FtdiDev::setBitMode(FtdiBitMode mode)
{
    setUpLink(mode == FtdiBitModeBitBang ? MODE_BIT_BANG : MODE_SYNC_FIFO);
    return 0;
}

int FtdiDev::setBitMode(unsigned char bitmask, unsigned char mode)
{
    ftdi_set_bitmode(context.get(), bitmask, mode);
    return 0;
}

int FtdiDev::setBaudRate(int baud)
{
    ftdi_set_line_property(context.get(), BITS_8, STOP_BIT_1, NONE);
    ftdi_set_baudrate(context.get(), baud);
    return 0;
}

int FtdiDev::setLatencyTimer(unsigned int milliseconds)
{
    ftdi_set_latency_timer(context.get(), static_cast<unsigned char>(milliseconds));
    return 0;
}

int FtdiDev::clearBuffers()
{
    ThreadLock writeLock(&writeSync);
    ThreadLock readLock(&readSync);
    return purge(context.get());
}

// ---- Transfers ----

int FtdiDev::send(const char* data, unsigned long size, double timeout)
{
    double start = getPreciseTime();
    trace(data, size, false);
    unsigned long sent = 0;
    do {
        const unsigned long rest = size - sent;
        const int part = static_cast<int>(std::min<unsigned long>(rest, INT_MAX));
        const int moved = writeChunk(data + sent, part);
        if (moved < 0)
            return failOfLibrary(moved);
        if (static_cast<unsigned long>(moved) > rest)
            return fail(-1, "Device disconnected");
        sent += static_cast<unsigned long>(moved);
        if (moved > 0)
            start = getPreciseTime();
        else if (getPreciseTime() - start > timeout)
            return fail(-1, "Timeout");
    } while (sent < size);
    reportTransfer(data, sent, false);
    return static_cast<int>(sent);
}

int FtdiDev::writeChunk(const char* data, int size)
{
    ThreadLock lock(&writeSync);
    return ftdi_write_data(context.get(), reinterpret_cast<const unsigned char*>(data), size);
}

/// Reads what has arrived, at most `size` bytes. Negative on failure, which is then the last error.
int FtdiDev::readChunk(char* buffer, unsigned long size)
{
    const int part = static_cast<int>(std::min<unsigned long>(size, INT_MAX));
    ThreadLock lock(&readSync);
    const int moved = ftdi_read_data(context.get(), reinterpret_cast<unsigned char*>(buffer), part);
    return moved < 0 ? failOfLibrary(moved) : std::min(moved, part);
}

int FtdiDev::receive(char* buffer, unsigned long bufferSize, unsigned long count, double timeout, bool binary)
{
    const unsigned long wanted = std::min(bufferSize, count);
    // All that waits would be meant, but libftdi can't tell how much that is: the answer is always the failure.
    if (wanted == 0)
        return inQueue();
    unsigned long received = 0;
    double deadline = getPreciseTime() + timeout;
    while (received < wanted && getPreciseTime() < deadline) {
        const int moved = readChunk(buffer + received, wanted - received);
        if (moved < 0) {
            trace(buffer, received, true);
            return moved;
        }
        received += static_cast<unsigned long>(moved);
        if (moved > 0)
            deadline = getPreciseTime() + timeout;
    }
    if (received < bufferSize && !binary)
        buffer[received] = '\0';
    reportTransfer(buffer, received, true);
    if (received < wanted)
        fail(0, "Timeout");
    trace(buffer, received, true);
    return static_cast<int>(received);
}

int FtdiDev::receiveAll(char* buffer, unsigned long size, unsigned int maxReads, double timeout)
{
    const double start = getPreciseTime();
    unsigned long received = 0;
    for (unsigned int i = 0; i < maxReads; ++i) {
        const int moved = readChunk(buffer + received, std::min<unsigned long>(CHUNK_SIZE, size - received));
        if (moved < 0)
            return moved;
        received += static_cast<unsigned long>(moved);
        const bool late = timeout > 0 && getPreciseTime() - start > timeout;
        // Silence before the first byte goes on: the board may be about to answer.
        const bool paused = moved == 0 && received != 0;
        if (late || paused || received == size)
            break;
    }
    return static_cast<int>(received);
}

bool FtdiDev::findPattern(const char* data, unsigned long size, const char* pattern, unsigned long patternSize)
{
    return size >= patternSize && std::equal(pattern, pattern + patternSize, data + (size - patternSize));
}

int FtdiDev::receiveAllUntilPattern(char* buffer, unsigned long size, const char* pattern, unsigned long patternSize,
                                    double timeout)
{
    const double deadline = getPreciseTime() + timeout;
    unsigned long received = 0;
    while (getPreciseTime() < deadline) {
        const int moved = readChunk(buffer + received, size - received);
        if (moved < 0) {
            trace(buffer, received, true);
            return moved;
        }
        received += static_cast<unsigned long>(moved);
        // A full buffer won't change any more.
        if (findPattern(buffer, received, pattern, patternSize) || received == size)
            break;
    }
    reportTransfer(buffer, received, true);
    trace(buffer, received, true);
    return static_cast<int>(received);
}

int FtdiDev::skipAllUntilPattern(const char* pattern, unsigned long patternSize, double timeout)
{
    if (patternSize == 0)
        return 0;
    std::array<char, SKIP_BUFFER_SIZE> chunk;
    unsigned long skipped = 0;
    unsigned long matched = 0; // survives the chunks, so that a pattern may lie across two
    const double deadline = getPreciseTime() + timeout;
    while (getPreciseTime() < deadline) {
        const int moved = readChunk(chunk.data(), chunk.size());
        if (moved < 0)
            return moved;
        skipped += static_cast<unsigned long>(moved);
        for (const char byte : std::span(chunk).first(static_cast<std::size_t>(moved))) {
            // After a mismatch only this byte is tried as a new beginning: a pattern that starts inside its own
            // broken copy is missed.
            if (byte != pattern[matched])
                matched = 0;
            if (byte == pattern[matched] && ++matched == patternSize)
                return static_cast<int>(skipped);
        }
    }
    return fail(skipped == 0 ? -1 : -static_cast<int>(skipped), "Timeout");
}

int FtdiDev::getLine(std::string& line, char delimiter, double timeout)
{
    if (const std::size_t end = lineBuffer.find(delimiter); end != std::string::npos) {
        line = lineBuffer.substr(0, end);
        lineBuffer.erase(0, end + 1);
        return 0;
    }
    line = std::exchange(lineBuffer, "");
    const double deadline = getPreciseTime() + timeout;
    while (getPreciseTime() < deadline) {
        std::array<char, LINE_CHUNK_SIZE + 1> chunk;
        const int moved = readChunk(chunk.data(), LINE_CHUNK_SIZE);
        if (moved < 0)
            return moved;
        char* const end = chunk.data() + moved;
        *end = '\0';
        char* const found = std::find(chunk.data(), end, delimiter);
        const bool complete = found != end;
        *found = '\0';
        line += chunk.data(); // up to the first zero byte: this is text
        if (complete) {
            lineBuffer = found + 1 < end ? found + 1 : "";
            return 0;
        }
    }
    return -1;
}

// ---- What libftdi can't do ----

int FtdiDev::cyclePort()
{
    return fail(0, "cyclePort not supported on Linux/Mac");
}

int FtdiDev::inQueue()
{
    return fail(-1, NOT_SUPPORTED);
}

int FtdiDev::rename(const char* /*newName*/)
{
    return fail(-1, NOT_SUPPORTED);
}

std::string FtdiDev::readName()
{
    fail(-1, NOT_SUPPORTED);
    return "";
}

// ---- Reports ----

int FtdiDev::fail(int result, const char* text)
{
    lastError.set(text);
    return result;
}

int FtdiDev::failOfLibrary(int result)
{
    const char* text = ftdi_get_error_string(context.get());
    return fail(result, text != nullptr ? text : "");
}

void FtdiDev::setDataCallback(DataCallback callback, long user)
{
    dataCallback = callback;
    dataCallbackUser = user;
}

void FtdiDev::reportTransfer(const char* data, unsigned long size, bool received) const
{
    if (dataCallback != nullptr)
        dataCallback(data, size, received ? 0 : 1, dataCallbackUser);
}

void FtdiDev::trace(const char* data, unsigned long size, bool received) const
{
    if (!logFile.empty())
        logBuff(data, size, received);
}

void FtdiDev::logBuff(const char* data, unsigned long size, bool received) const
{
    std::FILE* file = std::fopen(logFile.c_str(), "a");
    if (file == nullptr)
        return;
    std::fputs(received ? "<" : ">", file);
    for (const char byte : std::span(data, size))
        std::fprintf(file, "%02X ", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    std::fputs("\n", file);
    std::fclose(file);
}
