// Bilinear resampling of 24-bit pixel memory, the arithmetic of
// cDIBSection.Resample: Single scales and sample positions, blends exact
// before they are rounded, halves to even at both stages.
#pragma once

#include <cstddef>

namespace vx {

// Pixel memory seen as scan lines of 3-byte pixels (blue, green, red),
// each scan line `stride` bytes long, in memory order.
struct pixel_view {
    unsigned char* bits = nullptr;
    long width = 0;   // pixels
    long height = 0;  // scan lines
    long stride = 0;  // bytes per scan line
    std::size_t capacity = 0;  // bytes of memory behind bits

    // Whether every pixel of width x height lies inside the memory.
    bool covers_its_size() const;
};

// Writes every pixel of destination from source; padding is not written.
// A source that the arithmetic would read outside of (narrower or lower
// than 2 pixels, or without memory) raises error 9 from `error_source`
// before anything is written; an empty destination reads nothing.
void resample_bilinear(const pixel_view& source, const pixel_view& destination, const wchar_t* error_source);

}  // namespace vx
