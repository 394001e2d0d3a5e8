// See ibflash.h.
#include "board/ibflash.h"

#include "host/records.h"
#include "link/cmdframe.h"
#include "shared/contained.h"
#include "shared/str.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace {

/// Bytes of the first read: header and, on most boards, all records.
constexpr std::size_t HEAD_SIZE = 1020;
/// Record lists from this number of bytes on take a second read.
constexpr std::size_t SECOND_READ_SIZE = 1008;
/// Bytes of data in one exchange.
constexpr std::size_t CHUNK_SIZE = 1024;
/// The flash's read command: its code and three bytes of address go out before data come in.
constexpr unsigned char READ_CODE = 0x03;
constexpr std::size_t READ_COMMAND_SIZE = 4;
/// Exchanges in a row without all of their data after which the flash counts as gone: each may cost seconds.
constexpr int PATIENCE = 3;
/// A store with a hole in it is of no use: the first failure ends the read.
constexpr int NO_PATIENCE = 1;
/// Parameters of this number of items and more are loaded when they are first read.
constexpr std::size_t LAZY_ITEM_COUNT = 11;

} // namespace

int IBFlashReader::loadParameters(dv::IParamMgr* manager, bool all)
{
    if (manager == nullptr)
        return -1;
    paramMgr = manager;
    Store store;
    if (const int result = readStore(all, store); result != 0)
        return result;
    publish(store);
    storeFlag(loadOnRead, !all);
    return 0;
}

int IBFlashReader::readStore(bool all, Store& store)
{
    Bytes head(HEAD_SIZE);
    if (readChunks(head, 0, NO_PATIENCE) != 0)
        return -1;
    if (const int result = flashstore::parseHeader(head, store.header); result != 0)
        return result;
    version_ = 1;
    store.bytes.resize(store.header.storeSize);
    return readBehindHeader(head, all, store);
}

int IBFlashReader::readBehindHeader(std::span<const unsigned char> head, bool all, Store& store)
{
    const flashstore::Header& header = store.header;
    if (!all && header.recordSize < SECOND_READ_SIZE) {
        // The limit for a second read leaves lists of 1005 to 1007 bytes with up to three bytes behind the first read:
        // those stay zero until the whole store is read.
        std::copy_n(head.begin(), std::min(header.recordsEnd, head.size()), store.bytes.begin());
        return 0;
    }
    const std::span<unsigned char> bytes(store.bytes.data(), all ? header.storeSize : header.recordsEnd);
    if (readChunks(bytes, 0, NO_PATIENCE) != 0)
        return -1;
    // Bytes of somebody else's answer in front of this one would shift every value.
    return std::equal(bytes.begin(), bytes.begin() + flashstore::HEADER_SIZE, head.begin()) ? 0 : -1;
}

void IBFlashReader::publish(const Store& store)
{
    flashstore::Record record;
    for (flashstore::Walk walk(store.bytes, store.header); walk.next(record);)
        publish(record);
}

void IBFlashReader::publish(const flashstore::Record& record)
{
    const char* name = record.name.data();
    // The host takes a value of the type "string" as a text: it ends here, whatever the store says.
    Bytes value(record.value.begin(), record.value.end());
    value.push_back(0);
    if (!paramMgr->exists(name))
        paramMgr->addParam(name, name, record.type, record.itemCount(), value.data(), paramReadSetFuncWrapper,
                           reinterpret_cast<long>(this), dv::PARAM_READ_ONLY);
    else if (dv::IParam* param = paramMgr->get(name))
        param->setData(record.value.data(), record.value.size());
}

int IBFlashReader::flashReadData(unsigned char* buffer, unsigned long size, unsigned long address)
{
    return readChunks({buffer, size}, address, PATIENCE);
}

/// Returns the result of the last exchange, or that of the one with which `patience` ran out: so many in a row may
/// fail.
int IBFlashReader::readChunks(std::span<unsigned char> buffer, unsigned long address, int patience)
{
    int result = 0;
    int failures = 0;
    for (std::size_t done = 0; done < buffer.size() && failures < patience; done += CHUNK_SIZE) {
        result = readChunk(buffer.subspan(done, std::min(buffer.size() - done, CHUNK_SIZE)), address + done);
        failures = result != 0 ? failures + 1 : 0;
    }
    status_ = "Read";
    return result;
}

/// Takes what came, whatever the result is; what did not come is zero.
int IBFlashReader::readChunk(std::span<unsigned char> chunk, unsigned long address)
{
    status_ = str::format("Reading %04lX...", address);
    const std::size_t size = READ_COMMAND_SIZE + chunk.size();
    const auto place = HwLatixel::CmdArgs::word(static_cast<std::uint32_t>(address));
    Bytes tx{READ_CODE, place.d1, place.d2, place.d3};
    tx.resize(size);
    Bytes rx(size);
    unsigned long received = size;
    const int result = flashReadWrite(tx.data(), rx.data(), size, &received);
    std::copy_n(rx.begin() + READ_COMMAND_SIZE, chunk.size(), chunk.begin());
    return result == 0 && received < size ? -1 : result;
}

int IBFlashReader::paramReadSetFunc(dv::IParam* param, bool read)
{
    if (read && loadFlag(loadOnRead) && param->size() >= LAZY_ITEM_COUNT)
        loadLate();
    return 0;
}

void IBFlashReader::loadLate()
{
    Store store;
    bool good = false;
    const auto read = [&] {
        const int result = readStore(true, store);
        good = result == 0;
        return result;
    };
    if (readGate)
        readGate(read);
    else
        read();
    if (!good)
        return;
    publish(store);
    storeFlag(loadOnRead, false);
}

int IBFlashReader::paramReadSetFuncWrapper(dv::IParam* param, bool read, long user)
{
    // The host hands back the word that `publish` gave it. NOLINTNEXTLINE(performance-no-int-to-ptr)
    auto* reader = reinterpret_cast<IBFlashReader*>(user);
    contained([&] { reader->paramReadSetFunc(param, read); });
    return 0;
}
