// Resample: the worked example with its ties, the refusals, every code path
// against the plain formula on every byte, and the interface's choice
// between a copy and interpolation.
#include "imaging/imaging_support.h"
#include "imaging/resample.h"
#include "imaging/resample_formula.h"

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace vx::test {
namespace {

long stride_for(long width) { return (width * 3 + 3) & ~3L; }

TEST(Resample, TheWorkedExampleComesOutExactly) {
    com_ptr<_cDIBSection> source = new_section(2, 2), result;
    const unsigned char levels[2][2] = {{0, 100}, {200, 255}};  // [scan line][pixel]
    for (int line = 0; line < 2; ++line)
        for (int p = 0; p < 2; ++p) std::memset(bits_of(source.get()) + line * 8 + p * 3, levels[line][p], 3);
    ASSERT_EQ(S_OK, source->Resample(4, 4, result.put()));
    const unsigned expected[4][4] = {{0, 25, 50, 75}, {50, 72, 94, 117}, {100, 120, 139, 158}, {150, 166, 183, 200}};
    const unsigned char* out = bits_of(result.get());
    for (int i = 0; i < 4 * 12; ++i)
        EXPECT_EQ(expected[i / 12][i % 12 / 3], out[i]) << "scan line " << i / 12 << ", byte " << i % 12;
}

TEST(Resample, RefusalsAndErrors) {
    const struct {
        const char* label; long width, height; bool released;  // of the source; width 0 leaves it new
        long new_height, new_width; HRESULT expected; bool object;
    } rows[] = {
        {"1 pixel wide, another size", 1, 5, false, 10, 10, automation_error_number(9), false},
        {"1 pixel wide, the same size", 1, 5, false, 5, 1, S_OK, true},
        {"released, old size kept", 6, 6, true, 10, 10, automation_error_number(9), false},
        {"new instance", 0, 0, false, 3, 3, automation_error_number(9), false},
        {"a size the platform refuses", 4, 4, false, 0, 0, S_OK, false},
        {"overflow of the new size", 4, 4, false, 1, 715827882, automation_error_number(6), false},
    };
    for (const auto& r : rows) {
        com_ptr<_cDIBSection> source = r.width ? new_section(r.width, r.height) : new_section(), result;
        if (r.released) source->ClearUp();
        const HRESULT hr = source->Resample(r.new_height, r.new_width, result.put());
        EXPECT_EQ(hex(r.expected), hex(hr)) << r.label;
        EXPECT_EQ(r.object, static_cast<bool>(result)) << r.label;
        if (FAILED(hr))
            EXPECT_EQ(r.expected == automation_error_number(6) ? L"cDIBSection.Create" : L"cDIBSection.Resample",
                      take_error_info().source) << r.label;
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

// Through the interface, height first: the same size is a copy, any other
// size (one side alone too) the formula.
TEST(ResampleExactness, ThroughTheInterfaceInMemoryOrder) {
    std::mt19937 random(7);
    const sized_case cases[] = {{100, 50, 100, 50}, {5, 3, 5, 7}, {13, 7, 29, 11}, {200, 150, 60, 45}, {31, 19, 31, 40}};
    for (const sized_case& c : cases) {
        const std::string label = std::to_string(c.source_width) + "x" + std::to_string(c.source_height) + " -> " +
                                  std::to_string(c.width) + "x" + std::to_string(c.height);
        com_ptr<_cDIBSection> source = new_section(c.source_width, c.source_height), result;
        const long source_stride = stride_for(c.source_width), stride = stride_for(c.width);
        std::vector<unsigned char> bits(source_stride * c.source_height), expected(stride * c.height);
        for (unsigned char& b : bits) b = static_cast<unsigned char>(random());
        std::memcpy(bits_of(source.get()), bits.data(), bits.size());
        ASSERT_EQ(S_OK, source->Resample(c.height, c.width, result.put())) << label;
        const section_facts f = facts_of(result.get());
        ASSERT_TRUE(f.width == c.width && f.height == c.height && f.hdib != facts_of(source.get()).hdib) << label;
        if (c.width == c.source_width && c.height == c.source_height)
            expected = bits;
        else
            resample_reference({bits.data(), c.source_width, c.source_height, source_stride}, expected.data(),
                               c.width, c.height, stride);
        const unsigned char* out = bits_of(result.get());
        for (long i = 0; i < stride * c.height; ++i)
            if (i % stride < c.width * 3) ASSERT_EQ(expected[i], out[i]) << label << ": byte " << i;
        EXPECT_EQ(bits, std::vector<unsigned char>(bits_of(source.get()), bits_of(source.get()) + bits.size()))
            << label << ": the source is unchanged";
    }
}

}  // namespace
}  // namespace vx::test
