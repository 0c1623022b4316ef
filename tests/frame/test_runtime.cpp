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

TEST(RuntimeNumbers, PowerRoundsEverySquareToDouble) {
    // Squares below the normal range are counted in units of 2^-1074.
    const double unit = std::ldexp(1.0, -1074);
    struct row { const char* name; double base, exponent, expected; };
    const row rows[] = {
        {"(-3)^2", -3, 2, 9}, {"overflow", 1e200, 2, infinity},
        {"0.25 units", std::ldexp(1.0, -538), 2, 0}, {"0.5625 units", std::ldexp(3.0, -539), 2, unit},
        {"1.5625 units", std::ldexp(1.25, -537), 2, 2 * unit}, {"3.0625 units", std::ldexp(1.75, -537), 2, 3 * unit},
    };
    for (const row& r : rows) EXPECT_EQ(vx::power(r.base, r.exponent), r.expected) << r.name;
    // Rounded before the sum: 2 + 2 units, where the exact 1.5625 + 1.5625
    // would round to 3.
    const double x = std::ldexp(1.25, -537);
    EXPECT_EQ(vx::power(x, 2.0) + vx::power(x, 2.0), 4 * unit);
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

TEST(RuntimeLateBound, ReadDefaultPropertyGivesTheValueOrRaisesWhatTheObjectReported) {
    const wchar_t caller[] = L"cDIBSection.CreateFromPicture";
    struct row { const char* name; HRESULT returned; WORD code; SCODE scode; const wchar_t* source;
                 const wchar_t* description; long number; const wchar_t* expected_source; const wchar_t* expected_description; };
    const row rows[] = {
        {"success", S_OK, 0, 0, nullptr, nullptr, 0, L"", L""},
        {"wCode", DISP_E_EXCEPTION, 1001, 0, L"Pic", L"Bad picture", 1001, L"Pic", L"Bad picture"},
        {"runtime scode", DISP_E_EXCEPTION, 0, static_cast<SCODE>(0x800A0005), L"Pic", L"", 5, L"Pic",
         L"Invalid procedure call or argument"},
        {"other scode", DISP_E_EXCEPTION, 0, E_ACCESSDENIED, nullptr, L"Denied", E_ACCESSDENIED, caller, L"Denied"},
        {"deferred", DISP_E_EXCEPTION, 0, 0, L"Pic", nullptr, 1004, L"Pic", L"Filled in later"},
        {"type mismatch", DISP_E_TYPEMISMATCH, 0, 0, nullptr, nullptr, 13, caller, L"Type mismatch"},
    };
    for (const row& r : rows) {
        stub_dispatch object;
        object.invoke = [&](VARIANT* result, EXCEPINFO* exception) {
            V_VT(result) = VT_I4;  // failing objects may leave something here too
            V_I4(result) = 0x1234;
            exception->wCode = r.code;
            exception->scode = r.scode;
            exception->bstrSource = r.source ? SysAllocString(r.source) : nullptr;
            exception->bstrDescription = r.description ? SysAllocString(r.description) : nullptr;
            if (r.number == 1004) exception->pfnDeferredFillIn = fill_in_later;
            return r.returned;
        };
        vx::unique_variant value;
        V_VT(value.get()) = VT_BSTR;
        V_BSTR(value.get()) = SysAllocString(L"old");
        const vx::automation_error error = raised_by([&] { vx::read_default_property(&object, value, caller); });
        EXPECT_EQ(error.number, r.number) << r.name;
        EXPECT_EQ(error.source, r.expected_source) << r.name;
        EXPECT_EQ(error.description, r.expected_description) << r.name;
        EXPECT_EQ(V_VT(value.get()), r.number ? VT_EMPTY : VT_I4) << r.name;
        if (!r.number) {
            EXPECT_EQ(V_I4(value.get()), 0x1234) << r.name;
        }
    }
    const vx::automation_error unset = raised_by([&] {
        vx::unique_variant value;
        vx::read_default_property(nullptr, value, caller);
    });
    EXPECT_TRUE(unset.number == 91 && unset.source == caller) << "unset object: " << unset.number;
}

TEST(RuntimeText, TypeNamesFollowTheRuntime) {
    stub_dispatch object;
    IDispatch* no_object = nullptr;
    double number = 1;
    struct row { VARTYPE type; void* pointer; const wchar_t* expected; };
    const row rows[] = {
        {VT_EMPTY, nullptr, L"Empty"}, {VT_NULL, nullptr, L"Null"}, {VT_I2, nullptr, L"Integer"},
        {VT_I4, nullptr, L"Long"}, {VT_R4, nullptr, L"Single"}, {VT_CY, nullptr, L"Currency"},
        {VT_DATE, nullptr, L"Date"}, {VT_BSTR, nullptr, L"String"}, {VT_BOOL, nullptr, L"Boolean"},
        {VT_ERROR, nullptr, L"Error"}, {VT_DECIMAL, nullptr, L"Decimal"}, {VT_UI1, nullptr, L"Byte"},
        {VT_UI4, nullptr, L"Unknown"}, {VT_DISPATCH, &object, L"Object"},
        {VT_DISPATCH, nullptr, L"Nothing"}, {VT_UNKNOWN, &object, L"Unknown"}, {VT_UNKNOWN, nullptr, L"Nothing"},
        {VT_BYREF | VT_DISPATCH, &no_object, L"Nothing"}, {VT_BYREF | VT_R8, &number, L"Double"},
    };
    for (const row& r : rows) {
        VARIANT value{};
        V_VT(&value) = r.type;
        V_BYREF(&value) = r.pointer;
        EXPECT_EQ(vx::type_name(value), r.expected) << "vt " << r.type;
    }
    const std::pair<VARTYPE, const wchar_t*> arrays[] = {
        {VT_UI1, L"Byte()"}, {VT_BSTR, L"String()"}, {VT_VARIANT, L"Variant()"}, {VT_DISPATCH, L"Object()"}};
    for (const auto& r : arrays) {
        vx::unique_variant value;
        V_VT(value.get()) = VT_ARRAY | r.first;
        V_ARRAY(value.get()) = SafeArrayCreateVector(r.first, 0, 3);
        VARIANT by_reference{};
        V_VT(&by_reference) = VT_BYREF | VT_VARIANT;
        V_VARIANTREF(&by_reference) = value.get();
        EXPECT_EQ(vx::type_name(*value.get()), r.second) << "array of vt " << r.first;
        EXPECT_EQ(vx::type_name(by_reference), r.second) << "ByRef Variant holding an array of vt " << r.first;
    }
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

TEST(RuntimeStrings, AnsiConversionUsesTheSystemCodePage) {
    std::string printable("a\0b", 3);  // an embedded NUL survives both ways
    for (char c = 0x20; c < 0x7F; ++c) printable += c;  // the same in every ANSI code page
    const std::wstring wide(printable.begin(), printable.end());
    EXPECT_EQ(vx::from_ansi(printable), wide);
    EXPECT_EQ(vx::to_ansi(wide), printable);
    if (GetACP() != 1252) GTEST_SKIP() << "code page " << GetACP();
    EXPECT_EQ(vx::to_ansi(L"\x00e9\x20ac"), "\xe9\x80");
    EXPECT_EQ(vx::from_ansi("\xe9\x80", 2), L"\x00e9\x20ac");
}

std::vector<std::wstring> shown;

TEST(RuntimeServices, ClockAndMessageBoxCanBeReplaced) {
    {
        const vx::scoped_time_of_day_source replaced([] { return 86399.8f; });
        EXPECT_EQ(vx::time_of_day(), 86399.8f);
    }
    EXPECT_EQ(vx::set_time_of_day_source(nullptr), nullptr) << "the scope restores the system clock";
    const float now = vx::time_of_day();
    EXPECT_TRUE(now >= 0 && now <= 86400) << now;

    shown.clear();
    {
        const vx::scoped_message_box_handler replaced([](const std::wstring& text) { shown.push_back(text); });
        vx::message_box(L"Copy as bitmap instead!!!");
    }
    EXPECT_EQ(shown, std::vector<std::wstring>{L"Copy as bitmap instead!!!"});
    EXPECT_EQ(vx::set_message_box_handler(nullptr), nullptr) << "the scope restores the real box";
}

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
