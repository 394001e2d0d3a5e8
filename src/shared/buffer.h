// An owning array of plain values that keeps its memory when it shrinks: buffers for streams are sized once and reused.
#pragma once

#include <concepts>
#include <cstring>
#include <memory>
#include <utility>

/// In use for `unsigned char`, `char`, `unsigned short` and `unsigned int`. New elements are not set to anything, and
/// accessors check nothing. An object belongs to one thread at a time.
template <typename T>
class Buffer {
public:
    /// Allocates `count` elements. With `exactSize` every change of size allocates anew.
    /// Throws `std::bad_alloc` (`std::bad_array_new_length` where no size could hold it), as `reinit` does.
    explicit Buffer(unsigned long count = 0, bool exactSize = false) : exact(exactSize)
    {
        if (count != 0)
            allocate(count);
    }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    /// Changes the size. Within the capacity the content stays; otherwise it is lost.
    void reinit(unsigned long count)
    {
        if (count == size_)
            return;
        if (count > capacity || exact)
            allocate(count);
        else
            size_ = count;
    }

    /// Exchanges the contents with another buffer's.
    void swap(Buffer& other) noexcept
    {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        std::swap(capacity, other.capacity);
    }

    /// First element; null if nothing is allocated.
    T* data() { return data_.get(); }
    const T* data() const { return data_.get(); }
    operator T*() { return data_.get(); }
    operator const T*() const { return data_.get(); }
    /// Elements in use.
    unsigned long size() const { return size_; }
    /// Address of element `index`.
    T* get(unsigned long index) { return data_.get() + index; }
    const T* get(unsigned long index) const { return data_.get() + index; }

    /// Clears all bytes.
    void zero() requires std::same_as<T, unsigned char>
    {
        if (data_ != nullptr)
            std::memset(data_.get(), 0, size_);
    }
    /// Writes `value` to all elements.
    void setVal(T value)
    {
        for (unsigned long i = 0; i < size_; ++i)
            data_[i] = value;
    }
    /// Takes the size `count` and copies as many elements from `source`, which must lie outside this buffer.
    template <typename U>
    void assignData(const U* source, unsigned long count)
    {
        reinit(count);
        for (unsigned long i = 0; i < count; ++i)
            data_[i] = static_cast<T>(source[i]);
    }

private:
    // The old array goes first: two large streams need not fit into memory side by side.
    void allocate(unsigned long count)
    {
        data_.reset();
        size_ = capacity = 0;
        if (count != 0)
            data_ = std::make_unique_for_overwrite<T[]>(count);
        size_ = capacity = count;
    }

    std::unique_ptr<T[]> data_;
    unsigned long size_ = 0;
    unsigned long capacity = 0;
    bool exact;
};
