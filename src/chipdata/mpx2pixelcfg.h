// The pixel configuration of Medipix2 and Timepix chips: it travels as a matrix, one word for each of the host's bytes.
#pragma once

/// Turns `size` bytes of the host's pixel configuration into as many words at `matrix`, for Timepix chips with
/// `timepix`, else for Medipix2 chips. Not to be converted to counter states before it is sent.
void pixelCfgToMatrixMpx2(const unsigned char* cfg, unsigned long size, bool timepix, unsigned short* matrix);
