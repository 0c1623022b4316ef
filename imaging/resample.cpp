// The arithmetic is the formula's, done on integers so that no floating-
// point unit or its settings enter: the Single scales and sample positions
// are rounded here bit by bit, as the processor would round them.
//
// A sample position whose fraction f is a multiple of 2^-23 (every position
// from 1 up, and some below) has the weights (2^23 - F) / 2^23 and F / 2^23
// exactly; a blend times 2^23 is then a whole number below 2^31, and the
// vector paths do those (resample_kernels.h). Positions below 1 with a
// finer fraction take the exact blend here, which follows the double
// evaluation of the formula step by step on 64-bit integers.
//
// The destination is done in strips of columns, so that the column weights
// are worked out once per strip and scan line range, on the stack: first
// the two source lines are blended into one line (all the source pixels
// the strip reads, or only the pairs it reads when it skips most of them),
// then the destination pixels are blended from that line.
#include "imaging/resample.h"

#include "frame/automation_error.h"
#include "frame/handles.h"
#include "imaging/resample_kernels.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cpuid.h>
#include <cstdint>
#include <cstring>

namespace vx {

using namespace resampling;

namespace {

// ---- Single-precision rounding on integers --------------------------------

int bit_length(std::uint64_t value) { return value ? 64 - __builtin_clzll(value) : 0; }

// Rounds value * 2^exponent to `bits` significant bits, halves to even.
void round_significant(std::uint64_t& value, int& exponent, int bits) {
    const int drop = bit_length(value) - bits;
    if (drop <= 0) return;
    std::uint64_t kept = value >> drop;
    const std::uint64_t rest = value & ((std::uint64_t{1} << drop) - 1), half = std::uint64_t{1} << (drop - 1);
    if (rest > half || (rest == half && (kept & 1))) ++kept;
    value = kept;
    exponent += drop;
}

// Rounds value * 2^exponent to a whole number, halves to even.
std::uint64_t round_to_whole(std::uint64_t value, int exponent) {
    if (exponent >= 0) return value << exponent;
    const int shift = -exponent;
    if (shift >= 64) return 0;  // below one half
    std::uint64_t whole = value >> shift;
    const std::uint64_t rest = value & ((std::uint64_t{1} << shift) - 1), half = std::uint64_t{1} << (shift - 1);
    if (rest > half || (rest == half && (whole & 1))) ++whole;
    return whole;
}

// A Single as mantissa * 2^exponent.
struct single_value {
    std::uint64_t mantissa = 0;
    int exponent = 0;
};

// (source_size - 1) / destination_size divided in double precision, then
// rounded to single precision: twice rounded, as the formula has it.
single_value scale_of(long source_size, long destination_size) {
    single_value scale;
    const std::uint64_t numerator = static_cast<std::uint64_t>(source_size - 1);
    const std::uint64_t divisor = static_cast<std::uint64_t>(destination_size);
    if (numerator == 0) return scale;
    // Long division to 55 bits, the rest kept as a sticky bit.
    std::uint64_t quotient = numerator / divisor, rest = numerator % divisor;
    int exponent = 0;
    while (quotient < (std::uint64_t{1} << 54)) {
        quotient <<= 1;
        rest <<= 1;
        if (rest >= divisor) {
            rest -= divisor;
            quotient |= 1;
        }
        --exponent;
    }
    quotient = (quotient << 1) | (rest != 0 ? 1 : 0);
    --exponent;
    round_significant(quotient, exponent, 53);
    round_significant(quotient, exponent, 24);
    scale.mantissa = quotient;
    scale.exponent = exponent;
    return scale;
}

// Blend weights near_weight / 2^shift and far_weight / 2^shift: 1 - f and
// f of a sample position's fraction f.
struct blend_weights {
    std::uint64_t near_weight = std::uint64_t{1} << fraction_bits;
    std::uint32_t far_weight = 0;  // F when whole
    std::int32_t shift = fraction_bits;

