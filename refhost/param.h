// One parameter of the host's store.
#pragma once

#include "host/iparam.h"
#include "host/records.h"
#include "refhost/datatypes.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace refhost {

class Ledger;

/// What a parameter is; the value is apart.
struct ParamTraits {
    std::string name;
    std::string description;
    DataType type = DataType::Int32;
    std::size_t count = 1; ///< items at first
    dv::ParamFunc callback = nullptr;
    long user = 0;
    unsigned flags = 0; ///< a dv::ParamFlags value
};

/// A named value, or an array of values of one type. Safe for use by any thread.
///
/// Callbacks: every getter first calls the plug-in's callback with `isRead` true and then hands out the value that
/// it finds; every setter stores the value and then calls it with `isRead` false. It makes no difference who calls.
/// While a callback runs, no parameter of the same manager calls back on that thread: a plug-in may read and write
/// any of its parameters in a callback. `enableCallback(false)` silences one parameter. No lock is held meanwhile.
///
/// Values: the number getters and setters work on the first item and convert; a number that does not fit its type
/// becomes the type's nearest one. A text is read from the front as a number, 0 when it is none. Numbers become text
/// with as many digits as bring the same number back, a bool "true" or "false", several items stand with blanks
/// between them, an array of chars is a text up to its first zero. `setData` takes whole items, or a text up to its
/// first zero, and changes the number of items with it.
class Param final : public dv::IParam {
public:
    /// `initial` points at the first content: `count` items, or a zero-terminated text; null means zeros. It is
    /// copied. `manager` only tells which parameters belong together.
    Param(ParamTraits traits, const void* initial, const void* manager, std::weak_ptr<Ledger> ledger);

    const char* name() override { return traits.name.c_str(); }
    std::size_t size() override;
    unsigned char getByte() override;
    bool getBool() override;
    int getInt32() override;
    double getFloat() override;
    int toString(dv::IString* text) override;
    int setData(const void* data, std::size_t byteSize) override;
    int setByte(unsigned char value) override;
    int setBool(bool value) override;
    int setInt32(int value) override;
    int setDouble(double value) override;
    int setString(const char* value) override;
    void enableCallback(bool enable) override { callbackEnabled = enable; }

    const std::string& description() const { return traits.description; }
    DataType type() const { return traits.type; }
    unsigned flags() const { return traits.flags; }
    bool readOnly() const { return (traits.flags & dv::PARAM_READ_ONLY) != 0; }

    /// Writes a value that a person typed. Throws Error, and changes nothing, when the parameter is read-only or the
    /// text is no value of its type.
    void writeText(const std::string& text);
    /// The raw content, after the callback for reads.
    std::vector<unsigned char> data();

private:
    friend class ParamMgr;

    void callBack(bool isRead);
    double firstNumber();
    int storeNumber(double value, const char* operation);
    std::string contentAsText() const; // needs `mutex`
    bool usable(const char* operation) const;
    void complain(const std::string& what) const;

    const ParamTraits traits;
    const void* const manager;
    const std::weak_ptr<Ledger> ledger;
    std::atomic<bool> callbackEnabled{true};
    std::atomic<bool> released{false}; // set when the manager is released

    mutable std::mutex mutex; // guards the content
    std::size_t count;
    std::vector<unsigned char> content; // of the numbers; empty in a text
    std::string text;
};

} // namespace refhost
