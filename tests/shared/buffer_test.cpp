// The reused array.
#include "shared/buffer.h"

#include <gtest/gtest.h>

#include <limits>
#include <new>

namespace {

TEST(Buffer, KeepsContentAndMemoryWithinItsCapacity)
{
    Buffer<unsigned short> buffer;
    EXPECT_EQ(buffer.data(), nullptr);
    const unsigned char source[] = {1, 2, 3, 255};
    buffer.assignData(source, 4);
    const unsigned short* memory = buffer.data();
    buffer.reinit(2);
    buffer.setVal(9);
    buffer.reinit(4);
    EXPECT_EQ(buffer.data(), memory);
    EXPECT_EQ(buffer[1], 9);
    EXPECT_EQ(*buffer.get(2), 3);
    EXPECT_EQ(buffer[3], 255);
    buffer.reinit(1000);
    EXPECT_EQ(buffer.size(), 1000U);
}

TEST(Buffer, ExactBuffersAllocateAnewAndFailuresLeaveAnEmptyOne)
{
    Buffer<unsigned char> bytes(8, true);
    bytes.setVal(1);
    bytes.zero();
    EXPECT_EQ(bytes[7], 0);
    bytes.reinit(0);
    EXPECT_EQ(bytes.data(), nullptr);
    bytes.zero();

    Buffer<unsigned int> words(4);
    EXPECT_THROW(words.reinit(std::numeric_limits<unsigned long>::max()), std::bad_array_new_length);
    EXPECT_EQ(words.size(), 0U);
    EXPECT_EQ(words.data(), nullptr);
    words.reinit(4);
    words.setVal(5);
    EXPECT_EQ(words[3], 5U);
}

} // namespace
