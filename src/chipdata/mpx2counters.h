// The Medipix2 counter code: a pixel counts with a 14-bit linear feedback shift register, so a raw value is a
// pseudo-random state. Timepix counts the same way.
#pragma once

constexpr int MPX2_COUNTS = 11811; ///< counts that the register tells apart, 0 to MPX2_COUNTS - 1

/// What a value becomes that is no state, or no count, of the counter.
constexpr unsigned short MPX2_UNKNOWN_COUNT = MPX2_COUNTS;

/// Converts `size` values in place, from states to counts with `pseudoToCount`, else from counts to states.
///
/// A value above 16383 becomes MPX2_UNKNOWN_COUNT and is an error. A value that the counter doesn't know becomes
/// MPX2_UNKNOWN_COUNT too, without being an error. 16383 always becomes 0: as a state that is right, and a count of
/// 16383, which the counter doesn't reach, passes as 0 for that reason. Returns the number of errors. Safe to call from
/// several threads on different matrices.
int convertCountsMpx2(unsigned short* matrix, unsigned long size, bool pseudoToCount);

/// The counts of all 16384 states as convertCountsMpx2 gives them, for who converts while decoding.
const unsigned short* mpx2CountTable();
