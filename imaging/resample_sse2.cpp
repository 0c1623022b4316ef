// The resampler's loops in SSE2, in eight 16-bit lanes (see split_fraction).
// SSE2 cannot reorder bytes at will, so the columns are fetched a pixel at
// a time and put two to a register. Only these functions carry the SSE2
// target.
#include "imaging/resample_kernels.h"

#include <emmintrin.h>

#include <cstring>

#define VX_SSE2 __attribute__((target("sse2")))

namespace vx::resampling {

namespace {

// a + round(F (b - a) / 2^23), F split into high and low: as the AVX2
// blend (resample_avx2.cpp) with half the lanes.
template <bool Ties>
VX_SSE2 inline __m128i blended_words(__m128i a, __m128i b, __m128i high, __m128i low) {
    const __m128i d = _mm_sub_epi16(b, a);
    const __m128i high_part = _mm_add_epi16(_mm_mullo_epi16(d, high), _mm_mulhi_epi16(d, low));
    __m128i biased = _mm_add_epi16(high_part, _mm_set1_epi16(64));
    if (Ties) {
        const __m128i zero = _mm_setzero_si128();
        const __m128i low_part_zero = _mm_cmpeq_epi16(_mm_mullo_epi16(d, low), zero);
        const __m128i sum_even = _mm_cmpeq_epi16(
            _mm_and_si128(_mm_add_epi16(_mm_srai_epi16(high_part, 7), a), _mm_set1_epi16(1)), zero);
        biased = _mm_add_epi16(biased, _mm_and_si128(low_part_zero, sum_even));  // minus one there
    }
    return _mm_add_epi16(a, _mm_srai_epi16(biased, 7));
}

struct broadcast_fraction {
    __m128i high, low;
};

VX_SSE2 inline broadcast_fraction broadcast(std::int32_t fraction) {
    const sixteen_bit_fraction f = split_fraction(fraction);
    return {_mm_set1_epi16(f.high), _mm_set1_epi16(f.low)};
}

template <bool Ties>
VX_SSE2 long blend_lines_in_words(const std::uint8_t* a, const std::uint8_t* b, std::uint8_t* out, long count,
                                  std::int32_t fraction) {
    const broadcast_fraction f = broadcast(fraction);
    const __m128i zero = _mm_setzero_si128();
    long i = 0;
    for (; i + 16 <= count; i += 16) {
        const __m128i a_bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + i));
        const __m128i b_bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + i));
        const __m128i v0 = blended_words<Ties>(_mm_unpacklo_epi8(a_bytes, zero), _mm_unpacklo_epi8(b_bytes, zero),
                                               f.high, f.low);
        const __m128i v1 = blended_words<Ties>(_mm_unpackhi_epi8(a_bytes, zero), _mm_unpackhi_epi8(b_bytes, zero),
                                               f.high, f.low);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), _mm_packus_epi16(v0, v1));
    }
    return i;
}

VX_SSE2 void sse2_blend_lines(const std::uint8_t* a, const std::uint8_t* b, std::uint8_t* out, long count,
                              std::int32_t fraction) {
    long i = ties_possible(fraction) ? blend_lines_in_words<true>(a, b, out, count, fraction)
                                     : blend_lines_in_words<false>(a, b, out, count, fraction);
    for (; i < count; ++i) out[i] = blend_whole(a[i], b[i], fraction);
}

VX_SSE2 inline __m128i words_at(const std::uint8_t* bytes) {
    return _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes)), _mm_setzero_si128());
}

template <bool Ties>
VX_SSE2 void blend_pairs_in_words(const std::uint8_t* a, const std::uint8_t* b, const std::int32_t* source_offsets,
                                  long count, long line_bytes, std::uint8_t* out, std::int32_t fraction) {
    const broadcast_fraction f = broadcast(fraction);
    for (long k = 0; k < count; ++k, out += 6) {
        const long at = source_offsets[k];
        if (at + 8 <= line_bytes) {
            // 8 bytes read and written, the last 2 of them spare.
            const __m128i v = blended_words<Ties>(words_at(a + at), words_at(b + at), f.high, f.low);
            _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(v, v));
        } else {
            for (int i = 0; i < 6; ++i) out[i] = blend_whole(a[at + i], b[at + i], fraction);
        }
    }
}

VX_SSE2 void sse2_blend_pairs(const std::uint8_t* a, const std::uint8_t* b, const std::int32_t* source_offsets,
                              long count, long line_bytes, std::uint8_t* out, std::int32_t fraction) {
    if (ties_possible(fraction))
        blend_pairs_in_words<true>(a, b, source_offsets, count, line_bytes, out, fraction);
    else
        blend_pairs_in_words<false>(a, b, source_offsets, count, line_bytes, out, fraction);
}

// What blend_columns works out once per strip, for each block of 4
// columns: the fractions of the lanes of its two registers (pixels 0 and 1,
// then 2 and 3, four lanes each), and the blocks in two groups, without
// and with possible ties, so that each group's loop runs without branching.
struct block_plan {
    std::int16_t high[2][8], low[2][8];
};

