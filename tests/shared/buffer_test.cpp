// The reused array.
#include "shared/buffer.h"

#include <gtest/gtest.h>

#include <limits>
#include <new>

namespace {

TEST(Buffer, KeepsItsMemoryWithinItsCapacity)
{
    Buffer<unsigned short> buffer;
    const unsigned char source[] = {1, 2, 3, 255};
    buffer.assignData(source, 4);
    const unsigned short* memory = buffer.data();
    buffer.reinit(2);
    buffer.setVal(9);
    buffer.reinit(4);
    EXPECT_TRUE(buffer.data() == memory);
    EXPECT_EQ(buffer[1], 9);
    EXPECT_EQ(*buffer.get(2), 3);
}

TEST(Buffer, AFailureLeavesAnEmptyOne)
{
    Buffer<unsigned int> words(4);
    EXPECT_THROW(words.reinit(std::numeric_limits<unsigned long>::max()), std::bad_array_new_length);
    EXPECT_EQ(words.size(), 0U);
    EXPECT_EQ(words.data(), nullptr);
}

} // namespace
