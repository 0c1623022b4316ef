// The resampling formula written out plainly, one channel value at a time:
// the reference the component's fast path must match on every byte.
#pragma once

namespace vx::test {

// Pixels of 3 bytes (blue, green, red); scan lines `stride` bytes apart.
struct reference_picture {
    const unsigned char* bits;
    long width, height, stride;
};

// Writes every pixel of the destination; reading outside the source throws
// std::out_of_range. Padding is not written.
void resample_reference(const reference_picture& source, unsigned char* destination, long width, long height,
                        long stride);

}  // namespace vx::test
