#include "frame/runtime.h"

#include "frame/automation_error.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <thread>
#include <vector>

namespace {

constexpr LCID english = 0x0409;
constexpr LCID german = 0x0407;
const double not_a_number = std::numeric_limits<double>::quiet_NaN();
const double infinity = std::numeric_limits<double>::infinity();

std::wstring user_locale_text(LCTYPE item) {
    wchar_t text[16] = {};
    GetLocaleInfoW(LOCALE_USER_DEFAULT, item, text, 16);
    return text;
}

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
        {to_long, 0.5, 0}, {to_long, 1.5, 2}, {to_long, 2.5, 2}, {to_long, -0.5, 0}, {to_long, -1.5, -2},
        {to_long, -2147483648.5, -2147483647L - 1}, {to_long, 2147483647.5, 0, true}, {to_long, -infinity, 0, true},
        {to_long, not_a_number, 0, true}, {to_integer, 32766.5, 32766}, {to_integer, 32767.5, 0, true},
        {to_byte, 254.5, 254}, {to_byte, -0.5, 0}, {to_byte, 255.5, 0, true}, {to_byte, -0.6, 0, true},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(testing::Message() << "conversion " << r.to << " of " << r.value);
        if (!r.overflows) {
            EXPECT_EQ(to[r.to](r.value), r.expected);
            continue;
        }
        const vx::automation_error error = raised_by([&] { to[r.to](r.value); });
        EXPECT_EQ(error.number, 6);
        EXPECT_EQ(error.source, caller);
        EXPECT_EQ(error.description, L"Overflow");
    }
    EXPECT_EQ(raised_by([] { vx::to_long(1e10); }).source, vx::runtime_error_source) << "default source";
    EXPECT_TRUE(vx::int_floor(2.7) == 2 && vx::int_floor(-0.5) == -1) << "Int is floor";
}

TEST(RuntimeNumbers, VariantToLongConvertsLikeCLng) {
    LONG referenced = 77;
    VARIANT value{};
    V_VT(&value) = VT_BYREF | VT_I4;
    V_I4REF(&value) = &referenced;
    EXPECT_EQ(vx::variant_to_long(value), 77) << "ByRef Long";
    V_VT(&value) = VT_NULL;
    EXPECT_EQ(raised_by([&] { vx::variant_to_long(value); }).number, 94) << "Null";
    V_VT(&value) = VT_R8;
    V_R8(&value) = not_a_number;
    EXPECT_EQ(raised_by([&] { vx::variant_to_long(value); }).number, 6) << "NaN";
}

TEST(RuntimeText, DoubleToTextKeepsFifteenDigitsInTheLocalesForm) {
    struct row { LCID locale; double value; const wchar_t* expected; };
    const row rows[] = {
        {english, 0.1 + 0.2, L"0.3"}, {english, 2.0 / 3, L"0.666666666666667"}, {english, 123456789012345.0,
        L"123456789012345"}, {english, 123456789012345678.0, L"1.23456789012346E+17"}, {english, 1e15, L"1E+15"},
        {english, 1e-5, L"1E-05"}, {english, -0.0, L"0"}, {english, 1234567.25, L"1234567.25"},
        {german, 1234567.25, L"1234567,25"}, {german, -0.125, L"-0,125"},
        {english, infinity, L"1.#INF"}, {german, -infinity, L"-1.#INF"}, {english, not_a_number, L"1.#QNAN"},
        {english, -std::numeric_limits<double>::quiet_NaN(), L"-1.#IND"},
    };
    for (const row& r : rows)
        EXPECT_EQ(vx::double_to_text(r.value, r.locale), r.expected) << "locale " << r.locale << ", " << r.value;
    EXPECT_EQ(vx::double_to_text(2.5), L"2" + user_locale_text(LOCALE_SDECIMAL) + L"5") << "user's separator";
}

TEST(RuntimeText, HexAndTheTenDigitPattern) {
    const std::pair<std::uint32_t, const wchar_t*> hexes[] = {
        {0, L"0"}, {0x0F, L"F"}, {256, L"100"}, {0xABCDEF, L"ABCDEF"}, {0xFFFFFFFFu, L"FFFFFFFF"}};
    for (const auto& r : hexes) EXPECT_EQ(vx::hex(r.first), r.second) << r.first;

    const wchar_t pattern[] = L"0,000,000,000";
    struct row { LCID locale; double value; const wchar_t* expected; };
    const row rows[] = {{english, 305419896, L"0,305,419,896"}, {english, 4294967295.0, L"4,294,967,295"},
                        {german, 305419896, L"0.305.419.896"}};
    for (const row& r : rows)
        EXPECT_EQ(vx::format_number(r.value, pattern, r.locale), r.expected) << "locale " << r.locale << ", " << r.value;
    const std::wstring separator = user_locale_text(LOCALE_STHOUSAND);
    EXPECT_EQ(vx::format_number(1234, pattern), L"0" + separator + L"000" + separator + L"001" + separator + L"234");
}

