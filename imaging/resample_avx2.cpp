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

template <bool Ties>
VX_AVX2 long blend_lines_32(const std::uint8_t* a, const std::uint8_t* b, std::uint8_t* out, long count,
                            std::int32_t fraction) {
    const __m256i f = _mm256_set1_epi32(fraction);
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    long i = 0;
    for (; i + 32 <= count; i += 32) {
        const __m256i v0 = blended<Ties>(widened(a + i), widened(b + i), f);
        const __m256i v1 = blended<Ties>(widened(a + i + 8), widened(b + i + 8), f);
        const __m256i v2 = blended<Ties>(widened(a + i + 16), widened(b + i + 16), f);
        const __m256i v3 = blended<Ties>(widened(a + i + 24), widened(b + i + 24), f);
        const __m256i bytes = _mm256_packus_epi16(_mm256_packs_epi32(v0, v1), _mm256_packs_epi32(v2, v3));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i), _mm256_permutevar8x32_epi32(bytes, order));
    }
    for (; i + 8 <= count; i += 8)
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + i), narrowed(blended<Ties>(widened(a + i), widened(b + i), f)));
    return i;
}

VX_AVX2 void avx2_blend_lines(const std::uint8_t* a, const std::uint8_t* b, std::uint8_t* out, long count,
                              std::int32_t fraction) {
    long i = ties_possible(fraction) ? blend_lines_32<true>(a, b, out, count, fraction)
                                     : blend_lines_32<false>(a, b, out, count, fraction);
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

// Two pixels per register, one in each 128-bit half: the near pixel's
// channels in three lanes, the far pixel's in another register alike.
template <bool Ties>
VX_AVX2 inline __m256i blended_pixels(const std::uint8_t* first, const std::uint8_t* second, __m256i fractions) {
    const __m256i near_order = _mm256_setr_epi8(0, -1, -1, -1, 1, -1, -1, -1, 2, -1, -1, -1, -1, -1, -1, -1,
                                                0, -1, -1, -1, 1, -1, -1, -1, 2, -1, -1, -1, -1, -1, -1, -1);
    const __m256i far_order = _mm256_setr_epi8(3, -1, -1, -1, 4, -1, -1, -1, 5, -1, -1, -1, -1, -1, -1, -1,
                                               3, -1, -1, -1, 4, -1, -1, -1, 5, -1, -1, -1, -1, -1, -1, -1);
    const __m256i window = _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(first))),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(second)), 1);
    return blended<Ties>(_mm256_shuffle_epi8(window, near_order), _mm256_shuffle_epi8(window, far_order), fractions);
}

template <bool Ties>
VX_AVX2 inline void blend_8_columns(const std::uint8_t* blended, const std::int32_t* offsets,
                                    const std::int32_t* fractions, std::uint8_t* out) {
    const __m256i f = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(fractions));
    // Pixels j and j + 4 share a register, so that the packs below put
    // pixels 0..3 in the low half and 4..7 in the high half.
    const __m256i v0 = blended_pixels<Ties>(blended + offsets[0], blended + offsets[4],
                                            _mm256_permutevar8x32_epi32(f, _mm256_setr_epi32(0, 0, 0, 0, 4, 4, 4, 4)));
    const __m256i v1 = blended_pixels<Ties>(blended + offsets[1], blended + offsets[5],
                                            _mm256_permutevar8x32_epi32(f, _mm256_setr_epi32(1, 1, 1, 1, 5, 5, 5, 5)));
    const __m256i v2 = blended_pixels<Ties>(blended + offsets[2], blended + offsets[6],
                                            _mm256_permutevar8x32_epi32(f, _mm256_setr_epi32(2, 2, 2, 2, 6, 6, 6, 6)));
    const __m256i v3 = blended_pixels<Ties>(blended + offsets[3], blended + offsets[7],
                                            _mm256_permutevar8x32_epi32(f, _mm256_setr_epi32(3, 3, 3, 3, 7, 7, 7, 7)));
    const __m256i bytes = _mm256_packus_epi16(_mm256_packs_epi32(v0, v1), _mm256_packs_epi32(v2, v3));
    // Each half: four pixels of 4 bytes to 12 bytes, then the halves joined.
    const __m256i squeeze = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1,
                                             0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
    const __m256i joined = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(bytes, squeeze),
                                                       _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(joined));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 16), _mm256_extracti128_si256(joined, 1));
}

VX_AVX2 void avx2_blend_columns(const std::uint8_t* blended, const std::int32_t* offsets,
                                const std::int32_t* fractions, const std::uint8_t* ties, long count,
                                std::uint8_t* out) {
    long k = 0;
    for (; k + 8 <= count; k += 8) {
        std::uint64_t any_ties;
        std::memcpy(&any_ties, ties + k, sizeof any_ties);
        if (any_ties)
            blend_8_columns<true>(blended, offsets + k, fractions + k, out + 3 * k);
        else
            blend_8_columns<false>(blended, offsets + k, fractions + k, out + 3 * k);
    }
    for (; k < count; ++k) {
        const std::uint8_t* pixel = blended + offsets[k];
        for (int c = 0; c < 3; ++c) out[3 * k + c] = blend_whole(pixel[c], pixel[3 + c], fractions[k]);
    }
}

}  // namespace

const kernels& avx2_kernels() {
    static const kernels loops{avx2_blend_lines, avx2_blend_pairs, avx2_blend_columns};
    return loops;
}

}  // namespace vx::resampling
