// Compiled with SSE2 arithmetic, so that float and double are IEEE single
// and double, as the formula states them.
#include "imaging/resample_formula.h"

#include <cmath>
#include <stdexcept>

namespace vx {

namespace {

double round_half_even(double value) {
    double whole = std::floor(value);
    const double rest = value - whole;
    if (rest > 0.5 || (rest == 0.5 && std::fmod(whole, 2.0) != 0.0)) whole += 1.0;
    return whole;
}

int sample(const reference_picture& source, long pixel, long line, int channel) {
    const long x = pixel * 3 + channel;
    if (x < 0 || x >= source.stride || line < 0 || line >= source.height || pixel >= source.width)
        throw std::out_of_range("source pixel");
    return source.bits[line * source.stride + x];
}

}  // namespace

void resample_reference(const reference_picture& source, unsigned char* destination, long width, long height,
                        long stride) {
    const float x_scale = static_cast<float>(static_cast<double>(source.width - 1) / width);
    const float y_scale = static_cast<float>(static_cast<double>(source.height - 1) / height);
    for (long y = 0; y < height; ++y) {
        for (long x = 0; x < width; ++x) {
            const float sy = static_cast<float>(static_cast<double>(y_scale) * y);
            const long iy = static_cast<long>(std::floor(sy));
            const float fy = sy - static_cast<float>(iy);
            const float sx = static_cast<float>(static_cast<double>(x_scale) * x);
            const long ix = static_cast<long>(std::floor(sx));
            const float fx = sx - static_cast<float>(ix);
            const float one_less_fy = 1.0f - fy, one_less_fx = 1.0f - fx;
            for (int c = 0; c < 3; ++c) {
                const double near = round_half_even(double{one_less_fy} * sample(source, ix, iy, c) +
                                                    double{fy} * sample(source, ix, iy + 1, c));
                const double far = round_half_even(double{one_less_fy} * sample(source, ix + 1, iy, c) +
                                                   double{fy} * sample(source, ix + 1, iy + 1, c));
                double value = round_half_even(double{one_less_fx} * near + double{fx} * far);
                value = value < 0 ? 0 : value > 255 ? 255 : value;
                destination[y * stride + x * 3 + c] = static_cast<unsigned char>(value);
            }
        }
    }
}

}  // namespace vx
