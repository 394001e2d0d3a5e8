// The parameter store in a board's flash, published as host parameters. Nothing in the plug-in writes the flash.
// One template for all generations; the layout of the store is in flashstore.h.
#pragma once

#include "board/flashstore.h"
#include "host/iparam.h"
#include "host/records.h"
#include "link/spiexchange.h"
#include "shared/str.h"

#include <algorithm>
#include <span>
#include <string>
#include <vector>

/// The flash behind the command manager `T`. Small values are read at once; big ones when one of them is first read by
/// somebody, on that thread. No lock and no log here: the device serialises it with other traffic.
///
/// The parameters call back into this object, so it lives as long as the manager that holds them.
template <typename T>
class IBFlash {
public:
    /// `manager` is not owned and outlives this object.
    explicit IBFlash(T* manager) : mgr(manager) {}
    virtual ~IBFlash() = default;
    IBFlash(const IBFlash&) = delete;
    IBFlash& operator=(const IBFlash&) = delete;

    /// Goes on with another manager behind the parameters that are there; their next read loads the store again. With
    /// null nothing is read any more: what the parameters hold stays.
    void attach(T* manager)
    {
        mgr = manager;
        allLoaded = false;
    }

    /// One full-duplex exchange of `size` bytes with the flash. Returns the result of its last step; `received`, if
    /// given, takes the bytes that came back.
    virtual int flashReadWrite(unsigned char* tx, unsigned char* rx, unsigned long size, unsigned long* received) = 0;

    /// Writes the store's records into `manager`: a new parameter is read-only, an existing one takes the new value.
    /// Without `all`, values of 11 bytes or more stay zero for now, and start-up costs a single exchange in most
    /// cases. Damaged records are passed over.
    /// @return 0; -1 when the flash can't be read or claims more than a flash can hold; -2 for a bad magic (blank or
    ///         absent flash); -3 for an unknown version
    int loadParameters(dv::IParamMgr* manager, bool all);
    /// Reads `size` bytes from the 24-bit `address` on. Returns the result of the last exchange: an earlier failure
    /// leaves zeros. Gives up after three exchanges in a row that failed or brought nothing, with a value other than 0.
    int flashReadData(unsigned char* buffer, unsigned long size, unsigned long address);

    /// Called when the host reads (`read`) or has written `param`: the first read of a parameter of 11 items or more
    /// loads the whole store. The store counts in bytes but this counts in items, so a value of two doubles lies with
    /// the big values and yet is not loaded by its own read: it stays zero until a longer one is read. Returns 0.
    int paramReadSetFunc(dv::IParam* param, bool read);
    /// The hook of the parameters; `user` is the `IBFlash` object.
    static int paramReadSetFuncWrapper(dv::IParam* param, bool read, long user);

    /// Version of the store's layout: 0 until a header has passed its checks, then 1.
    int version() const { return version_; }
    /// What the last read is doing, as a text.
    const std::string& status() const { return status_; }

protected:
    T* mgr;

private:
    using Bytes = std::vector<unsigned char>;

    int readStore(const flashstore::Header& header, std::span<const unsigned char> head, bool all, Bytes& store);
    void publish(const flashstore::Record& record);

    dv::IParamMgr* paramMgr = nullptr;
    bool allLoaded = false;
    int version_ = 0;
    std::string status_;
};

/// The flash of a Medipix3 board.
template <typename T>
class IBFlashFpxMpx3 : public IBFlash<T> {
public:
    using IBFlash<T>::IBFlash;
    /// Longest silence in seconds before an answer counts as ended.
    static constexpr double RECEIVE_TIMEOUT = 2.0;

    int flashReadWrite(unsigned char* tx, unsigned char* rx, unsigned long size, unsigned long* received) override
    {
        return HwLatixel::spiExchange(*this->mgr, HwLatixel::spislave::FLASH, tx, rx, size, received, RECEIVE_TIMEOUT);
    }
};

/// The flash of a Medipix2 or Timepix board.
template <typename T>
class IBFlashFpx : public IBFlash<T> {
public:
    using IBFlash<T>::IBFlash;
    /// Longest silence in seconds before an answer counts as ended.
    static constexpr double RECEIVE_TIMEOUT = 1.0;