struct column_plan {
    std::uint8_t tie_free_blocks;  // the first ones in block_order
    std::uint8_t block_order[most_columns_per_call / 4];
    block_plan blocks[most_columns_per_call / 4];
};
static_assert(sizeof(column_plan) <= column_plan_bytes, "the strip keeps room for the plan");
static_assert(most_columns_per_call / 4 <= 255, "block numbers fit a byte");

void sse2_plan_columns(const std::int32_t*, const std::int32_t* fractions, long count, void* memory) {
    column_plan& plan = *static_cast<column_plan*>(memory);
    const long blocks = count / 4;
    long tie_free = 0, with_ties = blocks;
    for (long b = 0; b < blocks; ++b) {
        const std::int32_t* fraction = fractions + 4 * b;
        bool ties = false;
        for (int i = 0; i < 4; ++i) {
            const sixteen_bit_fraction f = split_fraction(fraction[i]);
            for (int lane = 0; lane < 4; ++lane) {
                plan.blocks[b].high[i / 2][4 * (i % 2) + lane] = f.high;
                plan.blocks[b].low[i / 2][4 * (i % 2) + lane] = f.low;
            }
            ties = ties || ties_possible(fraction[i]);
        }
        plan.block_order[ties ? --with_ties : tie_free++] = static_cast<std::uint8_t>(b);
    }
    plan.tie_free_blocks = static_cast<std::uint8_t>(tie_free);
}

// Pixels j and j + 1: near channels in lanes 0..2 and 4..6, far channels
// likewise in another register.
template <bool Ties>
VX_SSE2 inline __m128i blended_two(const std::uint8_t* first, const std::uint8_t* second, const std::int16_t* high,
                                   const std::int16_t* low) {
    const __m128i one = words_at(first), other = words_at(second);
    const __m128i near_words = _mm_unpacklo_epi64(one, other);
    const __m128i far_words = _mm_unpacklo_epi64(_mm_srli_si128(one, 6), _mm_srli_si128(other, 6));
    return blended_words<Ties>(near_words, far_words, _mm_loadu_si128(reinterpret_cast<const __m128i*>(high)),
                               _mm_loadu_si128(reinterpret_cast<const __m128i*>(low)));
}

template <bool Ties>
VX_SSE2 inline void blend_4_columns(const std::uint8_t* blended, const std::int32_t* at, const block_plan& block,
                                    std::uint8_t* out) {
    const __m128i v0 = blended_two<Ties>(blended + at[0], blended + at[1], block.high[0], block.low[0]);
    const __m128i v1 = blended_two<Ties>(blended + at[2], blended + at[3], block.high[1], block.low[1]);
    // Four pixels of 4 bytes; each 8-byte half squeezed to 6, the halves
    // joined, and exactly 12 bytes written: blocks go out of order.
    const __m128i bytes = _mm_packus_epi16(v0, v1);
    const __m128i squeezed = _mm_or_si128(_mm_and_si128(bytes, _mm_set1_epi64x(0xFFFFFF)),
                                          _mm_and_si128(_mm_srli_epi64(bytes, 8), _mm_set1_epi64x(0xFFFFFF000000)));
    const __m128i joined = _mm_or_si128(_mm_and_si128(squeezed, _mm_set_epi64x(0, 0xFFFFFFFFFFFF)),
                                        _mm_slli_si128(_mm_srli_si128(squeezed, 8), 6));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), joined);
    const std::int32_t last = _mm_cvtsi128_si32(_mm_srli_si128(joined, 8));
    std::memcpy(out + 8, &last, sizeof last);
}

VX_SSE2 void sse2_blend_columns(const std::uint8_t* blended, const std::int32_t* offsets,
                                const std::int32_t* fractions, const void* memory, long count,
                                std::uint8_t* out) {
    const column_plan& plan = *static_cast<const column_plan*>(memory);
    const long blocks = count / 4;
    for (long i = 0; i < plan.tie_free_blocks; ++i) {
        const long k = 4 * plan.block_order[i];
        blend_4_columns<false>(blended, offsets + k, plan.blocks[plan.block_order[i]], out + 3 * k);
    }
    for (long i = plan.tie_free_blocks; i < blocks; ++i) {
        const long k = 4 * plan.block_order[i];
        blend_4_columns<true>(blended, offsets + k, plan.blocks[plan.block_order[i]], out + 3 * k);
    }
    for (long k = 4 * blocks; k < count; ++k) {
        const std::uint8_t* pixel = blended + offsets[k];
        for (int c = 0; c < 3; ++c) out[3 * k + c] = blend_whole(pixel[c], pixel[3 + c], fractions[k]);
    }
}

}  // namespace

const kernels& sse2_kernels() {
    static const kernels loops{sse2_blend_lines, sse2_blend_pairs, sse2_plan_columns, sse2_blend_columns};
    return loops;
}

}  // namespace vx::resampling
