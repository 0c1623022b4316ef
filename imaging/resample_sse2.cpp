// The resampler's loops in SSE2. SSE2 has no 32-bit multiply, so a blend is
// taken as (2^23 - F) * a + F * b with each weight cut at bit 9, two 16-bit
// multiply-adds whose sums are exact: weights up to 2^23 give high parts up
// to 2^14, which fit. Only these functions carry the SSE2 target.
#include "imaging/resample_kernels.h"

#include <emmintrin.h>

#include <cstring>

#define VX_SSE2 __attribute__((target("sse2")))

namespace vx::resampling {

namespace {

constexpr int low_bits = 9;

// The (near, far) weight pairs of a fraction as 16-bit halves of one lane:
// high parts and low parts.
struct weight_pairs {
    __m128i high, low;
};

VX_SSE2 inline weight_pairs pairs_of(__m128i fraction) {
    const __m128i near_weight = _mm_sub_epi32(_mm_set1_epi32(1 << fraction_bits), fraction);
    const __m128i low_mask = _mm_set1_epi32((1 << low_bits) - 1);
    return {_mm_or_si128(_mm_srli_epi32(near_weight, low_bits), _mm_slli_epi32(_mm_srli_epi32(fraction, low_bits), 16)),
            _mm_or_si128(_mm_and_si128(near_weight, low_mask), _mm_slli_epi32(_mm_and_si128(fraction, low_mask), 16))};
}

// round(((2^23 - F) a + F b) / 2^23) from 16-bit pairs (a, b).
template <bool Ties>
VX_SSE2 inline __m128i blended(__m128i pairs, __m128i high, __m128i low) {
    const __m128i total =
        _mm_add_epi32(_mm_slli_epi32(_mm_madd_epi16(pairs, high), low_bits), _mm_madd_epi16(pairs, low));
    const __m128i half = _mm_set1_epi32(1 << (fraction_bits - 1));
    if (!Ties) return _mm_srli_epi32(_mm_add_epi32(total, half), fraction_bits);
    const __m128i odd = _mm_and_si128(_mm_srli_epi32(total, fraction_bits), _mm_set1_epi32(1));
    return _mm_srli_epi32(_mm_add_epi32(_mm_add_epi32(total, _mm_sub_epi32(half, _mm_set1_epi32(1))), odd),
                          fraction_bits);
}

// 16 bytes of a and of b, blended.
template <bool Ties>
VX_SSE2 inline __m128i blended_16(__m128i a, __m128i b, const weight_pairs& w) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i first = _mm_unpacklo_epi8(a, b), second = _mm_unpackhi_epi8(a, b);
    const __m128i v0 = blended<Ties>(_mm_unpacklo_epi8(first, zero), w.high, w.low);
    const __m128i v1 = blended<Ties>(_mm_unpackhi_epi8(first, zero), w.high, w.low);
    const __m128i v2 = blended<Ties>(_mm_unpacklo_epi8(second, zero), w.high, w.low);
    const __m128i v3 = blended<Ties>(_mm_unpackhi_epi8(second, zero), w.high, w.low);
    return _mm_packus_epi16(_mm_packs_epi32(v0, v1), _mm_packs_epi32(v2, v3));
}

// Lines whose fraction admits no ties, in 16-bit lanes.
VX_SSE2 long blend_lines_without_ties(const std::uint8_t* a, const std::uint8_t* b, std::uint8_t* out, long count,
                                      std::int32_t fraction) {
    const sixteen_bit_fraction f = split_fraction(fraction);
    const __m128i high = _mm_set1_epi16(f.high), low = _mm_set1_epi16(f.low), zero = _mm_setzero_si128();
    const __m128i half = _mm_set1_epi16(64);
    long i = 0;
    for (; i + 16 <= count; i += 16) {
        const __m128i a_bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + i));
        const __m128i b_bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + i));
        __m128i v[2];
        for (int h = 0; h < 2; ++h) {
            const __m128i a_words = h ? _mm_unpackhi_epi8(a_bytes, zero) : _mm_unpacklo_epi8(a_bytes, zero);
            const __m128i b_words = h ? _mm_unpackhi_epi8(b_bytes, zero) : _mm_unpacklo_epi8(b_bytes, zero);
            const __m128i d = _mm_sub_epi16(b_words, a_words);
            const __m128i product = _mm_add_epi16(_mm_mullo_epi16(d, high), _mm_mulhi_epi16(d, low));
            v[h] = _mm_add_epi16(a_words, _mm_srai_epi16(_mm_add_epi16(product, half), 7));
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), _mm_packus_epi16(v[0], v[1]));
    }
    return i;
}

VX_SSE2 long blend_lines_with_ties(const std::uint8_t* a, const std::uint8_t* b, std::uint8_t* out, long count,
                                   std::int32_t fraction) {
    const weight_pairs w = pairs_of(_mm_set1_epi32(fraction));
    long i = 0;
    for (; i + 16 <= count; i += 16) {
        const __m128i a_bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + i));
        const __m128i b_bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + i));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), blended_16<true>(a_bytes, b_bytes, w));
    }
    return i;
}