// Answers Invoke with the case's script and fails the test on any other call.
struct stub_dispatch : IDispatch {
    std::function<HRESULT(VARIANT*, EXCEPINFO*)> invoke;
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
        *out = (iid == IID_IUnknown || iid == IID_IDispatch) ? this : nullptr;
        return *out ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT*) override { return unexpected("GetTypeInfoCount"); }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return unexpected("GetTypeInfo"); }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return unexpected("names"); }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID iid, LCID, WORD flags, DISPPARAMS* arguments, VARIANT* result,
                                     EXCEPINFO* exception, UINT*) override {
        EXPECT_TRUE(id == DISPID_VALUE && iid == IID_NULL && flags == DISPATCH_PROPERTYGET) << "not a default get";
        EXPECT_TRUE(arguments && arguments->cArgs == 0 && arguments->cNamedArgs == 0) << "arguments passed";
        EXPECT_TRUE(result && V_VT(result) == VT_EMPTY) << "result not cleared";
        return invoke && result && exception ? invoke(result, exception) : unexpected("Invoke");
    }
    static HRESULT unexpected(const char* call) {
        ADD_FAILURE() << "unexpected call " << call;
        return E_UNEXPECTED;
    }
};

HRESULT STDAPICALLTYPE fill_in_later(EXCEPINFO* exception) {
    exception->wCode = 1004;
    exception->bstrDescription = SysAllocString(L"Filled in later");
    return S_OK;
}

TEST(RuntimeStrings, TrimUpperCaseInstrLeftMidAndStringOf) {
    using text_case = std::pair<std::wstring, std::wstring>;  // what the operation gave, what it should
    const text_case cases[] = {
        {vx::trim(L"  a b  "), L"a b"}, {vx::trim(L"\ta\t"), L"\ta\t"}, {vx::trim(L"   "), L""},
        {vx::upper_case(L"\\hkey_users\\\x00e4"), L"\\HKEY_USERS\\\x00c4"}, {vx::left(L"abc", 2), L"ab"},
        {vx::left(L"abc", 5), L"abc"}, {vx::mid(L"abcdef", 2), L"bcdef"}, {vx::mid(L"abc", 4), L""},
        {vx::mid(L"abcdef", 5, 10), L"ef"}, {vx::string_of(3, L'x'), L"xxx"},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;

    struct search { const wchar_t* text; const wchar_t* sought; long start; long expected; };
    const search searches[] = {{L"abcabc", L"c", 1, 3}, {L"abcabc", L"c", 4, 6}, {L"abc", L"d", 1, 0},
                               {L"abc", L"", 4, 4}, {L"abc", L"", 5, 0}, {L"\\A\\B", L"\\", 2, 3}};
    for (const search& r : searches)
        EXPECT_EQ(vx::instr(r.text, r.sought, r.start), r.expected)
            << "InStr(" << r.start << ", \"" << r.text << "\", \"" << r.sought << "\")";

    const std::pair<const char*, std::function<void()>> refused[] = {
        {"InStr start 0", [] { vx::instr(L"abc", L"a", 0, L"S"); }}, {"Left$ -1", [] { vx::left(L"abc", -1, L"S"); }},
        {"Mid$ length -1", [] { vx::mid(L"abc", 1, -1, L"S"); }}, {"String$ -1", [] { vx::string_of(-1, L'x', L"S"); }}};
    for (const auto& r : refused) {
        const vx::automation_error error = raised_by(r.second);
        EXPECT_TRUE(error.number == 5 && error.source == L"S") << r.first << ": " << error.number;
    }
}

std::vector<std::wstring> shown;

std::vector<float> draws(int count) {
    std::vector<float> values;
    for (int i = 0; i < count; ++i) values.push_back(vx::random_number());
    return values;
}

TEST(RuntimeServices, RandomNumbersAreUniformInUnitIntervalAndRepeatAfterReseed) {
    vx::reseed_random(12345.5);
    std::vector<int> byte_counts(256);
    double sum = 0;
    for (float r : draws(200000)) {
        ASSERT_TRUE(r >= 0.0f && r < 1.0f && std::ldexp(r, 24) == std::floor(std::ldexp(r, 24))) << r;
        byte_counts[vx::to_long(r * 255.0)]++;
        sum += r;
    }
    EXPECT_NEAR(sum / 200000, 0.5, 0.005);
    for (int v = 0; v < 256; ++v) EXPECT_GT(byte_counts[v], 0) << "byte " << v << " never drawn";

    for (const auto& seeds : {std::pair{100.25, 100.25}, {100.25f, 100.25}}) {
        vx::reseed_random(seeds.first);
        const std::vector<float> first = draws(8);
        vx::reseed_random(seeds.second);
        EXPECT_EQ(draws(8), first) << "seeds " << seeds.first << " and " << seeds.second;
    }
    vx::reseed_random(100.25);
    const std::vector<float> one = draws(8);
    vx::reseed_random(100.5);
    EXPECT_NE(draws(8), one) << "different seeds";
    // Each thread has a generator of its own, starting from the same seed.
    std::vector<float> thread_draws[2];
    for (auto& d : thread_draws) std::thread([&d] { d = draws(8); }).join();
    EXPECT_EQ(thread_draws[0], thread_draws[1]);
    vx::reseed_random(100.25);
    EXPECT_EQ(draws(8), one) << "other threads leave this thread's sequence alone";
}

}  // namespace