    int flashReadWrite(unsigned char* tx, unsigned char* rx, unsigned long size, unsigned long* received) override
    {
        return HwLatixel::spiExchange(*this->mgr, HwLatixel::spislave::FLASH, tx, rx, size, received, RECEIVE_TIMEOUT);
    }
};

/// How the store is read over SPI.
namespace ibflash {

/// Bytes of the first read: header and, on most boards, all records.
inline constexpr std::size_t HEAD_SIZE = 1020;
/// Record lists from this number of bytes on take a second read.
inline constexpr std::size_t SECOND_READ_SIZE = 1008;
/// Bytes of data in one exchange.
inline constexpr unsigned long CHUNK_SIZE = 1024;
/// The flash's read command: its code and three bytes of address go out before data come in.
inline constexpr unsigned char READ_CODE = 0x03;
inline constexpr unsigned long READ_COMMAND_SIZE = 4;
/// Exchanges in a row without data after which the flash counts as gone: each may cost seconds.
inline constexpr int SILENCE_LIMIT = 3;
/// Parameters of this number of items and more are loaded when they are first read.
inline constexpr std::size_t LAZY_ITEM_COUNT = 11;

} // namespace ibflash

template <typename T>
int IBFlash<T>::loadParameters(dv::IParamMgr* manager, bool all)
{
    paramMgr = manager;
    Bytes head(ibflash::HEAD_SIZE);
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
        allLoaded = true;
    return 0;
}

template <typename T>
int IBFlash<T>::readStore(const flashstore::Header& header, std::span<const unsigned char> head, bool all, Bytes& store)
{
    if (all)
        return flashReadData(store.data(), store.size(), 0);
    if (header.recordSize >= ibflash::SECOND_READ_SIZE)
        return flashReadData(store.data(), header.recordsEnd, 0);
    // The limit for a second read leaves lists of 1005 to 1007 bytes with up to three bytes behind the first read:
    // those stay zero until the whole store is read.
    std::copy_n(head.begin(), std::min(header.recordsEnd, head.size()), store.begin());
    return 0;
}

template <typename T>
void IBFlash<T>::publish(const flashstore::Record& record)
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

template <typename T>
int IBFlash<T>::flashReadData(unsigned char* buffer, unsigned long size, unsigned long address)
{
    const unsigned long largest = std::min(size, ibflash::CHUNK_SIZE) + ibflash::READ_COMMAND_SIZE;
    Bytes tx(largest);
    Bytes rx(largest);
    int result = 0;
    int silent = 0;
    for (unsigned long done = 0, chunk = 0; done < size; done += chunk) {
        if (silent == ibflash::SILENCE_LIMIT)
            return result != 0 ? result : -1;
        chunk = std::min(size - done, ibflash::CHUNK_SIZE);
        const auto place = HwLatixel::CmdArgs::word(static_cast<std::uint32_t>(address + done));
        const unsigned char command[ibflash::READ_COMMAND_SIZE] = {ibflash::READ_CODE, place.d1, place.d2, place.d3};
        std::copy(std::begin(command), std::end(command), tx.begin());
        rx.assign(largest, 0);
        status_ = str::format("Reading %04lX...", address + done);
        unsigned long received = chunk + ibflash::READ_COMMAND_SIZE;
        result = flashReadWrite(tx.data(), rx.data(), chunk + ibflash::READ_COMMAND_SIZE, &received);
        std::copy_n(rx.begin() + ibflash::READ_COMMAND_SIZE, chunk, buffer + done);
        silent = result != 0 || received == 0 ? silent + 1 : 0;
    }
    status_ = "Read";
    return result;
}

template <typename T>
int IBFlash<T>::paramReadSetFunc(dv::IParam* param, bool read)
{
    if (read && mgr != nullptr && !allLoaded && param->size() >= ibflash::LAZY_ITEM_COUNT)
        loadParameters(paramMgr, true);
    return 0;
}

template <typename T>
int IBFlash<T>::paramReadSetFuncWrapper(dv::IParam* param, bool read, long user)
{
    // The host hands back the word that `publish` gave it. NOLINTNEXTLINE(performance-no-int-to-ptr)
    return reinterpret_cast<IBFlash*>(user)->paramReadSetFunc(param, read);
}
