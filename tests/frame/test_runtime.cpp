#include "frame/runtime.h"
#include "frame/automation_error.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <vector>

namespace {

constexpr LCID english = 0x0409, german = 0x0407;
const double nan = std::numeric_limits<double>::quiet_NaN(), infinity = std::numeric_limits<double>::infinity();
vx::automation_error raised_by(const std::function<void()>& body) {
    try {
        body();
    } catch (const vx::automation_error& error) {
        return error;
    }
    return {};
}

TEST(RuntimeNumbers, WholeNumberConversionsRoundHalvesToEvenAndRefuseOverflow) {
    const wchar_t caller[] = L"clsQuickSort.Sort";
    const std::function<long(double)> to[] = {[&](double v) { return vx::to_long(v, caller); },
                                              [&](double v) { return long{vx::to_integer(v, caller)}; },
                                              [&](double v) { return long{vx::to_byte(v, caller)}; }};
    enum { to_long, to_integer, to_byte };
    struct row { int to; double value; long expected; bool overflows = false; };
    const row rows[] = {
        {to_long, 0.5, 0}, {to_long, 1.5, 2}, {to_long, 2.5, 2}, {to_long, -1.5, -2},
        {to_long, -2147483648.5, -2147483647L - 1}, {to_long, 2147483647.5, 0, true}, {to_long, -infinity, 0, true},
        {to_long, nan, 0, true}, {to_integer, 32767.5, 0, true}, {to_byte, 254.5, 254}, {to_byte, -0.6, 0, true},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(testing::Message() << "conversion " << r.to << " of " << r.value);
        const vx::automation_error error = raised_by([&] { EXPECT_EQ(to[r.to](r.value), r.expected); });
        EXPECT_EQ(r.overflows, error.number == 6 && error.source == caller && error.description == L"Overflow");
    }
}
// Trim takes spaces only; a start below 1 or a negative length is refused.
TEST(RuntimeText, NumbersAsTextTrimAndTheRefusalsOfTheStringOperations) {
    struct row { LCID locale; double value; const wchar_t* expected; };
    const row rows[] = {
        {english, 0.1 + 0.2, L"0.3"}, {english, 2.0 / 3, L"0.666666666666667"}, {english, 123456789012345678.0, L"1.23456789012346E+17"},
        {english, 1e-5, L"1E-05"}, {english, -0.0, L"0"}, {german, -0.125, L"-0,125"}, {german, -infinity, L"-1.#INF"},
        {english, nan, L"1.#QNAN"}, {english, -nan, L"-1.#IND"},
    };
    for (const row& r : rows)
        EXPECT_EQ(vx::double_to_text(r.value, r.locale), r.expected) << "locale " << r.locale << ", " << r.value;
    for (const auto& r : {std::pair{0u, L"0"}, {0xABCDEFu, L"ABCDEF"}, {0xFFFFFFFFu, L"FFFFFFFF"}}) EXPECT_EQ(vx::hex(r.first), r.second);
    EXPECT_EQ(vx::format_number(305419896, L"0,000,000,000", german), L"0.305.419.896");
    EXPECT_EQ(vx::trim(L" \ta\t  "), L"\ta\t");
    const std::function<void()> refused[] = {[] { vx::instr(L"abc", L"a", 0, L"S"); }, [] { vx::mid(L"abc", 0, L"S"); },
                                             [] { vx::left(L"abc", -1, L"S"); }};
    for (const auto& r : refused) {
        const vx::automation_error error = raised_by(r);
        EXPECT_TRUE(error.number == 5 && error.source == L"S") << error.number;
    }
}

TEST(RuntimeServices, RandomNumbersCoverTheUnitIntervalAndRepeatAfterReseed) {
    auto draws = [](int count) {
        std::vector<float> values;
        while (count--) values.push_back(vx::random_number());
        return values;
    };
    vx::reseed_random(12345.5);
    std::vector<int> byte_counts(256);
    for (float r : draws(100000)) {
        ASSERT_TRUE(r >= 0.0f && r < 1.0f && std::ldexp(r, 24) == std::floor(std::ldexp(r, 24))) << r;
        byte_counts[static_cast<int>(r * 256)]++;
    }
    for (int v = 0; v < 256; ++v) EXPECT_GT(byte_counts[v], 0) << "byte " << v << " never drawn";
    vx::reseed_random(100.25);
    const std::vector<float> first = draws(8);
    vx::reseed_random(100.25f);
    EXPECT_EQ(draws(8), first) << "the same seed as a Single";
}

}  // namespace
