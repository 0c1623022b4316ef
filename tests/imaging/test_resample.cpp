// Resample: every code path against the plain formula on every byte, and through the interface the refusals
// and the choice between a copy and interpolation.
#include "frame/automation_error.h"
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

struct sized_case { long source_width, source_height, width, height; };

// Random pixels and padding, and what the plain formula makes of them; the
// destination's padding holds a marker.
std::vector<unsigned char> random_source(const sized_case& c, std::mt19937& random) {
    std::vector<unsigned char> source(stride_for(c.source_width) * c.source_height);
    for (unsigned char& b : source) b = static_cast<unsigned char>(random());
    return source;
}
std::vector<unsigned char> reference(const sized_case& c, const std::vector<unsigned char>& source) {
    std::vector<unsigned char> expected(stride_for(c.width) * c.height, 0xA5);
    resample_reference({source.data(), c.source_width, c.source_height, stride_for(c.source_width)}, expected.data(),
                       c.width, c.height, stride_for(c.width));
    return expected;
}

void compare_with_reference(const sized_case& c, resample_path path, std::mt19937& random) {
    std::vector<unsigned char> source = random_source(c, random), actual(stride_for(c.width) * c.height, 0xA5);
    const std::vector<unsigned char> expected = reference(c, source);
    resample_bilinear({source.data(), c.source_width, c.source_height, stride_for(c.source_width), source.size()},
                      {actual.data(), c.width, c.height, stride_for(c.width), actual.size()}, L"test", path, true);
    for (size_t i = 0; i < expected.size(); ++i)
        ASSERT_EQ(expected[i], actual[i]) << c.source_width << "x" << c.source_height << " -> " << c.width << "x"
                                          << c.height << ": byte " << i;
}

class ResamplePath : public testing::TestWithParam<resample_path> {};

// Every size pair of small pictures (every padding of both sides), then
// thin, wide, steep and large ones: runs of exact columns, strips, ties,
// sparse reads and the work shared out to the thread pool.
TEST_P(ResamplePath, EqualsTheFormulaOnEveryByte) {
    if (!resample_path_runs_here(GetParam())) GTEST_SKIP() << "this processor lacks the path";
    std::mt19937 random(20240611);
    for (long i = 0; i < 8 * 8 * 12 * 12; ++i)
        compare_with_reference({2 + i / 1152, 2 + i / 144 % 8, 1 + i / 12 % 12, 1 + i % 12}, GetParam(), random);
    const sized_case chosen[] = {
        {2, 2, 999, 3},   {3, 2, 2, 700},      {1000, 2, 999, 1},  {1901, 3, 1600, 4},     {3001, 4, 700, 3},
        {201, 5, 400, 9}, {5, 201, 7, 400},    {255, 17, 256, 18}, {33, 2000, 34, 3},      {97, 89, 700, 200},
        {7, 5, 1200, 110}, {400, 300, 100, 75}, {1600, 1200, 800, 600}, {1024, 768, 1600, 1200},
    };
    for (const sized_case& c : chosen) compare_with_reference(c, GetParam(), random);
    // 2 columns to 2^25: the last position, 1 - 2^-25, rounds to 1 as a Single. Refused before any write.
    unsigned char two_by_two[2 * 8] = {};
    const long wide = 1L << 25, row_size = stride_for(wide);
    auto* const row = static_cast<unsigned char*>(VirtualAlloc(nullptr, row_size, MEM_COMMIT, PAGE_READWRITE));
    EXPECT_THROW(resample_bilinear({two_by_two, 2, 2, 8, sizeof two_by_two}, {row, wide, 1, row_size, size_t(row_size)},
                                   L"test", GetParam(), true), automation_error);
    VirtualFree(row, 0, MEM_RELEASE);
}

const char* const path_names[] = {"scalar", "sse2", "avx2"};  // in resample_path's order
INSTANTIATE_TEST_SUITE_P(Resample, ResamplePath, testing::Values(resample_path::scalar, resample_path::sse2,
                         resample_path::avx2), [](const auto& p) { return std::string(path_names[int(p.param)]); });

// Through the interface, height first: refusals and errors, and the picture a new section holds: the same size
// is a copy, any other size (one side alone too) the formula.
TEST(Resample, ThroughTheInterfaceInMemoryOrder) {
    const HRESULT out_of_range = automation_error_number(9), overflow = automation_error_number(6);
    const struct {
        const char* label; long width, height; bool released;  // of the source; width 0 leaves it new
        long new_height, new_width; HRESULT expected; bool object;
    } rows[] = {
        {"1 pixel wide, another size", 1, 5, false, 10, 10, out_of_range, false},
        {"1 pixel wide, the same size", 1, 5, false, 5, 1, S_OK, true},
        {"released, old size kept", 6, 6, true, 10, 10, out_of_range, false},
        {"new instance", 0, 0, false, 3, 3, out_of_range, false},
        {"a size the platform refuses", 4, 4, false, 0, 0, S_OK, false},
        {"overflow of the new size", 4, 4, false, 1, 715827882, overflow, false},
        {"the same size", 100, 50, false, 50, 100, S_OK, true}, {"another height", 5, 3, false, 7, 5, S_OK, true},
        {"another width", 31, 19, false, 19, 40, S_OK, true}, {"31 wide, taller", 31, 19, false, 40, 31, S_OK, true},
        {"larger", 13, 7, false, 11, 29, S_OK, true}, {"smaller", 200, 150, false, 45, 60, S_OK, true},
    };
    std::mt19937 random(7);
    for (const auto& r : rows) {
        const sized_case c = {r.width, r.height, r.new_width, r.new_height};
        com_ptr<_cDIBSection> source = r.width ? new_section(r.width, r.height) : new_section(), result;
        const std::vector<unsigned char> bits = random_source(c, random);
        if (r.width) std::memcpy(bits_of(source.get()), bits.data(), bits.size());
        if (r.released) source->ClearUp();
        const HRESULT hr = source->Resample(r.new_height, r.new_width, result.put());
        EXPECT_TRUE(hr == r.expected && r.object == static_cast<bool>(result)) << r.label << ": " << hex(hr);
        const wchar_t* source_of_error = r.expected == overflow ? L"cDIBSection.Create" : L"cDIBSection.Resample";
        EXPECT_TRUE(SUCCEEDED(hr) || take_error_info().source == source_of_error) << r.label;
        if (!result) continue;
        const section_facts f = facts_of(result.get());
        ASSERT_TRUE(f.width == c.width && f.height == c.height && f.hdib != facts_of(source.get()).hdib) << r.label;
        const bool same = c.width == c.source_width && c.height == c.source_height;
        const std::vector<unsigned char> expected = same ? bits : reference(c, bits);
        const unsigned char* out = bits_of(result.get());
        for (long i = 0, stride = stride_for(c.width); i < stride * c.height; ++i)
            ASSERT_EQ(i % stride < c.width * 3 ? expected[i] : out[i], out[i]) << r.label << ": byte " << i;
        EXPECT_EQ(bits, std::vector<unsigned char>(bits_of(source.get()), bits_of(source.get()) + bits.size()))
            << r.label << ": the source is unchanged";
    }
}

}  // namespace
}  // namespace vx::test
