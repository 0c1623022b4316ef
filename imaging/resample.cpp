// Compiled with SSE2 arithmetic (see frame/CMakeLists.txt), so that float
// and double are IEEE single and double here, with no excess precision.
//
// The arithmetic is that of the formula, evaluated faster: a sample
// position whose fraction f is a multiple of 2^-23 (every position from 1
// up, and the simple ones below) has weights (2^23 - F) / 2^23 and F / 2^23
// exactly, so a blend times 2^23 is a whole number below 2^31 and the
// rounding, halves to even, is done on integers. Other positions (some
// below 1, where a Single fraction can be finer) take the double
// evaluation of the formula.
#include "imaging/resample.h"

#include "frame/automation_error.h"

#include <cmath>
#include <cstdint>

namespace vx {

namespace {

constexpr int fraction_bits = 23;
constexpr float fraction_unit = 8388608.0f;  // 2^23

// The weights of one sample position: index = floor(s), fraction = s - index.
struct axis_weights {
    long index;
    bool whole;             // the fraction is F / 2^23 exactly
    std::int32_t fraction;  // F, when whole
    float near_weight;      // 1 - fraction, rounded to Single
    float far_weight;       // the fraction
};

inline axis_weights weights_at(float scale, long i) {
    // A product of a Single and a whole number below 2^24 is rounded once.
    const float position = scale * static_cast<float>(i);
    axis_weights w;
    w.index = static_cast<long>(position);  // positions are never negative
    const float fraction = position - static_cast<float>(w.index);
    const float scaled = fraction * fraction_unit;
    w.fraction = static_cast<std::int32_t>(scaled);
    w.whole = static_cast<float>(w.fraction) == scaled;
    w.near_weight = 1.0f - fraction;
    w.far_weight = fraction;
    return w;
}

inline double round_half_even(double value) {
    double whole = std::floor(value);
    const double rest = value - whole;
    if (rest > 0.5 || (rest == 0.5 && std::fmod(whole, 2.0) != 0.0)) whole += 1.0;
    return whole;
}

// round((1 - f) * a + f * b), a and b in 0..255. With whole weights the
// result cannot leave 0..255; the double path clamps as the formula does.
inline std::int32_t blend(const axis_weights& w, std::int32_t a, std::int32_t b) {
    if (w.whole) {
        const std::uint32_t total = static_cast<std::uint32_t>((a << fraction_bits) + w.fraction * (b - a));
        const std::uint32_t quotient = total >> fraction_bits;
        return static_cast<std::int32_t>((total + ((1u << (fraction_bits - 1)) - 1) + (quotient & 1)) >> fraction_bits);
    }
    const double value = round_half_even(static_cast<double>(w.near_weight) * a + static_cast<double>(w.far_weight) * b);
    return value < 0.0 ? 0 : value > 255.0 ? 255 : static_cast<std::int32_t>(value);
}

float scale_of(long source_size, long destination_size) {
    return static_cast<float>(static_cast<double>(source_size - 1) / static_cast<double>(destination_size));
}

}  // namespace

bool pixel_view::covers_its_size() const {
    if (!bits || width <= 0 || height <= 0 || stride <= 0) return false;
    if (static_cast<unsigned long long>(width) * 3 > static_cast<unsigned long long>(stride)) return false;
    return static_cast<unsigned long long>(stride) * static_cast<unsigned long long>(height) <= capacity;
}

void resample_bilinear(const pixel_view& source, const pixel_view& destination, const wchar_t* error_source) {
    const long dw = destination.width, dh = destination.height;
    if (dw <= 0 || dh <= 0) return;
    if (!destination.covers_its_size() || !source.covers_its_size()) raise_error(error_subscript_out_of_range, error_source);
    const float x_scale = scale_of(source.width, dw);
    const float y_scale = scale_of(source.height, dh);
    // Positions grow with the index, so the last ones bound every read.
    if (source.width < 2 || source.height < 2 || weights_at(x_scale, dw - 1).index + 1 >= source.width ||
        weights_at(y_scale, dh - 1).index + 1 >= source.height)
        raise_error(error_subscript_out_of_range, error_source);

    for (long y = 0; y < dh; ++y) {
        const axis_weights wy = weights_at(y_scale, y);
        const unsigned char* row0 = source.bits + wy.index * source.stride;
        const unsigned char* row1 = row0 + source.stride;
        unsigned char* out = destination.bits + y * destination.stride;
        // Neighbouring destination pixels often share their source columns.
        long cached_index = -1;
        std::int32_t near_column[3] = {}, far_column[3] = {};
        for (long x = 0; x < dw; ++x, out += 3) {
            const axis_weights wx = weights_at(x_scale, x);
            if (wx.index != cached_index) {
                cached_index = wx.index;
                const long at = wx.index * 3;
                for (int c = 0; c < 3; ++c) {
                    near_column[c] = blend(wy, row0[at + c], row1[at + c]);
                    far_column[c] = blend(wy, row0[at + 3 + c], row1[at + 3 + c]);
                }
            }
            out[0] = static_cast<unsigned char>(blend(wx, near_column[0], far_column[0]));
            out[1] = static_cast<unsigned char>(blend(wx, near_column[1], far_column[1]));
            out[2] = static_cast<unsigned char>(blend(wx, near_column[2], far_column[2]));
        }
    }
}

}  // namespace vx
