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

// The resampler's code paths, slowest first; all of them write the same
// bytes. The scalar one runs on any x86 processor.
enum class resample_path { scalar, sse2, avx2 };

// Whether the processor, and the system for the AVX registers, runs the path.
bool resample_path_runs_here(resample_path path);

// The path that resample_bilinear takes: the fastest that runs here, unless
// a test or a benchmark chose another. Choosing one that does not run here
// changes nothing and returns false.
resample_path chosen_resample_path();
bool choose_resample_path(resample_path path);

// resample_bilinear on the given path (the scalar one if that does not run
// here). With may_split, a large destination is shared out to the system's
// thread pool.
void resample_bilinear(const pixel_view& source, const pixel_view& destination, const wchar_t* error_source,
                       resample_path path, bool may_split);

}  // namespace vx
