// One parameter: conversions and callbacks.
#include "refhost/param.h"

#include "refhost/error.h"
#include "refhost/ledger.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace refhost {
namespace {

/// The managers whose callbacks run on this thread, innermost last.
thread_local std::vector<const void*> activeManagers;

class ActiveManager {
public:
    explicit ActiveManager(const void* manager) { activeManagers.push_back(manager); }
    ~ActiveManager() { activeManagers.pop_back(); }
    ActiveManager(const ActiveManager&) = delete;
    ActiveManager& operator=(const ActiveManager&) = delete;
};

bool isActive(const void* manager)
{
    return std::find(activeManagers.begin(), activeManagers.end(), manager) != activeManagers.end();
}

std::string_view untilZero(const void* data, std::size_t byteSize)
{
    const auto* chars = static_cast<const char*>(data);
    return {chars, strnlen(chars, byteSize)};
}

std::vector<std::string_view> words(std::string_view text)
{
    constexpr std::string_view GAPS = " ,;\t\r\n";
    std::vector<std::string_view> found;
    for (std::size_t begin = text.find_first_not_of(GAPS); begin != std::string_view::npos;) {
        const std::size_t end = std::min(text.find_first_of(GAPS, begin), text.size());
        found.push_back(text.substr(begin, end - begin));
        begin = text.find_first_not_of(GAPS, end);
    }
    return found;
}

} // namespace

Param::Param(ParamTraits what, const void* initial, const void* owner, std::weak_ptr<Ledger> books)
    : traits(std::move(what)),
      manager(owner),
      ledger(std::move(books)),
      count(traits.count)
{
    if (traits.type == DataType::Text) {
        text = initial != nullptr ? static_cast<const char*>(initial) : "";
        return;
    }
    content.resize(count * sizeOf(traits.type));
    if (initial != nullptr && !content.empty())
        std::memcpy(content.data(), initial, content.size());
}

std::size_t Param::size()
{
    const std::lock_guard lock(mutex);
    return count;
}

unsigned char Param::getByte()
{
    unsigned char value = 0;
    putNumber(DataType::Byte, &value, firstNumber());
    return value;
}

bool Param::getBool()
{
    usable("getBool");
    callBack(true);
    const std::lock_guard lock(mutex);
    std::uint32_t value = 0;
    if (traits.type == DataType::Text && putText(DataType::Bool, &value, text))
        return value != 0;
    if (traits.type == DataType::Text)
        return std::strtod(text.c_str(), nullptr) != 0;
    return !content.empty() && numberAt(traits.type, content.data()) != 0;
}

int Param::getInt32()
{
    int value = 0;
    putNumber(DataType::Int32, &value, firstNumber());
    return value;
}

double Param::getFloat()
{
    return firstNumber();
}

double Param::firstNumber()
{
    usable("a get");
    callBack(true);
    const std::lock_guard lock(mutex);
    if (traits.type == DataType::Text)
        return std::strtod(text.c_str(), nullptr);
    return content.empty() ? 0 : numberAt(traits.type, content.data());
}

int Param::toString(dv::IString* target)
{
    if (!usable("toString"))
        return -1;
    if (target == nullptr) {
        complain("toString into a null text");
        return -1;
    }
    callBack(true);
    std::string value;
    {
        const std::lock_guard lock(mutex);
        value = contentAsText();
    }
    return target->set(value.c_str());
}

std::string Param::contentAsText() const
{
    if (traits.type == DataType::Text)
        return text;
    if (traits.type == DataType::Char && count > 1)
        return std::string(untilZero(content.data(), content.size()));
    std::string all;
    for (std::size_t at = 0; at < content.size(); at += sizeOf(traits.type)) {
        if (at != 0)
            all += ' ';
        all += textAt(traits.type, content.data() + at);
    }
    return all;
}

int Param::setData(const void* data, std::size_t byteSize)
{
    if (!usable("setData"))
        return -1;
    if (data == nullptr && byteSize != 0) {
        complain("setData with null data");
        return -1;
    }
    {
        const std::lock_guard lock(mutex);
        const auto* bytes = static_cast<const unsigned char*>(data);
        if (traits.type == DataType::Text) {
            text = byteSize != 0 ? untilZero(data, byteSize) : "";
        } else {
            count = byteSize / sizeOf(traits.type);
            content.assign(bytes, bytes + count * sizeOf(traits.type));
        }
    }
    callBack(false);
    return 0;
}

int Param::setByte(unsigned char value)
{
    return storeNumber(value, "setByte");
}

int Param::setBool(bool value)
{
    if (traits.type == DataType::Text)
        return setString(value ? "true" : "false");
    return storeNumber(value ? 1 : 0, "setBool");
}

int Param::setInt32(int value)
{
    return storeNumber(value, "setInt32");
}

int Param::setDouble(double value)
{
    return storeNumber(value, "setDouble");
}

int Param::storeNumber(double value, const char* operation)
{
    if (!usable(operation))
        return -1;
    {
        const std::lock_guard lock(mutex);
        if (traits.type == DataType::Text)
            text = textAt(DataType::Double, &value);
        else if (!content.empty())
            putNumber(traits.type, content.data(), value);
        else
            return -1;
    }
    callBack(false);
    return 0;
}

int Param::setString(const char* value)
{
    if (!usable("setString"))
        return -1;
    if (value == nullptr) {
        complain("setString with a null text");
        return -1;
    }
    {
        const std::lock_guard lock(mutex);
        if (traits.type == DataType::Text) {
            text = value;
        } else if (traits.type == DataType::Char && count > 1) {
            std::fill(content.begin(), content.end(), static_cast<unsigned char>(0));
            std::memcpy(content.data(), value, strnlen(value, content.size() - 1));
        } else if (content.empty() || !putText(traits.type, content.data(), value)) {
            return -1;
        }
    }
    callBack(false);
    return 0;
}

void Param::writeText(const std::string& value)
{
    if (readOnly())
        throw Error("parameter " + traits.name + " is read-only");
    if (traits.type == DataType::Text || (traits.type == DataType::Char && traits.count > 1)) {
        setString(value.c_str());
        return;
    }
    const std::size_t itemSize = sizeOf(traits.type);
    const auto items = words(value);
    if (items.size() != size())
        throw Error("parameter " + traits.name + " takes " + std::to_string(size()) + " value(s), not " +
                    std::to_string(items.size()));
    std::vector<unsigned char> bytes(items.size() * itemSize);
    for (std::size_t i = 0; i < items.size(); ++i)
        if (!putText(traits.type, bytes.data() + i * itemSize, items[i]))
            throw Error("\"" + std::string(items[i]) + "\" is no value of type " + std::string(nameOf(traits.type)) +
                        " for parameter " + traits.name);
    setData(bytes.data(), bytes.size());
}

std::vector<unsigned char> Param::data()
{
    callBack(true);
    const std::lock_guard lock(mutex);
    if (traits.type == DataType::Text)
        return {text.begin(), text.end()};
    return content;
}

void Param::callBack(bool isRead)
{
    if (traits.callback == nullptr || !callbackEnabled || released || isActive(manager))
        return;
    const ActiveManager active(manager);
    traits.callback(this, isRead, traits.user);
}

bool Param::usable(const char* operation) const
{
    if (released)
        complain(std::string(operation) + " after its manager was released");
    return !released;
}

void Param::complain(const std::string& what) const
{
    if (const auto books = ledger.lock())
        books->complain("parameter " + traits.name + ": " + what);
}

} // namespace refhost
