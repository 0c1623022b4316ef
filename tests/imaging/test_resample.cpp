// Resample: the worked example with its ties, the choice between a copy and
// interpolation, the refusals, and every code path against the plain
// formula on every byte.
#include "frame/automation_error.h"
#include "imaging/imaging_support.h"
#include "imaging/resample.h"
#include "imaging/resample_reference.h"

#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
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
void compare_with_reference(const sized_case& c, resample_path path, std::mt19937& random) {
    const long source_stride = stride_for(c.source_width), stride = stride_for(c.width);
    std::vector<unsigned char> source(source_stride * c.source_height);
    for (unsigned char& b : source) b = static_cast<unsigned char>(random());
    std::vector<unsigned char> expected(stride * c.height, 0xA5), actual(stride * c.height, 0xA5);
    resample_reference({source.data(), c.source_width, c.source_height, source_stride}, expected.data(), c.width,
                       c.height, stride);
    pixel_view from{source.data(), c.source_width, c.source_height, source_stride, source.size()};
    pixel_view to{actual.data(), c.width, c.height, stride, actual.size()};
    resample_bilinear(from, to, L"test", path, true);
    for (size_t i = 0; i < expected.size(); ++i) {
        ASSERT_EQ(expected[i], actual[i]) << c.source_width << "x" << c.source_height << " -> " << c.width << "x"
                                          << c.height << ": scan line " << i / stride << ", byte " << i % stride;
    }
}

class ResamplePath : public testing::TestWithParam<resample_path> {};

// Every size pair of small pictures (every padding of both sides), then
// thin, wide, steep and large ones: runs of exact columns, strips, ties,
// sparse reads and the work shared out to the thread pool.
TEST_P(ResamplePath, EqualsTheFormulaOnEveryByte) {
    if (!resample_path_runs_here(GetParam())) GTEST_SKIP() << "this processor lacks the path";
    std::mt19937 random(20240611);
    for (long sw = 2; sw <= 9; ++sw)
        for (long sh = 2; sh <= 9; ++sh)
            for (long w = 1; w <= 12; ++w)
                for (long h = 1; h <= 12; ++h) compare_with_reference({sw, sh, w, h}, GetParam(), random);
    const sized_case chosen[] = {
        {2, 2, 999, 3},   {3, 2, 2, 700},      {1000, 2, 999, 1},  {1901, 3, 1600, 4},     {3001, 4, 700, 3},
        {201, 5, 400, 9}, {5, 201, 7, 400},    {255, 17, 256, 18}, {33, 2000, 34, 3},      {97, 89, 700, 200},
        {7, 5, 1200, 110}, {400, 300, 100, 75}, {1600, 1200, 800, 600}, {1024, 768, 1600, 1200},
    };
    for (const sized_case& c : chosen) compare_with_reference(c, GetParam(), random);
}

std::string path_name(const testing::TestParamInfo<resample_path>& info) {
    return info.param == resample_path::avx2 ? "avx2" : info.param == resample_path::sse2 ? "sse2" : "scalar";
}
INSTANTIATE_TEST_SUITE_P(Resample, ResamplePath,
                         testing::Values(resample_path::scalar, resample_path::sse2, resample_path::avx2), path_name);

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
