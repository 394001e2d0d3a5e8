// Small value classes that cross the boundary between host and plug-in: texts, lists, borrowed arrays.
// None of them locks; each object belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <string>
#include <type_traits>
#include <vector>

namespace dv {

/// A text that one side fills and the other reads.
class IString {
public:
    /// Copies `text` (null empties the text). Returns 0.
    virtual int set(const char* text) = 0;
    /// The held text; valid until the next `set` or the end of the object.
    virtual const char* get() const = 0;

    operator std::string() const { return get(); }
};

class String : public IString {
public:
    int set(const char* text) override
    {
        value = text != nullptr ? text : "";
        return 0;
    }
    const char* get() const override { return value.c_str(); }

private:
    std::string value;
};

/// An ordered list of texts.
class IStrList {
public:
    /// Number of texts.
    virtual int size() const = 0;
    /// Text at `index`; null past the end.
    virtual const char* get(unsigned index) const = 0;
    /// Appends a copy of `text`. Returns 0.
    virtual int add(const char* text) = 0;
    /// Inserts a copy of `text` before `position`, counted from the beginning. Returns 0, or -1 outside the list.
    virtual int insert(int position, const char* text) = 0;
    /// Removes the text at `index`. Returns 0, or -1 at or past the end.
    virtual int erase(unsigned index) = 0;
    /// Removes all texts. Returns 0.
    virtual int clear() = 0;

    /// Copies of all texts, in order.
    std::vector<std::string> vect() const
    {
        std::vector<std::string> texts;
        texts.reserve(static_cast<std::size_t>(size()));
        for (int i = 0; i < size(); ++i)
            texts.emplace_back(get(static_cast<unsigned>(i)));
        return texts;
    }
};

/// An ordered list of plain values, in use for pointers that the list does not own.
template <typename T>
class IPtrList {
public:
    /// Number of values.
    virtual int size() const = 0;
    /// Value at `index`; a zero value past the end.
    virtual T get(unsigned index) const = 0;
    /// Appends `value`. Returns 0.
    virtual int add(T value) = 0;
    /// Inserts `value` before `position`, counted from the beginning. Returns 0, or -1 outside the list.
    virtual int insert(int position, T value) = 0;
    /// Removes the value at `index`. Returns 0, or -1 at or past the end.
    virtual int erase(unsigned index) = 0;
    /// Removes all values. Returns 0.
    virtual int clear() = 0;

    /// All values, in order.
    std::vector<T> vect() const
    {
        std::vector<T> values;
        values.reserve(static_cast<std::size_t>(size()));
        for (int i = 0; i < size(); ++i)
            values.push_back(get(static_cast<unsigned>(i)));
        return values;
    }
};

/// What `StrList` and `PtrList` have in common: a vector of `Item` behind an interface that passes `Value`.
template <typename Interface, typename Item, typename Value>
class VectorList : public Interface {
public:
    virtual ~VectorList() = default;

    int size() const override { return static_cast<int>(items.size()); }
    int add(Value value) override
    {
        items.push_back(toItem(value));
        return 0;
    }
    int insert(int position, Value value) override
    {
        if (position < 0 || static_cast<std::size_t>(position) > items.size())
            return -1;
        items.insert(items.begin() + position, toItem(value));
        return 0;
    }
    int erase(unsigned index) override
    {
        if (index >= items.size())
            return -1;
        items.erase(items.begin() + index);
        return 0;
    }
    int clear() override
    {
        items.clear();
        return 0;
    }

protected:
    std::vector<Item> items;

private:
    static Item toItem(Value value)
    {
        if constexpr (std::is_same_v<Item, std::string>)
            return value != nullptr ? value : "";
        else
            return value;
    }
};

class StrList : public VectorList<IStrList, std::string, const char*> {
public:
    const char* get(unsigned index) const override { return index < items.size() ? items[index].c_str() : nullptr; }
};

template <typename T>
class PtrList : public VectorList<IPtrList<T>, T, T> {
public:
    T get(unsigned index) const override { return index < this->items.size() ? this->items[index] : T{}; }
};

/// An array that somebody else owns, seen as bytes.
class IRefByteBuff {
public:
    /// Number of items.
    virtual unsigned long size() const = 0;
    /// Number of bytes: items times the size of one.
    virtual unsigned long byteSize() const = 0;
    /// First byte of the array.
    virtual unsigned char* dataByte() = 0;
    /// Refers to `bytes` bytes at `data`; a rest that does not fill an item is left out. Returns 0.
    virtual int setByte(const unsigned char* data, unsigned long bytes) = 0;
};

/// An array of `T` that somebody else owns.
template <typename T>
class IRefDataBuff : public IRefByteBuff {
public:
    virtual T* data() = 0;
    virtual const T* data() const = 0;
    /// Refers to `count` items at `items`. Returns 0.
    virtual int set(T* items, unsigned long count) = 0;
};

/// Borrows the memory that it refers to: nothing is copied and nothing is freed.
/// In use with `unsigned int` (Medipix3 frames) and `unsigned short` (Medipix2 frames).
template <typename T>
class RefDataBuff : public IRefDataBuff<T> {
public:
    virtual ~RefDataBuff() = default;

    unsigned long size() const override { return count; }
    unsigned long byteSize() const override { return count * sizeof(T); }
    unsigned char* dataByte() override { return reinterpret_cast<unsigned char*>(items); }
    int setByte(const unsigned char* data, unsigned long bytes) override
    {
        items = reinterpret_cast<T*>(const_cast<unsigned char*>(data));
        count = bytes / sizeof(T);
        return 0;
    }
    T* data() override { return items; }
    const T* data() const override { return items; }
    int set(T* newItems, unsigned long newCount) override
    {
        items = newItems;
        count = newCount;
        return 0;
    }

private:
    unsigned long count = 0;
    T* items = nullptr;
};

} // namespace dv
