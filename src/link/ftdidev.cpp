// See ftdidev.h. Written for libftdi 1.5.
#include "link/ftdidev.h"

#include "shared/osdepend.h"

#include <ftdi.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
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

/// Result of a read whose time limit is over: not even the chip's status has come.
constexpr int TIMED_OUT = -7;
/// Seconds between two reads, where one comes back empty without having waited.
constexpr double READ_PAUSE = 0.001;
/// Shortest limit of a read in seconds. libftdi loses what a transfer has brought when its time is over, and one of
/// 16384 bytes from a chip that is alive takes up to 32 packets with a latency period each.
constexpr double SHORTEST_READ = 0.08;
/// Seconds for the requests to a chip that has failed to answer the one before. One that is alive takes milliseconds.
constexpr double SHORT_REQUEST = 0.2;
/// Seconds of silence after which a board that was reset has said all.
constexpr double RESET_SILENCE = 0.1;

constexpr unsigned char ALL_PINS = 0xFF;
constexpr unsigned char MODE_SERIAL = BITMODE_RESET;
constexpr unsigned char MODE_BIT_BANG = BITMODE_BITBANG;
constexpr unsigned char MODE_SYNC_FIFO = BITMODE_SYNCFF;

constexpr std::size_t SKIP_BUFFER_SIZE = 4096;
/// Bytes of text in one read of `getLine`.
constexpr std::size_t LINE_CHUNK_SIZE = 1023;

const char* const NOT_SUPPORTED = "Not supported in libFTDI";
const char* const CLOSING = "Device is closing";
const char* const GIVEN_UP = "Board does not answer";

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

/// Sets how long a call of libftdi may block.
void setLimits(ftdi_context* context, int milliseconds)
{
    context->usb_read_timeout = milliseconds;
    context->usb_write_timeout = milliseconds;
}

