// The resampling formula of cDIBSection.Resample written out plainly, one
// channel value at a time, in IEEE single and double arithmetic: the
// reference the resampler's integer paths match on every byte.
#pragma once

namespace vx {

// Pixels of 3 bytes (blue, green, red); scan lines `stride` bytes apart.
struct reference_picture {
    const unsigned char* bits;
    long width, height, stride;
};

// Writes every pixel of the destination; reading outside the source throws
// std::out_of_range. Padding is not written.
void resample_reference(const reference_picture& source, unsigned char* destination, long width, long height,
                        long stride);

}  // namespace vx
