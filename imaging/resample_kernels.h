// The resampler's inner loops, one set per code path. Every loop here works
// with whole weights only: a blend of a and b with fraction F / 2^23 is
//     a + round((F * (b - a)) / 2^23),
// a half going to the even whole number of the sum, which is exact in
// 32-bit integers and equals the formula's double blend.
// The weights themselves, and blends that the integers cannot hold, are
// resample.cpp's.
#pragma once

#include <cstdint>

namespace vx::resampling {

constexpr int fraction_bits = 23;

// A tie, F * d an odd multiple of 2^22 with |d| <= 255, needs F to be a
// multiple of 2^15; for other fractions halves cannot occur and plain
// rounding up at one half is the same as rounding to even.
constexpr std::int32_t tie_free_bits = 0x7FFF;
inline bool ties_possible(std::int32_t fraction) { return fraction != 0 && (fraction & tie_free_bits) == 0; }

// A blend fits 16-bit lanes too: with F = high * 2^16 + low, low taken as
// a signed 16-bit number, floor(F d / 2^16) = high d + the high half of
// low * d, and without ties a + floor((that + 2^6) / 2^7) is the blend.
// Both products fit, and so does the sum: |F d / 2^16| < 2^15. A half is
// exact where the low half of low * d is zero as well.
struct sixteen_bit_fraction {
    std::int16_t high, low;
};
inline sixteen_bit_fraction split_fraction(std::int32_t fraction) {
    const std::int16_t low = static_cast<std::int16_t>(fraction & 0xFFFF);
    return {static_cast<std::int16_t>((fraction - low) >> 16), low};
}

// Room for what a path works out once per strip about its columns.
constexpr long most_columns_per_call = 256;
constexpr long column_plan_bytes = (most_columns_per_call / 8) * 256;

struct kernels {
    // out[i] = blend(near_line[i], far_line[i]) for i < count bytes.
    void (*blend_lines)(const std::uint8_t* near_line, const std::uint8_t* far_line, std::uint8_t* out,
                        long count, std::int32_t fraction);
    // For each column k < count: the 6 bytes of source pixels p and p + 1,
    // p at byte offset source_offsets[k] of both lines, blended into
    // out[6k .. 6k + 5]. A column whose offset + 8 exceeds `line_bytes` is
    // read no further than its 6 bytes.
    void (*blend_pairs)(const std::uint8_t* near_line, const std::uint8_t* far_line, const std::int32_t* source_offsets,
                        long count, long line_bytes, std::uint8_t* out, std::int32_t fraction);
    // Optional: fills `plan` (column_plan_bytes) from the columns that
    // blend_columns will be given, for every scan line of a strip.
    void (*plan_columns)(const std::int32_t* offsets, const std::int32_t* fractions, long count, void* plan);
    // For each column k < count (at most most_columns_per_call): the pixel
    // at blended + offsets[k] and the one after it, blended with
    // fractions[k] into the 3 bytes out[3k ..]. Reads up to 16 bytes from
    // each offset; writes nothing beyond the count's pixels. `plan` is what
    // plan_columns made of the same columns.
    void (*blend_columns)(const std::uint8_t* blended, const std::int32_t* offsets, const std::int32_t* fractions,
                          const void* plan, long count, std::uint8_t* out);
};

const kernels& scalar_kernels();
const kernels& sse2_kernels();
const kernels& avx2_kernels();

// The scalar blend, for the loops' ends. A half goes to the even whole
// number of a + F (b - a) / 2^23, so the parity is that of the sum.
inline std::uint8_t blend_whole(std::int32_t a, std::int32_t b, std::int32_t fraction) {
    const std::int32_t product = fraction * (b - a);
    // Arithmetic shift: floor division, so the rounding holds below zero.
    const std::int32_t odd = ((product >> fraction_bits) + a) & 1;
    return static_cast<std::uint8_t>(a + ((product + ((1 << (fraction_bits - 1)) - 1) + odd) >> fraction_bits));
}

}  // namespace vx::resampling
