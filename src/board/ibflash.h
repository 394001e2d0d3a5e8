// The parameter store in a board's flash, published as host parameters. Nothing in the plug-in writes the flash.
// One reader for all generations; the layout of the store is in flashstore.h.
#pragma once

#include "board/flashstore.h"
#include "host/iparam.h"
#include "link/spiexchange.h"
#include "shared/osdepend.h"

#include <functional>
#include <span>
#include <string>
#include <utility>
#include <vector>

/// Reads the store and publishes it; a derived class only says how its command manager reaches the flash. Small values
/// are read at once; big ones when one of them is first read by somebody, on that thread. No lock and no log here: the
/// device serialises it with other traffic.
///
/// The parameters call back into this object, so it lives as long as the manager that holds them.
class IBFlashReader {
public:
    virtual ~IBFlashReader() = default;
    IBFlashReader(const IBFlashReader&) = delete;
    IBFlashReader& operator=(const IBFlashReader&) = delete;

    /// Runs `read`, which takes the whole store off the link and returns 0 or a value below 0, or refuses it by not
    /// running it. Called on any thread.
    using ReadGate = std::function<void(const std::function<int()>& read)>;

    /// One full-duplex exchange of `size` bytes with the flash. Returns the result of its last step; `received`, if
    /// given, takes the bytes that came back.
    virtual int flashReadWrite(unsigned char* tx, unsigned char* rx, unsigned long size, unsigned long* received) = 0;

    /// Writes the store's records into `manager`: a new parameter is read-only, an existing one takes the new value.
    /// Without `all`, values of 11 bytes or more stay zero for now, and start-up costs a single exchange in most
    /// cases. Damaged records are passed over. Anything but a 0 leaves all values as they were, and the big ones are
    /// asked for again when one of them is next read.
    /// @return 0; -1 when the flash can't be read whole, tells another header in the second read, or claims more than
    ///         a flash can hold; -2 for a bad magic (blank or absent flash); -3 for an unknown version
    int loadParameters(dv::IParamMgr* manager, bool all);
    /// Reads `size` bytes from the 24-bit `address` on. Returns the result of the last exchange, -1 if that alone
    /// brought too few bytes: an earlier failure leaves zeros. Gives up after three exchanges in a row that failed or
    /// brought too few bytes, with a value other than 0.
    int flashReadData(unsigned char* buffer, unsigned long size, unsigned long address);

    /// The device's say in reads that a parameter sets off: they meet whatever else goes over the link. Only the
    /// reading runs in `gate`, not the writing of the parameters. A value whose read was refused is read later. Set it
    /// before the parameters are there; without one every read runs at once.
    void setReadGate(ReadGate gate) { readGate = std::move(gate); }

    /// Called when the host reads (`read`) or has written `param`: the first read of a parameter of 11 items or more
    /// loads the whole store. The store counts in bytes but this counts in items, so a value of two doubles lies with
    /// the big values and yet is not loaded by its own read: it stays zero until a longer one is read. Returns 0.
    int paramReadSetFunc(dv::IParam* param, bool read);
    /// The hook of the parameters; `user` is the object that published them.
    static int paramReadSetFuncWrapper(dv::IParam* param, bool read, long user);

    /// Version of the store's layout: 0 until a header has passed its checks, then 1.
    int version() const { return version_; }
    /// What the last read is doing, as a text.
    const std::string& status() const { return status_; }

protected:
    IBFlashReader() = default;

    /// From now on there is another flash behind the parameters, of which nothing is loaded, or (`there` false) none.
    void flashChanged(bool there) { storeFlag(loadOnRead, there); }

private:
    using Bytes = std::vector<unsigned char>;
    /// A store in memory. What was not read of it is zero.
    struct Store {
        flashstore::Header header;
        Bytes bytes;
    };

    int readChunks(std::span<unsigned char> buffer, unsigned long address, int patience);
    int readChunk(std::span<unsigned char> chunk, unsigned long address);
    int readStore(bool all, Store& store);
    int readBehindHeader(std::span<const unsigned char> head, bool all, Store& store);
    void publish(const Store& store);
    void publish(const flashstore::Record& record);
    void loadLate();

    dv::IParamMgr* paramMgr = nullptr;
    ReadGate readGate;
    bool loadOnRead = false; ///< Polled: big values are still in the flash, which can be read.
    int version_ = 0;
    std::string status_;
};

/// The flash behind the command manager `T`.
template <typename T>
class IBFlash : public IBFlashReader {
public:
    /// `manager` is not owned and outlives this object.
    explicit IBFlash(T* manager) { attach(manager); }

    /// Goes on with another manager behind the parameters that are there; their next read loads the store again. With
    /// null nothing is read any more: what the parameters hold stays.
    void attach(T* manager)
    {
        mgr = manager;
        flashChanged(manager != nullptr);
    }

protected:
    int exchange(unsigned char* tx, unsigned char* rx, unsigned long size, unsigned long* received, double timeout)
    {
        if (mgr == nullptr)
            return -1;
        return HwLatixel::spiExchange(*mgr, HwLatixel::spislave::FLASH, tx, rx, size, received, timeout);
    }

    T* mgr = nullptr;
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
        return this->exchange(tx, rx, size, received, RECEIVE_TIMEOUT);
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
        return this->exchange(tx, rx, size, received, RECEIVE_TIMEOUT);
    }
};
