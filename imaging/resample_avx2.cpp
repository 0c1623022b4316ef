// The resampler's loops in AVX2. Blends go in sixteen 16-bit lanes (see
// split_fraction), or in eight 32-bit lanes where a pixel's channels are
// fetched one pixel at a time. Only these functions carry the AVX2 target;
// the file's other code, and whatever the compiler instantiates for it,
// stays plain x86, and nothing here runs unless the processor and the
// system enable AVX2.
#include "imaging/resample_kernels.h"

#include <immintrin.h>

#include <cstring>

#define VX_AVX2 __attribute__((target("avx2")))

namespace vx::resampling {

namespace {

// a + round(F (b - a) / 2^23) in 32-bit lanes: halves to the even sum or,
// where no half can occur, up.
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

// The same in 16-bit lanes, F split into high and low. With p = F (b - a),
// high_part = floor(p / 2^16); a half is exact when the low 16 bits of p
// are zero and high_part is 64 modulo 128, and then goes down when the sum
// below it is even.
template <bool Ties>
VX_AVX2 inline __m256i blended_words(__m256i a, __m256i b, __m256i high, __m256i low) {
    const __m256i d = _mm256_sub_epi16(b, a);
    const __m256i high_part = _mm256_add_epi16(_mm256_mullo_epi16(d, high), _mm256_mulhi_epi16(d, low));
    __m256i biased = _mm256_add_epi16(high_part, _mm256_set1_epi16(64));
    if (Ties) {
        const __m256i zero = _mm256_setzero_si256();
        const __m256i low_part_zero = _mm256_cmpeq_epi16(_mm256_mullo_epi16(d, low), zero);
        const __m256i sum_even = _mm256_cmpeq_epi16(
            _mm256_and_si256(_mm256_add_epi16(_mm256_srai_epi16(high_part, 7), a), _mm256_set1_epi16(1)), zero);
        biased = _mm256_add_epi16(biased, _mm256_and_si256(low_part_zero, sum_even));  // minus one there
    }
    return _mm256_add_epi16(a, _mm256_srai_epi16(biased, 7));
}

VX_AVX2 inline __m256i loaded(const void* memory) {
    return _mm256_loadu_si256(static_cast<const __m256i*>(memory));
}

VX_AVX2 inline __m256i words_of(const std::uint8_t* bytes) {
    return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes)));
}

template <bool Ties>
VX_AVX2 long blend_lines_in_words(const std::uint8_t* a, const std::uint8_t* b, std::uint8_t* out, long count,
                            std::int32_t fraction) {
    const sixteen_bit_fraction f = split_fraction(fraction);
    const __m256i high = _mm256_set1_epi16(f.high), low = _mm256_set1_epi16(f.low);
    long i = 0;
    for (; i + 32 <= count; i += 32) {
        const __m256i v0 = blended_words<Ties>(words_of(a + i), words_of(b + i), high, low);
        const __m256i v1 = blended_words<Ties>(words_of(a + i + 16), words_of(b + i + 16), high, low);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i),
                            _mm256_permute4x64_epi64(_mm256_packus_epi16(v0, v1), 0xD8));
    }
    return i;
}

VX_AVX2 void avx2_blend_lines(const std::uint8_t* a, const std::uint8_t* b, std::uint8_t* out, long count,
                              std::int32_t fraction) {
    long i = ties_possible(fraction) ? blend_lines_in_words<true>(a, b, out, count, fraction)
                                     : blend_lines_in_words<false>(a, b, out, count, fraction);
    for (; i < count; ++i) out[i] = blend_whole(a[i], b[i], fraction);
}

VX_AVX2 inline __m256i widened(const std::uint8_t* bytes) {
    return _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes)));
}

