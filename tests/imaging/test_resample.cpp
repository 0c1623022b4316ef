// Resample: the worked example with its ties, the choice between a copy and
// interpolation, the refusals, and the fast path against the plain formula
// on every byte.
#include "frame/automation_error.h"
#include "imaging/imaging_support.h"
#include "imaging/resample.h"
#include "imaging/resample_reference.h"

#include <cstring>
#include <random>
#include <stdexcept>
#include <vector>

namespace vx::test {
namespace {

long stride_for(long width) { return (width * 3 + 3) & ~3L; }

com_ptr<_cDIBSection> resample(_cDIBSection* section, long height, long width, HRESULT expected = S_OK) {
    com_ptr<_cDIBSection> result;
    EXPECT_EQ(expected, section->Resample(height, width, result.put()))
        << "Resample(" << height << ", " << width << ")";
    return result;
}

TEST(Resample, TheWorkedExampleComesOutExactly) {
    com_ptr<_cDIBSection> source = new_section(2, 2);
    unsigned char* bits = bits_of(source.get());
    const unsigned char levels[2][2] = {{0, 100}, {200, 255}};  // [scan line][pixel]
    for (int line = 0; line < 2; ++line)
        for (int p = 0; p < 2; ++p) std::memset(bits + line * 8 + p * 3, levels[line][p], 3);
    com_ptr<_cDIBSection> result = resample(source.get(), 4, 4);
    ASSERT_TRUE(result);
    const unsigned expected[4][4] = {
        {0, 25, 50, 75}, {50, 72, 94, 117}, {100, 120, 139, 158}, {150, 166, 183, 200}};
    const unsigned char* out = bits_of(result.get());
    for (int line = 0; line < 4; ++line)
        for (int p = 0; p < 4; ++p)
            for (int c = 0; c < 3; ++c)
                EXPECT_EQ(expected[line][p], out[line * 12 + p * 3 + c])
                    << "scan line " << line << ", pixel " << p << ", channel " << c;
    EXPECT_EQ(bits[0], bits_of(source.get())[0]) << "the source is unchanged";
}

TEST(Resample, SameSizeCopiesOtherSizesInterpolate) {
    com_ptr<_cDIBSection> source = new_section(100, 50);
    unsigned char* bits = bits_of(source.get());
    for (long i = 0; i < 50 * 300; ++i) bits[i] = static_cast<unsigned char>(i * 7 + i / 300);
    com_ptr<_cDIBSection> copy = resample(source.get(), 50, 100);
    ASSERT_TRUE(copy);
    EXPECT_NE(facts_of(source.get()).hdib, facts_of(copy.get()).hdib) << "a new section";
    const unsigned char* copied = bits_of(copy.get());
    for (long line = 0; line < 50; ++line)
        ASSERT_EQ(0, std::memcmp(bits + line * 300, copied + line * 300, 300)) << "copy, scan line " << line;

    com_ptr<_cDIBSection> turned = resample(source.get(), 100, 50);
    ASSERT_TRUE(turned);
    const section_facts f = facts_of(turned.get());
    EXPECT_EQ(50, f.width) << "the width is the second argument";
    EXPECT_EQ(100, f.height) << "the height is the first";
}

TEST(Resample, OneDimensionAloneStillInterpolatesAlongBoth) {
    // A ramp of 40 per pixel along 5 pixels, 3 scan lines: with the width
    // unchanged, pixel x is read at x * 4 / 5, so the ramp becomes 32 per
    // pixel; a divisor of W - 1 would have kept 40.
    com_ptr<_cDIBSection> source = new_section(5, 3);
    unsigned char* bits = bits_of(source.get());
    for (int line = 0; line < 3; ++line)
        for (int p = 0; p < 5; ++p) std::memset(bits + line * 16 + p * 3, 40 * p, 3);
    com_ptr<_cDIBSection> result = resample(source.get(), 7, 5);
    ASSERT_TRUE(result);
    const unsigned char* out = bits_of(result.get());
    for (int line = 0; line < 7; ++line)
        for (int p = 0; p < 5; ++p)
            EXPECT_EQ(32 * p, out[line * 16 + p * 3 + 1]) << "scan line " << line << ", pixel " << p;
}

TEST(Resample, RefusalsAndErrors) {
    struct row {
        const char* label;
        long width, height;  // of the source; 0 leaves it new
        bool released;
        long new_height, new_width;
        HRESULT expected;
        bool object;
    };
    const row rows[] = {
        {"1 pixel wide, another size", 1, 5, false, 10, 10, automation_error_number(9), false},
        {"1 scan line high, another size", 5, 1, false, 10, 10, automation_error_number(9), false},
        {"1 pixel wide, the same size", 1, 5, false, 5, 1, S_OK, true},
        {"released, old size kept", 6, 6, true, 10, 10, automation_error_number(9), false},
        {"new instance", 0, 0, false, 3, 3, automation_error_number(9), false},
        {"a size the platform refuses", 4, 4, false, 0, 0, S_OK, false},
        {"overflow of the new size", 4, 4, false, 1, 715827882, automation_error_number(6), false},
    };
    for (const row& r : rows) {
        com_ptr<_cDIBSection> source = r.width ? new_section(r.width, r.height) : new_section();
        if (r.released) source->ClearUp();
        com_ptr<_cDIBSection> result;
        const HRESULT hr = source->Resample(r.new_height, r.new_width, result.put());
        EXPECT_EQ(hex(r.expected), hex(hr)) << r.label;
        EXPECT_EQ(r.object, static_cast<bool>(result)) << r.label;
        if (FAILED(hr)) {
            const error_info error = take_error_info();
            EXPECT_EQ(r.expected == automation_error_number(6) ? L"cDIBSection.Create" : L"cDIBSection.Resample",
                      error.source)
                << r.label;
            EXPECT_FALSE(error.description.empty()) << r.label;
        }
    }
}

struct sized_case {
    long source_width, source_height, width, height;
};

// Random pixels and padding; the destination's padding holds a marker.
void compare_with_reference(const sized_case& c, std::mt19937& random) {
    const long source_stride = stride_for(c.source_width), stride = stride_for(c.width);
    std::vector<unsigned char> source(source_stride * c.source_height);
    for (unsigned char& b : source) b = static_cast<unsigned char>(random());
    std::vector<unsigned char> expected(stride * c.height, 0xA5), actual(stride * c.height, 0xA5);
    resample_reference({source.data(), c.source_width, c.source_height, source_stride}, expected.data(), c.width,
                       c.height, stride);
    pixel_view from{source.data(), c.source_width, c.source_height, source_stride, source.size()};
    pixel_view to{actual.data(), c.width, c.height, stride, actual.size()};
    resample_bilinear(from, to, L"test");
    for (size_t i = 0; i < expected.size(); ++i) {
        ASSERT_EQ(expected[i], actual[i]) << c.source_width << "x" << c.source_height << " -> " << c.width << "x"
                                          << c.height << ": scan line " << i / stride << ", byte " << i % stride;
    }
}

TEST(ResampleExactness, FastPathEqualsTheFormulaOnEveryByte) {
    std::mt19937 random(20240611);
    const sized_case chosen[] = {
        {2, 2, 4, 4},        {2, 2, 1, 1},       {2, 2, 999, 3},     {3, 2, 2, 700},     {1024, 768, 1600, 1200},
        {400, 300, 100, 75}, {97, 89, 97, 113},  {97, 89, 131, 89},  {640, 3, 7, 5},     {2, 640, 5, 7},
        {7, 5, 1200, 1100},  {1000, 2, 999, 1},  {5, 5, 3, 3},       {255, 17, 256, 18}, {33, 2000, 34, 3},
        {3, 3, 2, 2},        {16, 16, 48, 48},   {48, 48, 16, 16},   {1601, 3, 1600, 4},
    };
    for (const sized_case& c : chosen) compare_with_reference(c, random);
    std::uniform_int_distribution<long> size(2, 260);
    for (int i = 0; i < 300; ++i) {
        const long sw = size(random), sh = size(random);
        compare_with_reference({sw, sh, size(random), size(random)}, random);
    }
}

TEST(ResampleExactness, ThroughTheInterfaceInMemoryOrder) {
    std::mt19937 random(7);
    const sized_case cases[] = {{13, 7, 29, 11}, {200, 150, 60, 45}, {2, 2, 5, 3}, {31, 19, 31, 40}};
    for (const sized_case& c : cases) {
        com_ptr<_cDIBSection> source = new_section(c.source_width, c.source_height);
        unsigned char* bits = bits_of(source.get());
        const long source_stride = stride_for(c.source_width);
        for (long i = 0; i < source_stride * c.source_height; ++i) bits[i] = static_cast<unsigned char>(random());
        com_ptr<_cDIBSection> result = resample(source.get(), c.height, c.width);
        ASSERT_TRUE(result);
        const long stride = stride_for(c.width);
        std::vector<unsigned char> expected(stride * c.height);
        resample_reference({bits, c.source_width, c.source_height, source_stride}, expected.data(), c.width,
                           c.height, stride);
        const unsigned char* out = bits_of(result.get());
        for (long line = 0; line < c.height; ++line)
            for (long x = 0; x < c.width * 3; ++x)
                ASSERT_EQ(expected[line * stride + x], out[line * stride + x])
                    << c.source_width << "x" << c.source_height << " -> " << c.width << "x" << c.height
                    << ": scan line " << line << ", byte " << x;
    }
}

TEST(ResampleExactness, TheReferenceRefusesToReadOutside) {
    std::vector<unsigned char> source(8, 0), destination(64, 0);
    EXPECT_THROW(resample_reference({source.data(), 1, 2, 4}, destination.data(), 3, 3, 12), std::out_of_range);
    pixel_view from{source.data(), 1, 2, 4, source.size()};
    pixel_view to{destination.data(), 3, 3, 12, destination.size()};
    try {
        resample_bilinear(from, to, L"test");
        ADD_FAILURE() << "a source 1 pixel wide was read";
    } catch (const automation_error& error) {
        EXPECT_EQ(9, error.number);
    }
    EXPECT_EQ(std::vector<unsigned char>(64, 0), destination) << "nothing written";
}

}  // namespace
}  // namespace vx::test
