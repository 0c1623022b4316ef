// The resampler's loops in AVX2: eight 32-bit lanes, a multiply per lane.
// Only these functions carry the AVX2 target; the file's other code, and
// whatever the compiler instantiates for it, stays plain x86, and nothing
// here runs unless the processor and the system enable AVX2.
#include "imaging/resample_kernels.h"

#include <immintrin.h>

#include <cstring>

#define VX_AVX2 __attribute__((target("avx2")))

namespace vx::resampling {

namespace {

// a + round(p / 2^23): halves to the even sum or, where no half can occur,
// up.
template <bool Ties>
VX_AVX2 inline __m256i blended(__m256i a, __m256i b, __m256i fraction) {
    const __m256i product = _mm256_mullo_epi32(_mm256_sub_epi32(b, a), fraction);
    const __m256i half = _mm256_set1_epi32(1 << (fraction_bits - 1));
    if (!Ties) return _mm256_add_epi32(a, _mm256_srai_epi32(_mm256_add_epi32(product, half), fraction_bits));
    const __m256i odd = _mm256_and_si256(_mm256_add_epi32(_mm256_srai_epi32(product, fraction_bits), a),
                                         _mm256_set1_epi32(1));
    const __m256i biased = _mm256_add_epi32(_mm256_add_epi32(product, _mm256_sub_epi32(half, _mm256_set1_epi32(1))), odd);
    return _mm256_add_epi32(a, _mm256_srai_epi32(biased, fraction_bits));
}

VX_AVX2 inline __m256i widened(const std::uint8_t* bytes) {
    return _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes)));
}

// Eight lanes of 0..255 to the 8 bytes at the bottom, in lane order.
VX_AVX2 inline __m128i narrowed(__m256i lanes) {
    const __m256i words = _mm256_packs_epi32(lanes, lanes);
    const __m256i bytes = _mm256_packus_epi16(words, words);
    return _mm_unpacklo_epi32(_mm256_castsi256_si128(bytes), _mm256_extracti128_si256(bytes, 1));
}

VX_AVX2 inline __m256i blended_16(__m256i a, __m256i b, __m256i high, __m256i low) {
    const __m256i d = _mm256_sub_epi16(b, a);
    const __m256i product = _mm256_add_epi16(_mm256_mullo_epi16(d, high), _mm256_mulhi_epi16(d, low));
    return _mm256_add_epi16(a, _mm256_srai_epi16(_mm256_add_epi16(product, _mm256_set1_epi16(64)), 7));
}

VX_AVX2 inline __m256i widened_16(const std::uint8_t* bytes) {
    return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes)));
}

// Lines whose fraction admits no ties, in 16-bit lanes.
VX_AVX2 long blend_lines_without_ties(const std::uint8_t* a, const std::uint8_t* b, std::uint8_t* out, long count,
                                      std::int32_t fraction) {
    const sixteen_bit_fraction f = split_fraction(fraction);
    const __m256i high = _mm256_set1_epi16(f.high), low = _mm256_set1_epi16(f.low);
    long i = 0;
    for (; i + 32 <= count; i += 32) {
        const __m256i v0 = blended_16(widened_16(a + i), widened_16(b + i), high, low);
        const __m256i v1 = blended_16(widened_16(a + i + 16), widened_16(b + i + 16), high, low);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i),
                            _mm256_permute4x64_epi64(_mm256_packus_epi16(v0, v1), 0xD8));
    }
    return i;
}

VX_AVX2 long blend_lines_with_ties(const std::uint8_t* a, const std::uint8_t* b, std::uint8_t* out, long count,
                                   std::int32_t fraction) {
    const __m256i f = _mm256_set1_epi32(fraction);
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    long i = 0;
    for (; i + 32 <= count; i += 32) {
        const __m256i v0 = blended<true>(widened(a + i), widened(b + i), f);
        const __m256i v1 = blended<true>(widened(a + i + 8), widened(b + i + 8), f);
        const __m256i v2 = blended<true>(widened(a + i + 16), widened(b + i + 16), f);
        const __m256i v3 = blended<true>(widened(a + i + 24), widened(b + i + 24), f);
        const __m256i bytes = _mm256_packus_epi16(_mm256_packs_epi32(v0, v1), _mm256_packs_epi32(v2, v3));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i), _mm256_permutevar8x32_epi32(bytes, order));
    }
    return i;
}