// Eight 32-bit lanes of 0..255 to the 8 bytes at the bottom, in lane order.
VX_AVX2 inline __m128i narrowed(__m256i lanes) {
    const __m256i words = _mm256_packs_epi32(lanes, lanes);
    const __m256i bytes = _mm256_packus_epi16(words, words);
    return _mm_unpacklo_epi32(_mm256_castsi256_si128(bytes), _mm256_extracti128_si256(bytes, 1));
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
// columns (24 output bytes, 12 in each half of a register):
// - quads: each half's 4 pixels lie within 16 bytes of the blended line,
//   so one load per half fetches all their channels;
// - pairs: each 2 pixels lie within 16 bytes, two loads per half;
// - single: one load per pixel.
// The first two blend in 16-bit lanes, one output byte each: register 0
// holds bytes 0..7 of each half, register 1 bytes 8..11.
enum block_kind : std::uint8_t { single, pairs, quads };

struct word_lanes {
    // quads: the byte orders of registers 0 and 1 in the window; pairs:
    // register 0's from the first window and from the second, then
    // register 1's from the second.
    std::uint8_t order[3][32];
    std::int16_t high[2][16], low[2][16];
};

struct block_plan {
    union {
        word_lanes words;
        // single: register j holds pixel j in the low half, j + 4 in the high.
        std::int32_t fractions[4][8];
    };
};

// The blocks go in groups of one kind, with ties possible or not, so that
// each group's loop takes one branch throughout.
constexpr int block_groups = 6;

struct column_plan {
    std::uint8_t group_end[block_groups];  // in block_order
    std::uint8_t block_order[most_columns_per_call / 8];
    block_plan blocks[most_columns_per_call / 8];
};
static_assert(sizeof(column_plan) <= column_plan_bytes, "the strip keeps room for the plan");
static_assert(most_columns_per_call / 8 <= 255, "block numbers fit a byte");

// Whether pixels first..last (offsets only grow) lie within 16 bytes.
bool within_a_window(const std::int32_t* at, int first, int last) { return at[last] - at[first] + 6 <= 16; }

void plan_word_lanes(const std::int32_t* at, const std::int32_t* fraction, bool two_windows, word_lanes& words) {
    std::memset(words.order, 0x80, sizeof words.order);
    std::memset(words.high, 0, sizeof words.high);
    std::memset(words.low, 0, sizeof words.low);
    for (int reg = 0; reg < 2; ++reg)
        for (int h = 0; h < 2; ++h)
            for (int lane = 0; lane < (reg == 0 ? 8 : 4); ++lane) {
                const int byte = 12 * h + 8 * reg + lane, pixel = byte / 3;
                const sixteen_bit_fraction f = split_fraction(fraction[pixel]);
                words.high[reg][8 * h + lane] = f.high;
                words.low[reg][8 * h + lane] = f.low;
                // The second window of a half starts at its third pixel.
                const bool second = two_windows && pixel >= 4 * h + 2;
                const int window = second ? 4 * h + 2 : 4 * h;
                const int order = two_windows ? (reg == 0 ? (second ? 1 : 0) : 2) : reg;
                words.order[order][16 * h + 2 * lane] = static_cast<std::uint8_t>(at[pixel] - at[window] + byte % 3);
            }
}

void avx2_plan_columns(const std::int32_t* offsets, const std::int32_t* fractions, long count, void* memory) {
    column_plan& plan = *static_cast<column_plan*>(memory);
    const long blocks = count / 8;
    std::uint8_t group_of[most_columns_per_call / 8];
    int group_size[block_groups] = {};
    for (long b = 0; b < blocks; ++b) {
        const std::int32_t* at = offsets + 8 * b;
        const std::int32_t* fraction = fractions + 8 * b;
        block_plan& block = plan.blocks[b];
        block_kind kind = single;
        if (within_a_window(at, 0, 3) && within_a_window(at, 4, 7)) {
            kind = quads;
            plan_word_lanes(at, fraction, false, block.words);
        } else if (within_a_window(at, 0, 1) && within_a_window(at, 2, 3) && within_a_window(at, 4, 5) &&
                   within_a_window(at, 6, 7)) {
            kind = pairs;
            plan_word_lanes(at, fraction, true, block.words);
        } else {
            for (int j = 0; j < 4; ++j)
                for (int lane = 0; lane < 4; ++lane) {
                    block.fractions[j][lane] = fraction[j];
                    block.fractions[j][4 + lane] = fraction[j + 4];
                }
        }
        bool ties = false;
        for (int i = 0; i < 8; ++i) ties = ties || ties_possible(fraction[i]);
        group_of[b] = static_cast<std::uint8_t>(2 * kind + (ties ? 1 : 0));
        ++group_size[group_of[b]];
    }
    int end = 0;
    for (int g = 0; g < block_groups; ++g) plan.group_end[g] = static_cast<std::uint8_t>(end += group_size[g]);
    int next[block_groups];
    for (int g = 0; g < block_groups; ++g) next[g] = plan.group_end[g] - group_size[g];
    for (long b = 0; b < blocks; ++b) plan.block_order[next[group_of[b]]++] = static_cast<std::uint8_t>(b);
}

VX_AVX2 inline __m256i two_windows(const std::uint8_t* low, const std::uint8_t* high) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(low))),
                                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(high)), 1);
}

VX_AVX2 inline __m256i far_order(__m256i order) { return _mm256_add_epi16(order, _mm256_set1_epi16(3)); }

// Writes 24 bytes from the first 12 of each half.
VX_AVX2 inline void store_24(__m256i halves, std::uint8_t* out) {
    const __m256i joined = _mm256_permutevar8x32_epi32(halves, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(joined));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 16), _mm256_extracti128_si256(joined, 1));
}

