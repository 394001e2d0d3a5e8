// See ibflash.h.
#include "board/ibflash.h"

#include "host/records.h"
#include "link/cmdframe.h"
#include "shared/str.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>

namespace {

/// Bytes of the first read: header and, on most boards, all records.
constexpr std::size_t HEAD_SIZE = 1020;
/// Record lists from this number of bytes on take a second read.
constexpr std::size_t SECOND_READ_SIZE = 1008;
/// Bytes of data in one exchange.
constexpr unsigned long CHUNK_SIZE = 1024;
/// The flash's read command: its code and three bytes of address go out before data come in.
constexpr unsigned char READ_CODE = 0x03;
constexpr unsigned long READ_COMMAND_SIZE = 4;
/// Exchanges in a row without data after which the flash counts as gone: each may cost seconds.
constexpr int SILENCE_LIMIT = 3;
/// Parameters of this number of items and more are loaded when they are first read.
constexpr std::size_t LAZY_ITEM_COUNT = 11;

} // namespace

int IBFlashReader::loadParameters(dv::IParamMgr* manager, bool all)
{
    paramMgr = manager;
    Bytes head(HEAD_SIZE);
    if (flashReadData(head.data(), head.size(), 0) != 0)
        return -1;
    flashstore::Header header;
    if (const int result = flashstore::parseHeader(head, header); result != 0)
        return result;
    version_ = 1;

    Bytes store(header.storeSize);
    if (readStore(header, head, all, store) != 0)
        return -1;
    flashstore::Record record;
    for (flashstore::Walk walk(store, header); walk.next(record);)
        publish(record);
    if (all)
        loadOnRead = false;
    return 0;
}

int IBFlashReader::readStore(const flashstore::Header& header, std::span<const unsigned char> head, bool all,
                             Bytes& store)
{
    if (all)
        return flashReadData(store.data(), store.size(), 0);
    if (header.recordSize >= SECOND_READ_SIZE)
        return flashReadData(store.data(), header.recordsEnd, 0);
    // The limit for a second read leaves lists of 1005 to 1007 bytes with up to three bytes behind the first read:
    // those stay zero until the whole store is read.
    std::copy_n(head.begin(), std::min(header.recordsEnd, head.size()), store.begin());
    return 0;
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
    const unsigned long largest = std::min(size, CHUNK_SIZE) + READ_COMMAND_SIZE;
    Bytes tx(largest);
    Bytes rx(largest);
    int result = 0;
    int silent = 0;
    for (unsigned long done = 0, chunk = 0; done < size; done += chunk) {
        if (silent == SILENCE_LIMIT)
            return result != 0 ? result : -1;
        chunk = std::min(size - done, CHUNK_SIZE);
        const auto place = HwLatixel::CmdArgs::word(static_cast<std::uint32_t>(address + done));
        const unsigned char command[READ_COMMAND_SIZE] = {READ_CODE, place.d1, place.d2, place.d3};
        std::copy(std::begin(command), std::end(command), tx.begin());
        rx.assign(largest, 0);
        status_ = str::format("Reading %04lX...", address + done);
        unsigned long received = chunk + READ_COMMAND_SIZE;
        result = flashReadWrite(tx.data(), rx.data(), chunk + READ_COMMAND_SIZE, &received);
        std::copy_n(rx.begin() + READ_COMMAND_SIZE, chunk, buffer + done);
        silent = result != 0 || received == 0 ? silent + 1 : 0;
    }
    status_ = "Read";
    return result;
}

int IBFlashReader::paramReadSetFunc(dv::IParam* param, bool read)
{
    if (read && loadOnRead && param->size() >= LAZY_ITEM_COUNT)
        loadParameters(paramMgr, true);
    return 0;
}

int IBFlashReader::paramReadSetFuncWrapper(dv::IParam* param, bool read, long user)
{
    // The host hands back the word that `publish` gave it. NOLINTNEXTLINE(performance-no-int-to-ptr)
    return reinterpret_cast<IBFlashReader*>(user)->paramReadSetFunc(param, read);
}
