// Runtime services: text of numbers, type names, string operations and the
// ANSI code page.
#include "frame/runtime.h"

#include "frame/automation_error.h"

#include <climits>
#include <cmath>
#include <cstring>
#include <vector>

namespace vx {

namespace {

constexpr long error_invalid_procedure_call = 5;

std::wstring from_bstr(const unique_bstr& text) { return std::wstring(text.get(), text.length()); }

std::wstring non_finite_text(double value) {
    if (std::isinf(value)) return value > 0 ? L"1.#INF" : L"-1.#INF";
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    if (bits == 0xFFF8000000000000ull) return L"-1.#IND";
    return std::signbit(value) ? L"-1.#QNAN" : L"1.#QNAN";
}

const wchar_t* scalar_type_name(VARTYPE type) {
    switch (type) {
    case VT_EMPTY: return L"Empty";
    case VT_NULL: return L"Null";
    case VT_I2: return L"Integer";
    case VT_I4: return L"Long";
    case VT_R4: return L"Single";
    case VT_R8: return L"Double";
    case VT_CY: return L"Currency";
    case VT_DATE: return L"Date";
    case VT_BSTR: return L"String";
    case VT_DISPATCH: return L"Object";
    case VT_ERROR: return L"Error";
    case VT_BOOL: return L"Boolean";
    case VT_VARIANT: return L"Variant";
    case VT_DECIMAL: return L"Decimal";
    case VT_UI1: return L"Byte";
    default: return L"Unknown";
    }
}

int checked_int(std::size_t size, const wchar_t* source) {
    if (size > static_cast<std::size_t>(INT_MAX)) raise_error(error_invalid_procedure_call, source);
    return static_cast<int>(size);
}

}  // namespace

std::wstring double_to_text(double value) { return double_to_text(value, LOCALE_USER_DEFAULT); }

std::wstring double_to_text(double value, LCID locale) {
    if (!std::isfinite(value)) return non_finite_text(value);
    // -0 reads as 0, whatever the oleaut32 build would make of it.
    if (value == 0) value = 0.0;
    unique_bstr text;
    const HRESULT hr = VarBstrFromR8(value, locale, 0, text.put());
    if (FAILED(hr)) raise_hresult(hr);
    return from_bstr(text);
}

std::wstring hex(std::uint32_t value) {
    static constexpr wchar_t digits[] = L"0123456789ABCDEF";
    std::wstring reversed;
    do {
        reversed += digits[value & 0xF];
        value >>= 4;
    } while (value != 0);
    return std::wstring(reversed.rbegin(), reversed.rend());
}

std::wstring format_number(double value, const std::wstring& pattern) {
    return format_number(value, pattern, LOCALE_USER_DEFAULT);
}

std::wstring format_number(double value, const std::wstring& pattern, LCID locale) {
    // Tokenised with the locale given, so that "," stands for that locale's
    // thousands separator; VarFormat alone always takes the user's.
    std::vector<BYTE> tokens(1024);
    LPOLESTR format = const_cast<LPOLESTR>(pattern.c_str());
    HRESULT hr = VarTokenizeFormatString(format, tokens.data(), static_cast<int>(tokens.size()), 1, 1, locale,
                                         nullptr);
    if (FAILED(hr)) raise_hresult(hr);
    VARIANT number;
    VariantInit(&number);
    V_VT(&number) = VT_R8;
    V_R8(&number) = value;
    unique_bstr text;
    hr = VarFormatFromTokens(&number, format, tokens.data(), 0, text.put(), locale);
    if (FAILED(hr)) raise_hresult(hr);
    return from_bstr(text);
}

std::wstring type_name(const VARIANT& value) {
    const VARIANT* current = &value;
    while (V_VT(current) == (VT_BYREF | VT_VARIANT)) {
        current = V_VARIANTREF(current);
        if (!current) return L"Unknown";
    }
    const VARTYPE type = V_VT(current);
    const bool by_reference = (type & VT_BYREF) != 0;
    const VARTYPE plain = type & ~VT_BYREF;
    if (plain & VT_ARRAY) return std::wstring(scalar_type_name(plain & VT_TYPEMASK)) + L"()";
    if (plain == VT_DISPATCH || plain == VT_UNKNOWN) {
        IUnknown* object = nullptr;
        if (by_reference)
            object = V_UNKNOWNREF(current) ? *V_UNKNOWNREF(current) : nullptr;
        else
            object = V_UNKNOWN(current);
        if (!object) return L"Nothing";
        return plain == VT_DISPATCH ? L"Object" : L"Unknown";
    }
    if (plain == VT_VARIANT) return L"Unknown";  // a bare Variant exists only as an array element
    return scalar_type_name(plain);
}

std::wstring trim(const std::wstring& text) {
    const std::size_t first = text.find_first_not_of(L' ');
    if (first == std::wstring::npos) return {};
    const std::size_t last = text.find_last_not_of(L' ');
    return text.substr(first, last - first + 1);
}

std::wstring upper_case(const std::wstring& text) {
    if (text.empty()) return {};
    const int size = checked_int(text.size(), runtime_error_source);
    const int needed = LCMapStringW(LOCALE_USER_DEFAULT, LCMAP_UPPERCASE, text.data(), size, nullptr, 0);
    if (needed <= 0) raise_hresult(HRESULT_FROM_WIN32(GetLastError()));
    std::wstring upper(static_cast<std::size_t>(needed), L'\0');
    if (LCMapStringW(LOCALE_USER_DEFAULT, LCMAP_UPPERCASE, text.data(), size, &upper[0], needed) != needed)
        raise_hresult(HRESULT_FROM_WIN32(GetLastError()));
    return upper;
}

long instr(const std::wstring& text, const std::wstring& sought, long start, const wchar_t* source) {
    if (start < 1) raise_error(error_invalid_procedure_call, source);
    const std::size_t from = static_cast<std::size_t>(start) - 1;
    if (from > text.size()) return 0;
    const std::size_t found = text.find(sought, from);
    return found == std::wstring::npos ? 0 : static_cast<long>(found) + 1;
}

std::wstring left(const std::wstring& text, long length, const wchar_t* source) {
    if (length < 0) raise_error(error_invalid_procedure_call, source);
    return text.substr(0, static_cast<std::size_t>(length));
}

std::wstring mid(const std::wstring& text, long start, const wchar_t* source) {
    if (start < 1) raise_error(error_invalid_procedure_call, source);
    const std::size_t from = static_cast<std::size_t>(start) - 1;
    return from >= text.size() ? std::wstring() : text.substr(from);
}

std::wstring mid(const std::wstring& text, long start, long length, const wchar_t* source) {
    if (length < 0) raise_error(error_invalid_procedure_call, source);
    return left(mid(text, start, source), length, source);
}

std::wstring string_of(long count, wchar_t character, const wchar_t* source) {
    if (count < 0) raise_error(error_invalid_procedure_call, source);
    return std::wstring(static_cast<std::size_t>(count), character);
}

std::string to_ansi(const std::wstring& text) {
    if (text.empty()) return {};
    const int size = checked_int(text.size(), runtime_error_source);
    const int needed = WideCharToMultiByte(CP_ACP, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
    if (needed <= 0) raise_hresult(HRESULT_FROM_WIN32(GetLastError()));
    std::string ansi(static_cast<std::size_t>(needed), '\0');
    if (WideCharToMultiByte(CP_ACP, 0, text.data(), size, &ansi[0], needed, nullptr, nullptr) != needed)
        raise_hresult(HRESULT_FROM_WIN32(GetLastError()));
    return ansi;
}

std::wstring from_ansi(const char* data, std::size_t size) {
    if (size == 0) return {};
    const int length = checked_int(size, runtime_error_source);
    const int needed = MultiByteToWideChar(CP_ACP, 0, data, length, nullptr, 0);
    if (needed <= 0) raise_hresult(HRESULT_FROM_WIN32(GetLastError()));
    std::wstring text(static_cast<std::size_t>(needed), L'\0');
    if (MultiByteToWideChar(CP_ACP, 0, data, length, &text[0], needed) != needed)
        raise_hresult(HRESULT_FROM_WIN32(GetLastError()));
    return text;
}

std::wstring from_ansi(const std::string& text) { return from_ansi(text.data(), text.size()); }

}  // namespace vx