template <bool Ties>
VX_AVX2 inline void blend_8_quads(const std::uint8_t* blended, const std::int32_t* at, const word_lanes& words,
                                  std::uint8_t* out) {
    const __m256i window = two_windows(blended + at[0], blended + at[4]);
    const __m256i order0 = loaded(words.order[0]), order1 = loaded(words.order[1]);
    const __m256i v0 = blended_words<Ties>(_mm256_shuffle_epi8(window, order0),
                                           _mm256_shuffle_epi8(window, far_order(order0)), loaded(words.high[0]),
                                           loaded(words.low[0]));
    const __m256i v1 = blended_words<Ties>(_mm256_shuffle_epi8(window, order1),
                                           _mm256_shuffle_epi8(window, far_order(order1)), loaded(words.high[1]),
                                           loaded(words.low[1]));
    store_24(_mm256_packus_epi16(v0, v1), out);
}

template <bool Ties>
VX_AVX2 inline void blend_8_pairs(const std::uint8_t* blended, const std::int32_t* at, const word_lanes& words,
                                  std::uint8_t* out) {
    const __m256i first = two_windows(blended + at[0], blended + at[4]);
    const __m256i second = two_windows(blended + at[2], blended + at[6]);
    const __m256i order0 = loaded(words.order[0]), order1 = loaded(words.order[1]), order2 = loaded(words.order[2]);
    const __m256i near0 = _mm256_or_si256(_mm256_shuffle_epi8(first, order0), _mm256_shuffle_epi8(second, order1));
    const __m256i far0 = _mm256_or_si256(_mm256_shuffle_epi8(first, far_order(order0)),
                                         _mm256_shuffle_epi8(second, far_order(order1)));
    const __m256i v0 = blended_words<Ties>(near0, far0, loaded(words.high[0]), loaded(words.low[0]));
    const __m256i v1 = blended_words<Ties>(_mm256_shuffle_epi8(second, order2),
                                           _mm256_shuffle_epi8(second, far_order(order2)), loaded(words.high[1]),
                                           loaded(words.low[1]));
    store_24(_mm256_packus_epi16(v0, v1), out);
}

// One pixel per half: its near channels in three 32-bit lanes, its far
// channels in three lanes of another register.
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
VX_AVX2 inline void blend_8_singles(const std::uint8_t* blended, const std::int32_t* at, const block_plan& block,
                                    std::uint8_t* out) {
    // Pixels j and j + 4 share a register, so that the packs below put
    // pixels 0..3 in the low half and 4..7 in the high half.
    const __m256i v0 = blended_pixels<Ties>(blended + at[0], blended + at[4], loaded(block.fractions[0]));
    const __m256i v1 = blended_pixels<Ties>(blended + at[1], blended + at[5], loaded(block.fractions[1]));
    const __m256i v2 = blended_pixels<Ties>(blended + at[2], blended + at[6], loaded(block.fractions[2]));
    const __m256i v3 = blended_pixels<Ties>(blended + at[3], blended + at[7], loaded(block.fractions[3]));
    const __m256i bytes = _mm256_packus_epi16(_mm256_packs_epi32(v0, v1), _mm256_packs_epi32(v2, v3));
    // Each half: four pixels of 4 bytes to 12 bytes.
    const __m256i squeeze = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1,
                                             0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
    store_24(_mm256_shuffle_epi8(bytes, squeeze), out);
}

template <block_kind Kind, bool Ties>
VX_AVX2 inline void blend_group(const column_plan& plan, int group, const std::uint8_t* blended,
                                const std::int32_t* offsets, std::uint8_t* out) {
    for (int i = group ? plan.group_end[group - 1] : 0; i < plan.group_end[group]; ++i) {
        const long k = 8 * plan.block_order[i];
        const block_plan& block = plan.blocks[plan.block_order[i]];
        if (Kind == quads)
            blend_8_quads<Ties>(blended, offsets + k, block.words, out + 3 * k);
        else if (Kind == pairs)
            blend_8_pairs<Ties>(blended, offsets + k, block.words, out + 3 * k);
        else
            blend_8_singles<Ties>(blended, offsets + k, block, out + 3 * k);
    }
}

VX_AVX2 void avx2_blend_columns(const std::uint8_t* blended, const std::int32_t* offsets,
                                const std::int32_t* fractions, const void* memory, long count,
                                std::uint8_t* out) {
    const column_plan& plan = *static_cast<const column_plan*>(memory);
    blend_group<single, false>(plan, 2 * single, blended, offsets, out);
    blend_group<single, true>(plan, 2 * single + 1, blended, offsets, out);
    blend_group<pairs, false>(plan, 2 * pairs, blended, offsets, out);
    blend_group<pairs, true>(plan, 2 * pairs + 1, blended, offsets, out);
    blend_group<quads, false>(plan, 2 * quads, blended, offsets, out);
    blend_group<quads, true>(plan, 2 * quads + 1, blended, offsets, out);
    for (long k = count / 8 * 8; k < count; ++k) {
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
