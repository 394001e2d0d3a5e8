// The Medipix3 counter code: pixels count with linear feedback shift registers, so a raw value is a pseudo-random
// state.
#pragma once

constexpr int MPX3_6BIT_STATES = 64;    ///< entries of a 6-bit table
constexpr int MPX3_12BIT_STATES = 4096; ///< entries of a 12-bit table

/// What a pixel becomes whose value is no state of its counter.
constexpr unsigned int MPX3_FAILED_PIXEL = 0xFFFFFFFF;

/// Fills both tables, MPX3_6BIT_STATES entries each: `count2Pseudo` the register's state after a number of counts, and
/// `pseudo2Count` its inverse.
void generate6BitMpx3RxTable(unsigned short* count2Pseudo, unsigned short* pseudo2Count);

/// The same for the 12-bit register, MPX3_12BIT_STATES entries each.
void generate12BitMpx3RxTable(unsigned short* count2Pseudo, unsigned short* pseudo2Count);

/// Converts one counter of `size` pixels in place, from states to counts with `pseudoToCount`, else from counts to
/// states. Safe to call from several threads on different matrices.
///
/// - `depth` 24, whatever `lowCounter` says: the whole word is a count of two 12-bit halves in bits 0 to 23.
/// - `lowCounter` true: bits 0 to 11, for `depth` 6 and 12; other depths return 0 and change nothing.
/// - `lowCounter` false: bits 16 up, through the 6-bit table for `depth` 6 and the 12-bit one otherwise. Depth 1 goes
///   through the 12-bit table too without generating it: 0 and 1 stay as they are once any call with depth 12 or 24 has
///   been made in this process, and become 0 before.
///
/// Returns the number of pixels that failed: their counter was 1 << `depth` or more, and they are MPX3_FAILED_PIXEL
/// now.
int convertCountsMpx3(unsigned int* matrix, unsigned long size, unsigned char depth, bool lowCounter,
                      bool pseudoToCount);

/// The counts of all states of a counter of `depth` 6 or 12, for who converts while decoding: 1 << `depth` entries.
const unsigned short* mpx3CountTable(unsigned char depth);