    bool whole() const { return shift == fraction_bits; }
};

// The weights of sample position i, with index = floor(scale * i).
struct axis_weight : blend_weights {
    long index = 0;
};

axis_weight weight_at(const single_value& scale, long i) {
    axis_weight w;
    // scale * i, rounded once to a Single.
    std::uint64_t position = scale.mantissa * static_cast<std::uint64_t>(i);
    int exponent = scale.exponent;
    round_significant(position, exponent, 24);
    if (position == 0) return w;
    if (exponent >= 0) {
        w.index = static_cast<long>(position << exponent);
        return w;
    }
    // Scales are at least 2^-31, so 2^-55 bounds every fraction's unit.
    const int shift = -exponent;
    const std::uint64_t index = shift >= 64 ? 0 : position >> shift;
    const std::uint64_t fraction = position - (shift >= 64 ? 0 : index << shift);
    w.index = static_cast<long>(index);
    if (shift <= fraction_bits) {
        w.far_weight = static_cast<std::uint32_t>(fraction << (fraction_bits - shift));
    } else if ((fraction & ((std::uint64_t{1} << (shift - fraction_bits)) - 1)) == 0) {
        w.far_weight = static_cast<std::uint32_t>(fraction >> (shift - fraction_bits));
    } else {
        // Below 1, finer than 2^-23: 1 - f is rounded to a Single.
        std::uint64_t near_weight = (std::uint64_t{1} << shift) - fraction;
        int near_exponent = 0;
        round_significant(near_weight, near_exponent, 24);
        w.near_weight = near_weight << near_exponent;
        w.far_weight = static_cast<std::uint32_t>(fraction);
        w.shift = shift;
        return w;
    }
    w.near_weight = (std::uint64_t{1} << fraction_bits) - w.far_weight;
    return w;
}

// round((1 - f) * a + f * b), the sum rounded to a double first as the
// formula evaluates it; the products are exact.
std::uint8_t blend(const blend_weights& w, std::uint32_t a, std::uint32_t b) {
    if (w.whole()) return blend_whole(static_cast<std::int32_t>(a), static_cast<std::int32_t>(b),
                                      static_cast<std::int32_t>(w.far_weight));
    std::uint64_t sum = w.near_weight * a + static_cast<std::uint64_t>(w.far_weight) * b;
    int exponent = -w.shift;
    round_significant(sum, exponent, 53);
    const std::uint64_t value = round_to_whole(sum, exponent);
    return static_cast<std::uint8_t>(value > 255 ? 255 : value);
}

// ---- Scalar loops ----------------------------------------------------------

inline std::uint8_t blend_without_ties(std::int32_t a, std::int32_t b, std::int32_t fraction) {
    return static_cast<std::uint8_t>(a + ((fraction * (b - a) + (1 << (fraction_bits - 1))) >> fraction_bits));
}

void scalar_blend_lines(const std::uint8_t* near_line, const std::uint8_t* far_line, std::uint8_t* out, long count,
                        std::int32_t fraction) {
    if (ties_possible(fraction)) {
        for (long i = 0; i < count; ++i) out[i] = blend_whole(near_line[i], far_line[i], fraction);
    } else {
        for (long i = 0; i < count; ++i) out[i] = blend_without_ties(near_line[i], far_line[i], fraction);
    }
}

void scalar_blend_pairs(const std::uint8_t* near_line, const std::uint8_t* far_line, const std::int32_t* source_offsets,
                        long count, long, std::uint8_t* out, std::int32_t fraction) {
    for (long k = 0; k < count; ++k, out += 6) {
        const std::uint8_t* a = near_line + source_offsets[k];
        const std::uint8_t* b = far_line + source_offsets[k];
        for (int i = 0; i < 6; ++i) out[i] = blend_whole(a[i], b[i], fraction);
    }
}

void scalar_blend_columns(const std::uint8_t* blended, const std::int32_t* offsets, const std::int32_t* fractions,
                          const void*, long count, std::uint8_t* out) {
    for (long k = 0; k < count; ++k, out += 3) {
        const std::uint8_t* pixel = blended + offsets[k];
        const std::int32_t fraction = fractions[k];
        out[0] = blend_whole(pixel[0], pixel[3], fraction);
        out[1] = blend_whole(pixel[1], pixel[4], fraction);
        out[2] = blend_whole(pixel[2], pixel[5], fraction);
    }
}

// ---- Strips -----------------------------------------------------------------

constexpr long strip_columns = most_columns_per_call;
// Blend all source pixels of a strip when the scale is at most this;
// beyond it the strip skips most of them and blends only the pairs it reads.
constexpr long dense_scale_limit = 3;
constexpr long blended_bytes = 3 * (dense_scale_limit * strip_columns + 8);
constexpr long read_slack = 16;  // blend_columns reads 16 bytes from an offset

struct plan {
    pixel_view source, destination;
    single_value x_scale, y_scale;
    const kernels* loops = nullptr;
    bool dense = true;
};

// Destination columns first .. first + count - 1 of every scan line.
struct strip {
    long first = 0, count = 0;
    long exact_count = 0;  // leading columns blended exactly
    bool dense = true;
    long source_first = 0;  // dense: the source pixel at the blended line's start
    long span_bytes = 0;    // dense: bytes of the blended line
    std::int32_t offsets[strip_columns];         // of each column's pixel pair in the blended line
    std::int32_t source_offsets[strip_columns];  // not dense: of the pair in a source line
    std::int32_t fractions[strip_columns];
    blend_weights exact[strip_columns];  // of the leading columns
    std::uint8_t column_plan[column_plan_bytes];
};

long strip_count(const plan& p) { return (p.destination.width + strip_columns - 1) / strip_columns; }

void lay_out_strip(const plan& p, long number, strip& s) {
    s.first = number * strip_columns;
    s.count = std::min(strip_columns, p.destination.width - s.first);
    s.exact_count = 0;
    long index_first = 0, index_last = 0;
    for (long k = 0; k < s.count; ++k) {
        const axis_weight w = weight_at(p.x_scale, s.first + k);
        // Positions below 1 lead the row; they are blended exactly.
        if (w.index == 0) s.exact[s.exact_count++] = w;
        if (k == 0) index_first = w.index;
        index_last = w.index;
        s.fractions[k] = static_cast<std::int32_t>(w.far_weight);
        s.source_offsets[k] = static_cast<std::int32_t>(3 * w.index);
    }
    s.dense = p.dense && 3 * (index_last + 2 - index_first) + read_slack <= blended_bytes;
    s.source_first = index_first;
    s.span_bytes = 3 * (index_last + 2 - index_first);
    for (long k = 0; k < s.count; ++k)
        s.offsets[k] = s.dense ? s.source_offsets[k] - static_cast<std::int32_t>(3 * index_first)
                               : static_cast<std::int32_t>(6 * k);
    const long e = s.exact_count;
    if (p.loops->plan_columns) p.loops->plan_columns(s.offsets + e, s.fractions + e, s.count - e, s.column_plan);
}

// Destination scan lines [first_line, end_line) of one strip.
void resample_strip(const plan& p, const strip& s, long first_line, long end_line) {
    const pixel_view& source = p.source;
    const kernels& loops = *p.loops;
    std::uint8_t line[blended_bytes + read_slack];
    for (long y = first_line; y < end_line; ++y) {
        const axis_weight wy = weight_at(p.y_scale, y);
        const std::uint8_t* near_line = source.bits + static_cast<std::ptrdiff_t>(wy.index) * source.stride;
        const std::uint8_t* far_line = near_line + source.stride;
        const std::uint8_t* blended = line;
        if (s.dense) {
            const std::uint8_t* a = near_line + 3 * s.source_first;
            const std::uint8_t* b = far_line + 3 * s.source_first;
            if (!wy.whole()) {
                for (long i = 0; i < s.span_bytes; ++i) line[i] = blend(wy, a[i], b[i]);
            } else if (wy.far_weight != 0) {
                loops.blend_lines(a, b, line, s.span_bytes, static_cast<std::int32_t>(wy.far_weight));
            } else if (source.width >= 4) {
                // The far line follows, so reading past this one stays inside.
                blended = a;
            } else {
                std::memcpy(line, a, s.span_bytes);
            }
        } else if (wy.whole()) {
            loops.blend_pairs(near_line, far_line, s.source_offsets, s.count, source.stride, line,
                              static_cast<std::int32_t>(wy.far_weight));
        } else {
            for (long k = 0; k < s.count; ++k)
                for (int i = 0; i < 6; ++i)
                    line[6 * k + i] = blend(wy, near_line[s.source_offsets[k] + i], far_line[s.source_offsets[k] + i]);
        }
        std::uint8_t* out = p.destination.bits + static_cast<std::ptrdiff_t>(y) * p.destination.stride + 3 * s.first;
        for (long k = 0; k < s.exact_count; ++k) {
            const std::uint8_t* pixel = blended + s.offsets[k];
            for (int c = 0; c < 3; ++c) out[3 * k + c] = blend(s.exact[k], pixel[c], pixel[3 + c]);
        }
        const long k = s.exact_count;
        loops.blend_columns(blended, s.offsets + k, s.fractions + k, s.column_plan, s.count - k, out + 3 * k);
    }
}

void resample_lines(const plan& p, long first_line, long end_line) {
    strip s;
    for (long number = 0; number < strip_count(p); ++number) {
        lay_out_strip(p, number, s);
        resample_strip(p, s, first_line, end_line);
    }
}

// ---- Sharing out to the thread pool -----------------------------------------

// Below this many destination pixels one thread does it all: handing work
// to the pool costs more than it saves.
constexpr long long split_threshold = 1 << 17;
constexpr long lines_per_piece = 16;
constexpr long most_threads = 8;

// The work in pieces of a strip's scan lines, strip by strip, taken in
// turn by the caller and the pool's threads. The pieces are small, so that
// the caller seldom waits at the end; a thread lays out a strip only when
// its next piece is in another strip than its last.
struct shared_resample {
    const plan* work;
    long pieces_per_strip, pieces;
    volatile LONG next_piece;
};

void take_pieces(shared_resample& shared) {
    const plan& p = *shared.work;
    strip s;
    long laid_out = -1;
    for (;;) {
        const LONG piece = InterlockedIncrement(&shared.next_piece) - 1;
        if (piece >= shared.pieces) return;
        const long number = piece / shared.pieces_per_strip;
        if (number != laid_out) {
            lay_out_strip(p, number, s);
            laid_out = number;
        }
        const long first = (piece % shared.pieces_per_strip) * lines_per_piece;
        resample_strip(p, s, first, std::min(p.destination.height, first + lines_per_piece));
    }
}

VOID CALLBACK take_pieces_in_pool(PTP_CALLBACK_INSTANCE, PVOID context, PTP_WORK) {
    take_pieces(*static_cast<shared_resample*>(context));
}

long processor_count() {
    static std::atomic<long> count{0};
    long known = count.load(std::memory_order_relaxed);
    if (!known) {
        SYSTEM_INFO info;
        GetSystemInfo(&info);
        known = std::max(1L, static_cast<long>(info.dwNumberOfProcessors));
        count.store(known, std::memory_order_relaxed);
    }
    return known;
}

// The work object of one call. Callbacks that have not started when it is
// closed would find nothing left to do, so they are cancelled; those
// running are waited for.
void finish_work(PTP_WORK work) {
    WaitForThreadpoolWorkCallbacks(work, TRUE);
    CloseThreadpoolWork(work);
}
using unique_work = unique_handle<PTP_WORK, &finish_work>;

void resample_shared_out(const plan& p) {
    const long threads = std::min(processor_count(), most_threads);
    const long pieces_per_strip = (p.destination.height + lines_per_piece - 1) / lines_per_piece;
    shared_resample shared{&p, pieces_per_strip, pieces_per_strip * strip_count(p), 0};
    // Without a work object (one processor, or none to be had) the caller
    // does every piece.
    unique_work work;
    if (threads >= 2 && shared.pieces >= 2)
        work = unique_work(CreateThreadpoolWork(take_pieces_in_pool, &shared, nullptr));
    if (work)
        for (long i = 1; i < threads; ++i) SubmitThreadpoolWork(work.get());
    take_pieces(shared);
}

// ---- Choosing a path ---------------------------------------------------------

enum feature_bits { feature_known = 1, feature_sse2 = 2, feature_avx2 = 4 };

int detect_features() {
    int features = feature_known;
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (!__get_cpuid(1, &a, &b, &c, &d)) return features;
    if (d & bit_SSE2) features |= feature_sse2;
    if ((c & bit_OSXSAVE) && (c & bit_AVX)) {
        // The system must save the YMM registers too: XCR0 bits 1 and 2.
        unsigned low = 0, high = 0;
        __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
        if ((low & 6) == 6 && __get_cpuid_count(7, 0, &a, &b, &c, &d) && (b & bit_AVX2)) features |= feature_avx2;
    }
    return features;
}

int processor_features() {
    // Worked out once; racing first calls find the same answer.
    static std::atomic<int> features{0};
    int known = features.load(std::memory_order_relaxed);
    if (!known) {
        known = detect_features();
        features.store(known, std::memory_order_relaxed);
    }
    return known;
}

// -1 until a test or benchmark chooses.
std::atomic<int> chosen_path{-1};

const kernels& kernels_for(resample_path path) {
    switch (path) {
    case resample_path::avx2: return avx2_kernels();
    case resample_path::sse2: return sse2_kernels();
    default: return scalar_kernels();
    }
}

}  // namespace

const kernels& resampling::scalar_kernels() {
    static const kernels loops{scalar_blend_lines, scalar_blend_pairs, nullptr, scalar_blend_columns};
    return loops;
}

bool pixel_view::covers_its_size() const {
    if (!bits || width <= 0 || height <= 0 || stride <= 0) return false;
    if (static_cast<unsigned long long>(width) * 3 > static_cast<unsigned long long>(stride)) return false;
    return static_cast<unsigned long long>(stride) * static_cast<unsigned long long>(height) <= capacity;
}

bool resample_path_runs_here(resample_path path) {
    switch (path) {
    case resample_path::scalar: return true;
    case resample_path::sse2: return (processor_features() & feature_sse2) != 0;
    case resample_path::avx2: return (processor_features() & feature_avx2) != 0;
    }
    return false;
}

resample_path chosen_resample_path() {
    const int chosen = chosen_path.load(std::memory_order_relaxed);
    if (chosen >= 0) return static_cast<resample_path>(chosen);
    if (resample_path_runs_here(resample_path::avx2)) return resample_path::avx2;
    if (resample_path_runs_here(resample_path::sse2)) return resample_path::sse2;
    return resample_path::scalar;
}

bool choose_resample_path(resample_path path) {
    if (!resample_path_runs_here(path)) return false;
    chosen_path.store(static_cast<int>(path), std::memory_order_relaxed);
    return true;
}

void resample_bilinear(const pixel_view& source, const pixel_view& destination, const wchar_t* error_source) {
    resample_bilinear(source, destination, error_source, chosen_resample_path(), true);
}

void resample_bilinear(const pixel_view& source, const pixel_view& destination, const wchar_t* error_source,
                       resample_path path, bool may_split) {
    const long dw = destination.width, dh = destination.height;
    if (dw <= 0 || dh <= 0) return;
    if (!destination.covers_its_size() || !source.covers_its_size()) raise_error(error_subscript_out_of_range, error_source);
    if (source.width < 2 || source.height < 2) raise_error(error_subscript_out_of_range, error_source);
    plan p;
    p.source = source;
    p.destination = destination;
    p.x_scale = scale_of(source.width, dw);
    p.y_scale = scale_of(source.height, dh);
    // Positions grow with the index, so the last ones bound every read.
    if (weight_at(p.x_scale, dw - 1).index + 1 >= source.width || weight_at(p.y_scale, dh - 1).index + 1 >= source.height)
        raise_error(error_subscript_out_of_range, error_source);
    p.loops = &kernels_for(resample_path_runs_here(path) ? path : resample_path::scalar);
    p.dense = source.width - 1 <= dense_scale_limit * static_cast<long long>(dw);
    if (may_split && static_cast<long long>(dw) * dh >= split_threshold)
        resample_shared_out(p);
    else
        resample_lines(p, 0, dh);
}

}  // namespace vx