/// A libftdi session for a walk over the bus.
class BusContext {
public:
    BusContext() : initialised(ftdi_init(&context) >= 0)
    {
        setLimits(&context, static_cast<int>(FtdiDev::LONGEST_CALL * 1000));
    }
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

FtdiDev::WholeContext::WholeContext(FtdiDev& link) : dev(link)
{
    ++dev.wholeWanted;
    dev.writeSync.lock();
    dev.readSync.lock();
    --dev.wholeWanted;
}

FtdiDev::WholeContext::~WholeContext()
{
    dev.readSync.unlock();
    dev.writeSync.unlock();
}

/// A time limit for libftdi in milliseconds; it takes 0 for none.
int FtdiDev::limitOf(double seconds) const
{
    double limit = std::min(LONGEST_CALL, seconds); // also for what is no number
    if (closer == getCurThreadId())
        limit = std::min(limit, closingEnd - getPreciseTime());
    return std::max(1, static_cast<int>(std::ceil(limit * 1000)));
}

/// Whether a request may still be made that belongs to others with the same `end`, and gives it the time that is left.
/// The caller holds the whole context.
bool FtdiDev::mayCall(double end)
{
    const double left = end - getPreciseTime();
    if (left <= 0 || refusesCalls())
        return false;
    setLimits(context.get(), limitOf(left));
    return true;
}

/// Seconds for a request or several that belong together. The caller holds the whole context.
double FtdiDev::requestTime() const
{
    return requestFailed ? SHORT_REQUEST : LONGEST_CALL;
}

bool FtdiDev::noteRequest(bool answered)
{
    requestFailed = !answered;
    return answered;
}

int FtdiDev::openDevice(bool useFlowControl, unsigned int vidPid)
{
    // A device that reconnects must not take the context from under another thread's call.
    const WholeContext whole(*this);
    if (refusesCalls())
        return failOfRefusal();
    requestFailed = false;
    flowControl = useFlowControl;
    releaseContext();
    contextInUse = true;
    if (ftdi_init(context.get()) < 0)
        return fail(-1, "Cannot initialize ftdi.");
    setLimits(context.get(), limitOf(LONGEST_CALL));
    std::uint32_t ids = vidPid != 0 ? vidPid : DEFAULT_VID_PID;
    if (const auto listed = mNameToVidPid.find(name); listed != mNameToVidPid.end())
        ids = listed->second;
    if (ftdi_usb_open_desc(context.get(), vendorOf(ids), productOf(ids), name.c_str(), nullptr) != 0)
        return failOfLibrary(-1);
    setUpLink(MODE_SERIAL, getPreciseTime() + LONGEST_CALL);
    return 0;
}

int FtdiDev::closeDevice()
{
    const WholeContext whole(*this);
    if (!isOpen())
        return 0;
    const int result = ftdi_usb_close(context.get());
    releaseContext();
    return result;
}

bool FtdiDev::isConnected()
{
    const WholeContext whole(*this);
    unsigned char latency = 0;
    return isOpen() && mayCall(getPreciseTime() + requestTime()) &&
           noteRequest(ftdi_get_latency_timer(context.get(), &latency) == 0);
}

// Results don't count for the callers: a chip that has gone shows at the next transfer. What a chip that does not
// answer leaves no time for is left out. Returns whether all went well.
bool FtdiDev::setUpLink(unsigned char mode, double end)
{
    const WholeContext whole(*this);
    contextInUse = true; // setting the chunk size allocates, also on a closed device
    ftdi_context* const chip = context.get();
    bool good = true;
    end = std::min(end, getPreciseTime() + requestTime());
    const auto request = [&](auto call, auto... args) {
        good = mayCall(end) && noteRequest(call(chip, args...) >= 0) && good;
    };
    request(ftdi_usb_reset);
    request(purge);
    request(ftdi_set_bitmode, ALL_PINS, MODE_SERIAL);
    if (mode != MODE_SERIAL)
        request(ftdi_set_bitmode, ALL_PINS, mode);
    request(ftdi_setflowctrl, flowControl ? SIO_RTS_CTS_HS : SIO_DISABLE_FLOW_CTRL);
    request(ftdi_read_data_set_chunksize, CHUNK_SIZE);
    request(ftdi_write_data_set_chunksize, CHUNK_SIZE);
    request(ftdi_set_latency_timer, LATENCY_MS);
    if (good && mode == MODE_BIT_BANG)
        failedSend = 0; // the board begins anew
    return good;
}

int FtdiDev::setBitMode(FtdiBitMode mode)
{
    setUpLink(mode == FtdiBitModeBitBang ? MODE_BIT_BANG : MODE_SYNC_FIFO, getPreciseTime() + LONGEST_CALL);
    return 0;
}

int FtdiDev::setBitMode(unsigned char bitmask, unsigned char mode)
{
    const WholeContext whole(*this);
    if (mayCall(getPreciseTime() + LONGEST_CALL))
        ftdi_set_bitmode(context.get(), bitmask, mode);
    return 0;
}

int FtdiDev::setBaudRate(int baud)
{
    const WholeContext whole(*this);
    const double end = getPreciseTime() + LONGEST_CALL;
    if (mayCall(end))
        ftdi_set_line_property(context.get(), BITS_8, STOP_BIT_1, NONE);
    if (mayCall(end))
        ftdi_set_baudrate(context.get(), baud);
    return 0;
}

int FtdiDev::setLatencyTimer(unsigned int milliseconds)
{
    const WholeContext whole(*this);
    if (mayCall(getPreciseTime() + LONGEST_CALL))
        ftdi_set_latency_timer(context.get(), static_cast<unsigned char>(milliseconds));
    return 0;
}

int FtdiDev::clearBuffers()
{
    const WholeContext whole(*this);
    if (!mayCall(getPreciseTime() + requestTime()))
        return failOfRefusal();
    const int result = purge(context.get());
    noteRequest(result >= 0);
    return result;
}

// ---- A link out of step ----

bool FtdiDev::resynchronise()
{
    const double end = getPreciseTime() + LONGEST_CALL;
    if (!isConnected() || !setUpLink(MODE_BIT_BANG, end) || !setUpLink(MODE_SYNC_FIFO, end))
        return false;
    std::array<char, SKIP_BUFFER_SIZE> rest;
    double quiet = getPreciseTime() + RESET_SILENCE;
    while (getPreciseTime() < std::min(quiet, end)) {
        const int moved = readChunk(rest.data(), rest.size(), RESET_SILENCE);
        if (moved < 0)
            return false;
        if (moved > 0)
            quiet = getPreciseTime() + RESET_SILENCE;
    }
    return true;
}

// ---- A link that is given up ----

void FtdiDev::startClosing()
{
    refusal = CLOSING;
}

void FtdiDev::cancelClosing()
{
    refusal = nullptr;
}

void FtdiDev::giveUp()
{
    const char* none = nullptr;
    refusal.compare_exchange_strong(none, GIVEN_UP);
}

void FtdiDev::resume()
{
    const char* givenUp = GIVEN_UP;
    refusal.compare_exchange_strong(givenUp, nullptr);
}

bool FtdiDev::refusesCalls() const
{
    const bool ownCalls = closer == getCurThreadId() && getPreciseTime() < closingEnd;
    return refusal != nullptr && !ownCalls;
}

FtdiDev::ClosingCalls::ClosingCalls(FtdiDev& link, double seconds) : dev(link)
{
    dev.closingEnd = getPreciseTime() + seconds;
    dev.closer = getCurThreadId();
}

// ---- Transfers ----

int FtdiDev::send(const char* data, unsigned long size, double timeout)
{
    if (const int result = failedSend; result != 0)
        return fail(result, failedSendText.get());
    double start = getPreciseTime();
    trace(data, size, false);
    unsigned long sent = 0;
    do {
        const unsigned long rest = size - sent;
        // One transfer at a time, each with a limit of its own.
        const int part = static_cast<int>(std::min<unsigned long>(rest, CHUNK_SIZE));
        const int moved = writeChunk(data + sent, part, timeout - (getPreciseTime() - start));
        if (moved < 0)
            return moved;
        if (static_cast<unsigned long>(moved) > rest)
            return failOfSend(-1, "Device disconnected");
        sent += static_cast<unsigned long>(moved);
        if (moved > 0)
            start = getPreciseTime();
        else if (getPreciseTime() - start > timeout)
            return failOfSend(-1, "Timeout");
    } while (sent < size);
    reportTransfer(data, sent, false);
    return static_cast<int>(sent);
}

/// Writes within `seconds`. Negative on failure, which is then the last error.
int FtdiDev::writeChunk(const char* data, int size, double seconds)
{
    ThreadLock lock(&writeSync);
    if (refusesCalls())
        return failOfRefusal();
    context->usb_write_timeout = limitOf(seconds);
    const int moved = ftdi_write_data(context.get(), reinterpret_cast<const unsigned char*>(data), size);
    return moved < 0 ? failOfSend(moved, ftdi_get_error_string(context.get())) : moved;
}

/// Reads what has arrived, at most `size` bytes; nothing comes within `seconds` only from a chip that does not answer.
/// Negative on failure, which is then the last error.
int FtdiDev::readChunk(char* buffer, unsigned long size, double seconds)
{
    const int part = static_cast<int>(std::min<unsigned long>(size, INT_MAX));
    if (wholeWanted > 0)
        sleepThread(READ_PAUSE);
    ThreadLock lock(&readSync);
    if (refusesCalls())
        return failOfRefusal();
    context->usb_read_timeout = limitOf(std::max(seconds, SHORTEST_READ));
    const int moved = ftdi_read_data(context.get(), reinterpret_cast<unsigned char*>(buffer), part);
    if (moved == TIMED_OUT) {
        sleepThread(READ_PAUSE);
        return 0;
    }
    return moved < 0 ? failOfLibrary(moved) : std::min(moved, part);
}

int FtdiDev::receive(char* buffer, unsigned long bufferSize, unsigned long count, double timeout, bool binary,
                     const std::atomic<int>* wanted)
{
    const unsigned long asked = std::min(bufferSize, count);
    // All that waits would be meant, but libftdi can't tell how much that is: the answer is always the failure.
    if (asked == 0)
        return inQueue();
    unsigned long received = 0;
    double deadline = getPreciseTime() + timeout;
    while (received < asked && getPreciseTime() < deadline) {
        if (wanted != nullptr && *wanted != 0 && received == 0)
            break;
        const int moved = readChunk(buffer + received, asked - received, deadline - getPreciseTime());
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
    if (received < asked)
        fail(0, "Timeout");
    trace(buffer, received, true);
    return static_cast<int>(received);
}

int FtdiDev::receiveAll(char* buffer, unsigned long size, unsigned int maxReads, double timeout)
{
    const double start = getPreciseTime();
    const double limit = timeout > 0 ? timeout : LONGEST_CALL;
    unsigned long received = 0;
    for (unsigned int i = 0; i < maxReads; ++i) {
        const int moved = readChunk(buffer + received, std::min<unsigned long>(CHUNK_SIZE, size - received),
                                    start + limit - getPreciseTime());
        if (moved < 0)
            return moved;
        received += static_cast<unsigned long>(moved);
        // Without a limit a stream may go on for as long as it likes, but a chip that does not answer may not.
        const bool late = (timeout > 0 || moved == 0) && getPreciseTime() - start > limit;
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
        const int moved = readChunk(buffer + received, size - received, deadline - getPreciseTime());
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
        const int moved = readChunk(chunk.data(), chunk.size(), deadline - getPreciseTime());
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
        const int moved = readChunk(chunk.data(), LINE_CHUNK_SIZE, deadline - getPreciseTime());
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

int FtdiDev::failOfRefusal()
{
    const char* why = refusal;
    return fail(-1, why != nullptr ? why : CLOSING);
}

/// The text belongs to the call before only while its lock is held.
int FtdiDev::failOfLibrary(int result)
{
    const char* text = ftdi_get_error_string(context.get());
    return fail(result, text != nullptr ? text : "");
}

/// On a device that is open, from now on every send fails like this one, until the board is reset.
int FtdiDev::failOfSend(int result, const char* text)
{
    ThreadLock lock(&writeSync);
    text = text != nullptr ? text : "";
    if (isOpen()) {
        failedSendText.set(text);
        failedSend = result;
    }
    return fail(result, text);
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
    std::FILE* file = std::fopen(logFile.c_str(), "ae");
    if (file == nullptr)
        return;
    std::fputs(received ? "<" : ">", file);
    for (const char byte : std::span(data, size))
        std::fprintf(file, "%02X ", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    std::fputs("\n", file);
    std::fclose(file);
}