VX_AVX2 void avx2_blend_lines(const std::uint8_t* a, const std::uint8_t* b, std::uint8_t* out, long count,
                              std::int32_t fraction) {
    long i = ties_possible(fraction) ? blend_lines_with_ties(a, b, out, count, fraction)
                                     : blend_lines_without_ties(a, b, out, count, fraction);
    for (; i < count; ++i) out[i] = blend_whole(a[i], b[i], fraction);
}

VX_AVX2 void avx2_blend_pairs(const std::uint8_t* a, const std::uint8_t* b, const std::int32_t* source_offsets,
                              long count, long line_bytes, std::uint8_t* out, std::int32_t fraction) {
    const __m256i f = _mm256_set1_epi32(fraction);
    const bool ties = ties_possible(fraction);
    for (long k = 0; k < count; ++k, out += 6) {
        const long at = source_offsets[k];
        if (at + 8 <= line_bytes) {
            // 8 bytes read and written, the last 2 of them spare.
            const __m256i a_lanes = widened(a + at), b_lanes = widened(b + at);
            const __m256i v = ties ? blended<true>(a_lanes, b_lanes, f) : blended<false>(a_lanes, b_lanes, f);
            _mm_storel_epi64(reinterpret_cast<__m128i*>(out), narrowed(v));
        } else {
            for (int i = 0; i < 6; ++i) out[i] = blend_whole(a[at + i], b[at + i], fraction);
        }
    }
}

// What blend_columns works out once per strip, for each block of 8
// columns: the fractions of its lanes and, where each half block's 4
// pixels lie within 16 bytes of the blended line, the byte orders that
// fetch all their channels from one load.
struct block_plan {
    std::int32_t fractions[4][8];
    std::uint8_t order[3][32];
};

struct column_plan {
    std::uint8_t windowed[most_columns_per_call / 8];
    block_plan blocks[most_columns_per_call / 8];
};
static_assert(sizeof(column_plan) <= column_plan_bytes, "the strip keeps room for the plan");

void avx2_plan_columns(const std::int32_t* offsets, const std::int32_t* fractions, long count, void* memory) {
    column_plan& plan = *static_cast<column_plan*>(memory);
    for (long b = 0; 8 * b + 8 <= count; ++b) {
        const std::int32_t* at = offsets + 8 * b;
        const std::int32_t* fraction = fractions + 8 * b;
        block_plan& block = plan.blocks[b];
        // Offsets only grow; a half's last pair ends 6 bytes after its offset.
        const bool windowed = at[3] - at[0] + 6 <= 16 && at[7] - at[4] + 6 <= 16;
        plan.windowed[b] = windowed ? 1 : 0;
        if (windowed) {
            // Register j, half h, lane l: output byte 12h + 4j + l of the block.
            for (int j = 0; j < 3; ++j)
                for (int h = 0; h < 2; ++h)
                    for (int l = 0; l < 4; ++l) {
                        const int byte = 12 * h + 4 * j + l, pixel = byte / 3;
                        block.fractions[j][4 * h + l] = fraction[pixel];
                        std::uint8_t* order = &block.order[j][16 * h + 4 * l];
                        order[0] = static_cast<std::uint8_t>(at[pixel] - at[4 * h] + byte % 3);
                        order[1] = order[2] = order[3] = 0x80;
                    }
        } else {
            // Register j: pixel j in the low half, pixel j + 4 in the high.
            for (int j = 0; j < 4; ++j)
                for (int l = 0; l < 4; ++l) {
                    block.fractions[j][l] = fraction[j];
                    block.fractions[j][4 + l] = fraction[j + 4];
                }
        }
    }
}

VX_AVX2 inline __m256i loaded(const void* memory) {
    return _mm256_loadu_si256(static_cast<const __m256i*>(memory));
}

VX_AVX2 inline __m256i two_windows(const std::uint8_t* low, const std::uint8_t* high) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(low))),
                                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(high)), 1);
}

// Writes the 24 bytes of 8 pixels from two registers of 16 bytes per half,
// 12 of them wanted in each.
VX_AVX2 inline void store_24(__m256i halves, std::uint8_t* out) {
    const __m256i joined = _mm256_permutevar8x32_epi32(halves, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(joined));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 16), _mm256_extracti128_si256(joined, 1));
}

template <bool Ties>
VX_AVX2 inline __m256i blended_window(__m256i window, const block_plan& block, int j) {
    const __m256i order = loaded(block.order[j]);
    const __m256i far_order = _mm256_add_epi32(order, _mm256_set1_epi32(3));
    return blended<Ties>(_mm256_shuffle_epi8(window, order), _mm256_shuffle_epi8(window, far_order),
                         loaded(block.fractions[j]));
}