VX_SSE2 void sse2_blend_lines(const std::uint8_t* a, const std::uint8_t* b, std::uint8_t* out, long count,
                              std::int32_t fraction) {
    long i = ties_possible(fraction) ? blend_lines_with_ties(a, b, out, count, fraction)
                                     : blend_lines_without_ties(a, b, out, count, fraction);
    for (; i < count; ++i) out[i] = blend_whole(a[i], b[i], fraction);
}

VX_SSE2 inline __m128i two_pairs(const std::uint8_t* line, long first, long second) {
    return _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(line + first)),
                              _mm_loadl_epi64(reinterpret_cast<const __m128i*>(line + second)));
}

template <bool Ties>
VX_SSE2 long blend_pairs_2(const std::uint8_t* a, const std::uint8_t* b, const std::int32_t* source_offsets,
                           long count, long line_bytes, std::uint8_t* out, std::int32_t fraction) {
    const weight_pairs w = pairs_of(_mm_set1_epi32(fraction));
    long k = 0;
    // Two columns of 8 bytes each, the last 2 of each spare.
    for (; k + 2 <= count && source_offsets[k + 1] + 8 <= line_bytes && source_offsets[k] + 8 <= line_bytes; k += 2) {
        const __m128i v = blended_16<Ties>(two_pairs(a, source_offsets[k], source_offsets[k + 1]),
                                           two_pairs(b, source_offsets[k], source_offsets[k + 1]), w);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 6 * k), v);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 6 * k + 6), _mm_srli_si128(v, 8));
    }
    return k;
}

VX_SSE2 void sse2_blend_pairs(const std::uint8_t* a, const std::uint8_t* b, const std::int32_t* source_offsets,
                              long count, long line_bytes, std::uint8_t* out, std::int32_t fraction) {
    long k = ties_possible(fraction) ? blend_pairs_2<true>(a, b, source_offsets, count, line_bytes, out, fraction)
                                     : blend_pairs_2<false>(a, b, source_offsets, count, line_bytes, out, fraction);
    for (; k < count; ++k)
        for (int i = 0; i < 6; ++i) out[6 * k + i] = blend_whole(a[source_offsets[k] + i], b[source_offsets[k] + i], fraction);
}

// One pixel: the near pixel's channels paired with the far pixel's.
template <bool Ties, int Lane>
VX_SSE2 inline __m128i blended_pixel(const std::uint8_t* pixels, const weight_pairs& w) {
    const __m128i bytes = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(pixels));
    const __m128i pairs = _mm_unpacklo_epi8(_mm_unpacklo_epi8(bytes, _mm_srli_epi64(bytes, 24)), _mm_setzero_si128());
    constexpr int lane = Lane * 0x55;
    return blended<Ties>(pairs, _mm_shuffle_epi32(w.high, lane), _mm_shuffle_epi32(w.low, lane));
}

template <bool Ties>
VX_SSE2 inline void blend_4_columns(const std::uint8_t* blended, const std::int32_t* offsets,
                                    const std::int32_t* fractions, std::uint8_t* out) {
    const weight_pairs w = pairs_of(_mm_loadu_si128(reinterpret_cast<const __m128i*>(fractions)));
    const __m128i v0 = blended_pixel<Ties, 0>(blended + offsets[0], w);
    const __m128i v1 = blended_pixel<Ties, 1>(blended + offsets[1], w);
    const __m128i v2 = blended_pixel<Ties, 2>(blended + offsets[2], w);
    const __m128i v3 = blended_pixel<Ties, 3>(blended + offsets[3], w);
    // Four pixels of 4 bytes; each 8-byte half squeezed to 6, then 6 + 6.
    const __m128i bytes = _mm_packus_epi16(_mm_packs_epi32(v0, v1), _mm_packs_epi32(v2, v3));
    const __m128i squeezed = _mm_or_si128(_mm_and_si128(bytes, _mm_set1_epi64x(0xFFFFFF)),
                                          _mm_and_si128(_mm_srli_epi64(bytes, 8), _mm_set1_epi64x(0xFFFFFF000000)));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), squeezed);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 6), _mm_srli_si128(squeezed, 8));
}

VX_SSE2 void sse2_blend_columns(const std::uint8_t* blended, const std::int32_t* offsets,
                                const std::int32_t* fractions, const std::uint8_t* ties, const void*, long count,
                                std::uint8_t* out) {
    long k = 0;
    // Each group writes 2 bytes past its 4 pixels, so one more pixel must
    // follow it.
    for (; k + 5 <= count; k += 4) {
        std::uint32_t any_ties;
        std::memcpy(&any_ties, ties + k, sizeof any_ties);
        if (any_ties)
            blend_4_columns<true>(blended, offsets + k, fractions + k, out + 3 * k);
        else
            blend_4_columns<false>(blended, offsets + k, fractions + k, out + 3 * k);
    }
    for (; k < count; ++k) {
        const std::uint8_t* pixel = blended + offsets[k];
        for (int c = 0; c < 3; ++c) out[3 * k + c] = blend_whole(pixel[c], pixel[3 + c], fractions[k]);
    }
}

}  // namespace

const kernels& sse2_kernels() {
    static const kernels loops{sse2_blend_lines, sse2_blend_pairs, nullptr, sse2_blend_columns};
    return loops;
}

}  // namespace vx::resampling
