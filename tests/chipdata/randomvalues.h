// What the tests of streams are fed with.
#pragma once

#include <cstddef>
#include <random>
#include <vector>

using Bytes = std::vector<unsigned char>;

/// Values over the whole range of their type, the same ones in each run of a program.
template <class T>
std::vector<T> randomValues(std::size_t size)
{
    static std::mt19937 random(7);
    std::vector<T> values(size);
    for (T& value : values)
        value = static_cast<T>(random());
    return values;
}

inline Bytes firstOf(const Bytes& bytes, std::size_t count)
{
    return {bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count)};
}