// Each half of the block from one 16-byte window: lanes are output bytes.
template <bool Ties>
VX_AVX2 inline void blend_8_windowed(const std::uint8_t* low, const std::uint8_t* high, const block_plan& block,
                                     std::uint8_t* out) {
    const __m256i window = two_windows(low, high);
    const __m256i v0 = blended_window<Ties>(window, block, 0);
    const __m256i v1 = blended_window<Ties>(window, block, 1);
    const __m256i v2 = blended_window<Ties>(window, block, 2);
    // Per half: output bytes 0..3, 4..7, 8..11 of the half, then spare.
    store_24(_mm256_packus_epi16(_mm256_packs_epi32(v0, v1), _mm256_packs_epi32(v2, v2)), out);
}

// One pixel per half: its near channels in three lanes, its far channels
// in three lanes of another register.
template <bool Ties>
VX_AVX2 inline __m256i blended_pixels(const std::uint8_t* low, const std::uint8_t* high, __m256i fractions) {
    const __m256i near_order = _mm256_setr_epi8(0, -1, -1, -1, 1, -1, -1, -1, 2, -1, -1, -1, -1, -1, -1, -1,
                                                0, -1, -1, -1, 1, -1, -1, -1, 2, -1, -1, -1, -1, -1, -1, -1);
    const __m256i far_order = _mm256_setr_epi8(3, -1, -1, -1, 4, -1, -1, -1, 5, -1, -1, -1, -1, -1, -1, -1,
                                               3, -1, -1, -1, 4, -1, -1, -1, 5, -1, -1, -1, -1, -1, -1, -1);
    const __m256i window = two_windows(low, high);
    return blended<Ties>(_mm256_shuffle_epi8(window, near_order), _mm256_shuffle_epi8(window, far_order), fractions);
}

template <bool Ties>
VX_AVX2 inline void blend_8_pixels(const std::uint8_t* blended, const std::int32_t* offsets, const block_plan& block,
                                   std::uint8_t* out) {
    // Pixels j and j + 4 share a register, so that the packs below put
    // pixels 0..3 in the low half and 4..7 in the high half.
    const __m256i v0 = blended_pixels<Ties>(blended + offsets[0], blended + offsets[4], loaded(block.fractions[0]));
    const __m256i v1 = blended_pixels<Ties>(blended + offsets[1], blended + offsets[5], loaded(block.fractions[1]));
    const __m256i v2 = blended_pixels<Ties>(blended + offsets[2], blended + offsets[6], loaded(block.fractions[2]));
    const __m256i v3 = blended_pixels<Ties>(blended + offsets[3], blended + offsets[7], loaded(block.fractions[3]));
    const __m256i bytes = _mm256_packus_epi16(_mm256_packs_epi32(v0, v1), _mm256_packs_epi32(v2, v3));
    // Each half: four pixels of 4 bytes to 12 bytes.
    const __m256i squeeze = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1,
                                             0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
    store_24(_mm256_shuffle_epi8(bytes, squeeze), out);
}

VX_AVX2 void avx2_blend_columns(const std::uint8_t* blended, const std::int32_t* offsets,
                                const std::int32_t* fractions, const std::uint8_t* ties, const void* memory,
                                long count, std::uint8_t* out) {
    const column_plan& plan = *static_cast<const column_plan*>(memory);
    long k = 0;
    for (; k + 8 <= count; k += 8) {
        const block_plan& block = plan.blocks[k / 8];
        std::uint64_t any_ties;
        std::memcpy(&any_ties, ties + k, sizeof any_ties);
        if (plan.windowed[k / 8]) {
            if (any_ties)
                blend_8_windowed<true>(blended + offsets[k], blended + offsets[k + 4], block, out + 3 * k);
            else
                blend_8_windowed<false>(blended + offsets[k], blended + offsets[k + 4], block, out + 3 * k);
        } else if (any_ties) {
            blend_8_pixels<true>(blended, offsets + k, block, out + 3 * k);
        } else {
            blend_8_pixels<false>(blended, offsets + k, block, out + 3 * k);
        }
    }
    for (; k < count; ++k) {
        const std::uint8_t* pixel = blended + offsets[k];
        for (int c = 0; c < 3; ++c) out[3 * k + c] = blend_whole(pixel[c], pixel[3 + c], fractions[k]);
    }
}

}  // namespace

const kernels& avx2_kernels() {
    static const kernels loops{avx2_blend_lines, avx2_blend_pairs, avx2_plan_columns, avx2_blend_columns};
    return loops;
}

}  // namespace vx::resampling
