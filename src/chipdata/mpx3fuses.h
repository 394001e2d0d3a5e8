// The Medipix3 fuses: the request and answer of a fuse read, and the chip identifier they hold.
#pragma once

#include <array>
#include <cstddef>
#include <string>

constexpr std::size_t MPX3_FUSE_RECORD_SIZE = 38;   ///< bytes of request and answer for each chip of a channel
constexpr std::size_t MPX3_FUSE_BLOCK_SIZE = 78;    ///< bytes of the device's block, for up to two chips
constexpr std::size_t MPX3_FUSE_ID_SIZE = 5;        ///< bytes of an answer's identifier
constexpr unsigned char MPX3_FUSE_TWO_CHIPS = 0x50; ///< byte 1 of an answer when two chips share the channel

using Mpx3FuseId = std::array<unsigned char, MPX3_FUSE_ID_SIZE>;

/// The request for up to two chips: 0xA0 at the start of each chip's record, zeros elsewhere. Of it go
/// MPX3_FUSE_RECORD_SIZE bytes out for each chip of the channel.
std::array<unsigned char, MPX3_FUSE_BLOCK_SIZE> mpx3FuseRequest();

/// The identifier bytes of chip 0 or 1 of the channel, put into reading order. `answer` holds at least
/// `chip` + 1 records.
Mpx3FuseId mpx3FuseId(const unsigned char* answer, int chip);

/// True unless the first four bytes are all 0 or all 0xFF, which a channel without a working chip answers.
bool mpx3FuseIdValid(const Mpx3FuseId& id);

/// Text of the chip identifier in three bytes at `id`, such as "C05-W0123": letter and position of the chip on its
/// wafer, and the wafer's number. With one chip on the channel `id` is the first byte of a Mpx3FuseId, with two it is
/// the second. `wafer` and `position` are optional outputs of the two numbers.
std::string getFuseText(const unsigned char* id, int* wafer = nullptr, int* position = nullptr);
