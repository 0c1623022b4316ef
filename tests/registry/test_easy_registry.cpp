// clsEasyRegistry on the prefix's real registry: navigation, key and value
// operations, renderings, buffer limits and statuses. Each test works in a
// scratch key of its own under HKEY_CURRENT_USER.
#include "support/component.h"
#include "vxTypes32_types.h"

#include <algorithm>
#include <cwctype>
#include <map>
#include <memory>
#include <optional>

namespace vx::test {
namespace {

constexpr long failure = -2147221248;  // a registry call failed
using bytes = std::vector<unsigned char>;

std::string narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }
std::wstring widen(const std::string& text) { return std::wstring(text.begin(), text.end()); }
std::wstring upper(std::wstring text) {
    for (wchar_t& c : text) c = static_cast<wchar_t>(towupper(c));
    return text;
}

class scratch_key {
public:
    // Named after the test, so that tests running side by side never share one.
    scratch_key()
        : relative_(L"Software\\vxTypes32 tests\\" +
                    widen(testing::UnitTest::GetInstance()->current_test_info()->name())) {
        RegDeleteTreeW(HKEY_CURRENT_USER, relative_.c_str());
        EXPECT_EQ(0, RegCreateKeyExW(HKEY_CURRENT_USER, relative_.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                     key_.put(), nullptr));
    }
    ~scratch_key() {
        key_.reset();
        RegDeleteTreeW(HKEY_CURRENT_USER, relative_.c_str());
        RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\vxTypes32 tests");  // once no test uses it
    }
    // Removes every subkey and value.
    void clear() const { RegDeleteTreeW(key_.get(), nullptr); }
    HKEY key() const { return key_.get(); }
    // As CurrentKey names it.
    std::wstring path(const std::wstring& below = L"") const {
        return upper(L"\\HKEY_CURRENT_USER\\" + relative_ + (below.empty() ? L"" : L"\\" + below));
    }
    // "~" in a table stands for the scratch key's path.
    std::wstring expand(const std::wstring& text) const {
        const size_t at = text.find(L'~');
        return at == std::wstring::npos ? text : text.substr(0, at) + path() + text.substr(at + 1);
    }
    void add_key(const std::wstring& below) const {
        unique_hkey key;
        EXPECT_EQ(0, RegCreateKeyExW(key_.get(), below.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.put(),
                                     nullptr));
    }
    bool has_key(const std::wstring& below) const {
        unique_hkey key;
        return RegOpenKeyExW(key_.get(), below.c_str(), 0, KEY_READ, key.put()) == ERROR_SUCCESS;
    }
    void set_value(const std::string& name, DWORD type, const bytes& data) const {
        ASSERT_EQ(0, RegSetValueExA(key_.get(), name.c_str(), 0, type, data.data(), static_cast<DWORD>(data.size())));
    }
    // The type and the bytes as the ANSI functions give them back.
    std::optional<std::pair<DWORD, bytes>> value(const std::string& name) const {
        bytes data(4096);
        DWORD type = 0, length = static_cast<DWORD>(data.size());
        if (RegQueryValueExA(key_.get(), name.c_str(), nullptr, &type, data.data(), &length) != 0) return std::nullopt;
        data.resize(length);
        return std::make_pair(type, data);
    }

private:
    std::wstring relative_;
    unique_hkey key_;
};

// Every member succeeds at the boundary and leaves no error info behind.
void expect_clean(HRESULT hr, const std::string& call) {
    EXPECT_EQ(S_OK, hr) << call;
    com_ptr<IErrorInfo> info;
    EXPECT_EQ(S_FALSE, GetErrorInfo(0, info.put())) << call << " left error info";
}

struct read_result {
    long status;
    long type;
    std::shared_ptr<unique_variant> value = std::make_shared<unique_variant>();
};

class registry {
public:
    std::wstring current_key() {
        unique_bstr key;
        expect_clean(object_->get_CurrentKey(key.put()), "CurrentKey");
        return text_of(key.get());
    }
    long cd(const std::wstring& path) { return call("CD " + narrow(path), &_clsEasyRegistry::CD, path); }
    long make_key(const std::wstring& name) { return call("MakeKey", &_clsEasyRegistry::MakeKey, name); }
    long delete_key(const std::wstring& name) { return call("DeleteKey", &_clsEasyRegistry::DeleteKey, name); }
    long delete_value(const std::wstring& name) { return call("DeleteValue", &_clsEasyRegistry::DeleteValue, name); }
    long dir_key(unique_variant& list) { return call("DirKey", &_clsEasyRegistry::DirKey, list.get()); }
    long dir_value(unique_variant& list) { return call("DirValue", &_clsEasyRegistry::DirValue, list.get()); }
    // Takes the value over and clears it; the kind is only read.
    long write(const std::wstring& name, long kind, VARIANT value) {
        unique_variant owned;
        *owned.get() = value;
        enmDataType type = static_cast<enmDataType>(kind);
        LONG status = 12345;
        expect_clean(object_->put_ValueOf(bstr_from(name).get(), &type, &status, value), "ValueOf let");
        return type == kind ? status : 12345;
    }
    read_result read(const std::wstring& name) {
        enmDataType type = static_cast<enmDataType>(-7);  // untouched unless the kind is found
        LONG status = 12345;
        read_result result{0, 0};
        expect_clean(object_->get_ValueOf(bstr_from(name).get(), &type, &status, result.value->get()), "ValueOf get");
        return result.status = status, result.type = type, result;
    }

private:
    template <class Argument>
    long call(const std::string& what, HRESULT (STDMETHODCALLTYPE _clsEasyRegistry::*member)(Argument, LONG*),
              const Argument& argument) {
        LONG status = 12345;
        expect_clean((object_.get()->*member)(argument, &status), what);
        return status;
    }
    long call(const std::string& what, HRESULT (STDMETHODCALLTYPE _clsEasyRegistry::*member)(BSTR, LONG*),
              const std::wstring& argument) {
        return call(what, member, bstr_from(argument).get());
    }
    com_ptr<_clsEasyRegistry> object_ = create<_clsEasyRegistry>(CLSID_clsEasyRegistry, IID__clsEasyRegistry);
};

// The upper bound of a one-dimensional array of type from 0; -2 otherwise.
LONG upper_bound(const VARIANT& array, VARTYPE type) {
    LONG lower = 1, upper = -2;
    if (V_VT(&array) != (VT_ARRAY | type) || SafeArrayGetDim(V_ARRAY(&array)) != 1) return -2;
    SafeArrayGetLBound(V_ARRAY(&array), 1, &lower);
    SafeArrayGetUBound(V_ARRAY(&array), 1, &upper);
    return lower == 0 ? upper : -2;
}

std::vector<std::wstring> strings_of(const VARIANT& list) {
    std::vector<std::wstring> texts;
    const LONG upper = upper_bound(list, VT_BSTR);
    if (upper == -2) return {L"<not a string array from 0>"};
    for (LONG i = 0; i <= upper; ++i) {
        BSTR text = nullptr;
        SafeArrayGetElement(V_ARRAY(&list), &i, &text);
        texts.push_back(text_of(text));
        SysFreeString(text);
    }
    return texts;
}

std::optional<bytes> bytes_of(const VARIANT& value) {
    const LONG upper = upper_bound(value, VT_UI1);
    if (upper == -2) return std::nullopt;
    const auto* data = static_cast<const unsigned char*>(V_ARRAY(&value)->pvData);
    return bytes(data, data + (upper + 1));
}

// The rows of a listing, (0 To 2, 0 To n - 1), by name: {rendering, kind}.
std::map<std::wstring, std::pair<std::wstring, std::wstring>> rows_of(const VARIANT& list, std::string& problem) {
    std::map<std::wstring, std::pair<std::wstring, std::wstring>> rows;
    SAFEARRAY* array = V_ARRAY(&list);
    LONG lower[2] = {1, 1}, upper[2] = {};
    for (UINT d = 0; V_VT(&list) == (VT_ARRAY | VT_BSTR) && SafeArrayGetDim(array) == 2 && d < 2; ++d)
        SafeArrayGetLBound(array, d + 1, &lower[d]), SafeArrayGetUBound(array, d + 1, &upper[d]);
    if (lower[0] != 0 || upper[0] != 2 || lower[1] != 0) return problem = "not (0 To 2, 0 To n - 1) strings", rows;
    const BSTR* cells = static_cast<const BSTR*>(array->pvData);
    for (LONG row = 0; row <= upper[1]; ++row, cells += 3)
        rows[text_of(cells[erValueName])] = {text_of(cells[erValue]), text_of(cells[erValueType])};
    return rows;
}

// clang-format off
VARIANT text_value(const wchar_t* text) { VARIANT v; V_VT(&v) = VT_BSTR; V_BSTR(&v) = SysAllocString(text); return v; }
VARIANT double_value(double number) { VARIANT v; V_VT(&v) = VT_R8; V_R8(&v) = number; return v; }
VARIANT long_value(LONG number) { VARIANT v; V_VT(&v) = VT_I4; V_I4(&v) = number; return v; }
VARIANT byte_array(const bytes& data, LONG lower = 0, ULONG second_dimension = 0) {
    SAFEARRAYBOUND bounds[2] = {{static_cast<ULONG>(data.size()), lower}, {second_dimension, 0}};
    SAFEARRAY* array = SafeArrayCreate(VT_UI1, second_dimension ? 2 : 1, bounds);
    std::copy(data.begin(), data.end(), static_cast<unsigned char*>(array->pvData));
    VARIANT v;
    V_VT(&v) = VT_ARRAY | VT_UI1;
    V_ARRAY(&v) = array;
    return v;
}

// clang-format on
VARIANT variant_array() {
    VARIANT v;
    V_VT(&v) = VT_ARRAY | VT_VARIANT;
    V_ARRAY(&v) = SafeArrayCreateVector(VT_VARIANT, 0, 3);
    return v;
}

TEST(EasyRegistryNavigation, PathsResolveAsStated) {
    struct step { std::wstring path; long status; std::wstring current_key; };  // "~" is the scratch key
    struct navigation { const char* name; std::vector<step> steps; };
    const navigation cases[] = {
        {"trimmed and upper-cased", {{L"  hkey_current_user\\software\\ ", 0, L"\\HKEY_CURRENT_USER\\SOFTWARE"}}},
        {"'..' without a current key", {{L"..", 1, L""}}},
        {"'..' from a root", {{L"\\HKEY_CURRENT_USER", 0, L"\\HKEY_CURRENT_USER"}, {L"..", 0, L""}}},
        {"'..' from a subkey", {{L"~\\a\\b", 0, L"~\\A\\B"}, {L"..", 0, L"~\\A"}}},
        {"'..' inside a path names a key", {{L"~", 0, L"~"}, {L"A\\..", failure, L"~\\A\\.."}}},
        {"a relative path of two levels", {{L"~", 0, L"~"}, {L"a\\B", 0, L"~\\A\\B"}}},
        {"one trailing backslash is dropped", {{L"~\\a\\", 0, L"~\\A"}}},
        {"'\\' closes the key", {{L"~", 0, L"~"}, {L"\\", 0, L""}}},
        {"an unknown root loses the current key", {{L"~", 0, L"~"}, {L"\\HKLM\\SOFTWARE", 2, L""}}},
        {"HKEY_PERFORMANCE_DATA is not a root", {{L"\\HKEY_PERFORMANCE_DATA", 2, L""}}},
        {"an empty path without a current key", {{L"", 2, L""}}},
        {"an empty path reopens the key",
         {{L"\\HKEY_USERS", 0, L"\\HKEY_USERS"}, {L"", 0, L"\\HKEY_USERS\\"}, {L"..", 0, L"\\HKEY_USERS"}}},
        {"a double backslash has an empty root", {{L"~", 0, L"~"}, {L"\\\\", 2, L""}}},
        {"a missing key is still reported", {{L"~\\missing", failure, L"~\\MISSING"}}},
        {"every root opens", {{L"\\HKEY_CLASSES_ROOT", 0, L"\\HKEY_CLASSES_ROOT"},
                              {L"\\HKEY_LOCAL_MACHINE", 0, L"\\HKEY_LOCAL_MACHINE"},
                              {L"\\HKEY_CURRENT_CONFIG", 0, L"\\HKEY_CURRENT_CONFIG"}}},
    };
    scratch_key scratch;
    scratch.add_key(L"A\\B");
    for (const navigation& c : cases) {
        registry reg;
        EXPECT_EQ(L"", reg.current_key()) << c.name << ": a new instance";
        for (const step& s : c.steps) {
            EXPECT_EQ(s.status, reg.cd(scratch.expand(s.path))) << c.name << ": CD " << narrow(s.path);
            EXPECT_EQ(scratch.expand(s.current_key), reg.current_key()) << c.name << ": after CD " << narrow(s.path);
        }
    }
}

TEST(EasyRegistryNavigation, DirKeyListsRootsThenSubkeysInThePlatformsOrder) {
    scratch_key scratch;
    registry reg;
    unique_variant list;
    EXPECT_EQ(0, reg.dir_key(list));
    const std::vector<std::wstring> roots = {L"HKEY_CLASSES_ROOT", L"HKEY_CURRENT_USER", L"HKEY_LOCAL_MACHINE",
                                             L"HKEY_USERS",        L"HKEY_DYN_DATA",     L"HKEY_CURRENT_CONFIG"};
    EXPECT_EQ(roots, strings_of(*list.get())) << "the six roots, in table order";

    for (const wchar_t* name : {L"Gamma", L"alpha", L"Beta Key"}) scratch.add_key(name);
    std::vector<std::wstring> platform_order;
    wchar_t name[256];
    for (DWORD i = 0, length = 256; RegEnumKeyExW(scratch.key(), i, name, &length, nullptr, nullptr, nullptr,
                                                  nullptr) == ERROR_SUCCESS;
         ++i, length = 256)
        platform_order.push_back(name);
    ASSERT_EQ(0, reg.cd(scratch.path()));
    EXPECT_EQ(0, reg.dir_key(list));
    EXPECT_EQ(platform_order, strings_of(*list.get())) << "names as stored, unsorted";
    EXPECT_EQ(3u, platform_order.size());
    EXPECT_EQ(0, reg.make_key(L"made")) << "the key is open with full access again";

    EXPECT_EQ(0, reg.cd(L"alpha"));
    EXPECT_EQ(0, reg.dir_key(list)) << "a key without subkeys";
    EXPECT_EQ(VT_NULL, V_VT(list.get()));

    EXPECT_EQ(failure, reg.cd(L"missing"));
    V_VT(list.put()) = VT_I4;
    V_I4(list.get()) = 42;
    EXPECT_EQ(failure, reg.dir_key(list)) << "the named key does not open";
    EXPECT_EQ(VT_I4, V_VT(list.get())) << "DirList is left alone";
}

TEST(EasyRegistryKeys, MakeKeyAndDeleteKeyActBelowTheCurrentKeyAndNeedOne) {
    registry reg;
    unique_variant list;
    V_VT(list.get()) = VT_I4;
    const read_result read = reg.read(L"v");
    const struct { const char* name; long status, expected; } without_key[] = {
        {"MakeKey", reg.make_key(L"nowhere"), failure},
        {"DeleteKey", reg.delete_key(L"nowhere"), failure},
        {"DeleteValue", reg.delete_value(L"nowhere"), failure},
        {"ValueOf let", reg.write(L"v", erSTRING, text_value(L"abc")), failure},
        {"ValueOf let checks the kind first", reg.write(L"v", 3, text_value(L"abc")), 4},
        {"ValueOf get", read.status, failure},
        {"DirValue", reg.dir_value(list), 94},
    };
    for (const auto& c : without_key) EXPECT_EQ(c.expected, c.status) << c.name << " without a current key";
    EXPECT_EQ(VT_EMPTY, V_VT(read.value->get())) << "ValueOf get gives Empty";
    EXPECT_EQ(VT_I4, V_VT(list.get())) << "DirValue leaves ValueList alone";

    scratch_key scratch;
    ASSERT_EQ(0, reg.cd(scratch.path()));
    EXPECT_EQ(0, reg.make_key(L"Made")) << "first MakeKey";
    EXPECT_EQ(0, reg.make_key(L"Made")) << "MakeKey of a key that exists";
    EXPECT_EQ(0, reg.make_key(L"two\\levels")) << "a path of two levels in one piece";
    EXPECT_TRUE(scratch.has_key(L"Made") && scratch.has_key(L"two\\levels"));
    EXPECT_EQ(scratch.path(), reg.current_key()) << "the current key does not move";
    EXPECT_EQ(0, reg.delete_key(L"made"));
    EXPECT_FALSE(scratch.has_key(L"Made"));
    EXPECT_EQ(failure, reg.delete_key(L"made")) << "DeleteKey of a missing key";
    EXPECT_EQ(failure, reg.delete_value(L"missing")) << "DeleteValue of a missing value";
    scratch.set_value("gone", REG_SZ, {'x', 0});
    EXPECT_EQ(0, reg.delete_value(L"gone"));
    EXPECT_FALSE(scratch.value("gone"));
    EXPECT_EQ(0, reg.cd(L"two")) << "after failures the object works normally";
}

TEST(EasyRegistryValues, WritesStoreWhatTheKindAccepts) {
    // The type and data stored when the status is 0.
    struct write_case { const char* name; long kind; VARIANT value; long status; DWORD type; bytes data; };
    const write_case cases[] = {
        {"text", erSTRING, text_value(L"abc"), 0, REG_SZ, {'a', 'b', 'c', 0}},
        {"empty text", erSTRING, text_value(L""), 0, REG_SZ, {0}},
        {"a whole Double", erDWord, double_value(305419896), 0, REG_DWORD, {0x78, 0x56, 0x34, 0x12}},
        {"the largest Double", erDWord, double_value(4294967295.0), 0, REG_DWORD, {255, 255, 255, 255}},
        {"bytes", erByte, byte_array({1, 10, 255}), 0, REG_BINARY, {1, 10, 255}},
        {"bytes from lower bound 5", erByte, byte_array({7, 8, 9}, 5), 0, REG_BINARY, {7, 8, 9}},
        {"no bytes", erByte, byte_array({}), 0, REG_BINARY, {}},
        {"a Double over 32 bits", erDWord, double_value(4294967296.0), 3, 0, {}},
        {"a negative Double", erDWord, double_value(-1), 3, 0, {}},
        {"a fraction", erDWord, double_value(2.5), 3, 0, {}},
        {"the Long 5", erDWord, long_value(5), 3, 0, {}},
        {"numeric text for a number", erDWord, text_value(L"12"), 3, 0, {}},
        {"a number for text", erSTRING, double_value(2), 3, 0, {}},
        {"two-dimensional bytes", erByte, byte_array({1, 2}, 0, 2), 3, 0, {}},
        {"an array of variants", erByte, variant_array(), 3, 0, {}},
        {"text for bytes", erByte, text_value(L"abc"), 3, 0, {}},
        {"kind 3", 3, text_value(L"abc"), 4, 0, {}},
    };
    scratch_key scratch;
    registry reg;
    ASSERT_EQ(0, reg.cd(scratch.path()));
    for (const write_case& c : cases) {
        scratch.clear();
        EXPECT_EQ(c.status, reg.write(L"value", c.kind, c.value)) << c.name;
        if (c.status == 0)
            EXPECT_EQ(std::make_pair(c.type, c.data), scratch.value("value")) << c.name;
        else
            EXPECT_FALSE(scratch.value("value")) << c.name << ": nothing is written";
    }
    EXPECT_EQ(0, reg.write(L"", erSTRING, text_value(L"default")));
    EXPECT_EQ(std::make_pair(DWORD(REG_SZ), bytes{'d', 'e', 'f', 'a', 'u', 'l', 't', 0}), scratch.value(""))
        << "an empty name is the default value";
}

bytes repeated(size_t count, unsigned char b) { return bytes(count, b); }
bytes long_text(size_t count) { bytes text(count, 'x'); text.push_back(0); return text; }

std::wstring spaced_hex(size_t count, const wchar_t* digits) {
    std::wstring text;
    for (size_t i = 0; i < count; ++i) text += (i ? L" " : L"") + std::wstring(digits);
    return text;
}

TEST(EasyRegistryValues, ReadsGiveTheThreeElements) {
    // kind -7: left alone; no text: the result is Empty.
    struct read_case {
        const char* name; DWORD type; bytes data; long status, kind;
        std::optional<std::wstring> text; bytes element_bytes; double number;
    };
    const read_case cases[] = {
        {"text", REG_SZ, {'a', 'b', 'c', 0}, 0, erSTRING, L"abc", {97, 98, 99}, 0},
        {"a number", REG_DWORD, {0x78, 0x56, 0x34, 0x12}, 0, erDWord, L"12345678", {0x78, 0x56, 0x34, 0x12},
         305419896},
        {"the largest number", REG_DWORD, {255, 255, 255, 255}, 0, erDWord, L"FFFFFFFF", {255, 255, 255, 255},
         4294967295.0},
        {"eight bytes of number", REG_DWORD, {0, 0, 0, 0, 0, 0, 0, 1}, 0, erDWord, L"0100000000000000",
         {0, 0, 0, 0, 0, 0, 0, 1}, 72057594037927936.0},
        {"bytes", REG_BINARY, {1, 10, 255}, 0, erByte, L"1 A FF", {1, 10, 255}, 0},
        {"empty text", REG_SZ, {0}, 0, erSTRING, L"", {0}, 0},
        {"no data", REG_BINARY, {}, 0, erByte, L"", {}, 0},
        {"text without a final zero", REG_NONE, {'A', 'B'}, 0, erSTRING, L"AB", {'A', 'B'}, 0},
        {"1,024 bytes", REG_BINARY, repeated(1024, 0x11), 0, erByte, spaced_hex(1024, L"11"), repeated(1024, 0x11), 0},
        {"1,025 bytes", REG_BINARY, repeated(1025, 0x11), failure, -7, std::nullopt, {}, 0},
        {"1,201 bytes of text", REG_SZ, long_text(1200), failure, -7, std::nullopt, {}, 0},
        {"a number of odd length reaches before the data", REG_DWORD, {1, 2, 3}, 9, erDWord, std::nullopt, {}, 0},
    };
    scratch_key scratch;
    registry reg;
    ASSERT_EQ(0, reg.cd(scratch.path()));
    for (const read_case& c : cases) {
        scratch.clear();
        scratch.set_value("value", c.type, c.data);
        read_result read = reg.read(L"value");
        EXPECT_EQ(c.status, read.status) << c.name;
        EXPECT_EQ(c.kind, read.type) << c.name;
        if (!c.text) {
            EXPECT_EQ(VT_EMPTY, V_VT(read.value->get())) << c.name;
            continue;
        }
        ASSERT_EQ(2, upper_bound(*read.value->get(), VT_VARIANT)) << c.name << ": three elements from 0";
        const VARIANT* element = static_cast<const VARIANT*>(V_ARRAY(read.value->get())->pvData);
        ASSERT_TRUE(V_VT(&element[erStringFormat]) == VT_BSTR && V_VT(&element[erDWordFormat]) == VT_R8) << c.name;
        EXPECT_EQ(*c.text, text_of(V_BSTR(&element[erStringFormat]))) << c.name;
        EXPECT_EQ(c.element_bytes, bytes_of(element[erByteFormat])) << c.name;
        EXPECT_EQ(c.number, V_R8(&element[erDWordFormat])) << c.name;
    }
    read_result missing = reg.read(L"no such value");
    EXPECT_TRUE(missing.status == failure && missing.type == -7 && V_VT(missing.value->get()) == VT_EMPTY);
}

TEST(EasyRegistryValues, ListingsRenderEveryValue) {
    wchar_t separator[8] = L",";
    GetLocaleInfoW(LOCALE_USER_DEFAULT, LOCALE_STHOUSAND, separator, 8);
    auto grouped = [&](std::wstring text) {  // "0,305,419,896" in the user's locale
        for (size_t at = text.find(L','); at != std::wstring::npos; at = text.find(L',', at + 1))
            text.replace(at, 1, separator), at += wcslen(separator) - 1;
        return text;
    };
    // A row with a status is listed alone and fails, leaving ValueList alone.
    struct listed_case { std::string name; DWORD type; bytes data; std::wstring rendering, kind; long status = 0; };
    const listed_case cases[] = {
        {"text", REG_SZ, {'a', 'b', 'c', 0}, L"abc", L"0"},
        {"number", REG_DWORD, {0x78, 0x56, 0x34, 0x12}, L"12345678 (" + grouped(L"0,305,419,896") + L")", L"2"},
        {"largest", REG_DWORD, {255, 255, 255, 255}, L"FFFFFFFF (" + grouped(L"4,294,967,295") + L")", L"2"},
        {"zero", REG_DWORD, {0, 0, 0, 0}, L"00000000 (" + grouped(L"0,000,000,000") + L")", L"2"},
        {"bytes", REG_BINARY, {1, 10, 255}, L"1 A FF", L"1"},
        {"empty text", REG_SZ, {0}, L"", L"0"},
        {"no data", REG_BINARY, {}, L"", L""},
        {"unterminated", REG_NONE, {'A', 'B'}, L"A", L"0"},
        {"", REG_SZ, {'d', 0}, L"d", L"0"},
        {"1,024 bytes", REG_BINARY, repeated(1024, 0xA0), spaced_hex(1024, L"A0"), L"1"},
        {std::string(1000, 'n'), REG_BINARY, {1}, L"1", L"1"},
        {"1,025 bytes of data", REG_BINARY, repeated(1025, 1), L"", L"", failure},
        {"1,201 bytes of text", REG_SZ, long_text(1200), L"", L"", failure},
        {std::string(1025, 'n'), REG_BINARY, {1}, L"", L"", failure},
    };
    const size_t listed = std::count_if(std::begin(cases), std::end(cases), [](auto& c) { return !c.status; });
    scratch_key scratch;
    scratch.add_key(L"no values");
    for (const listed_case& c : cases)
        if (!c.status) scratch.set_value(c.name, c.type, c.data);
    registry reg;
    unique_variant list;
    ASSERT_EQ(0, reg.cd(scratch.path()));
    EXPECT_EQ(0, reg.dir_value(list));
    std::string problem;
    const auto rows = rows_of(*list.get(), problem);
    EXPECT_EQ("", problem);
    EXPECT_EQ(listed, rows.size());
    for (const listed_case& c : cases) {
        if (c.status) continue;
        const auto row = rows.find(widen(c.name.c_str()));
        ASSERT_NE(rows.end(), row) << "'" << c.name.substr(0, 20) << "' is listed";
        EXPECT_EQ(c.rendering, row->second.first) << c.name;
        EXPECT_EQ(c.kind, row->second.second) << c.name;
    }

    EXPECT_EQ(0, reg.cd(L"no values"));
    EXPECT_EQ(0, reg.dir_value(list)) << "a key without values";
    EXPECT_EQ(VT_NULL, V_VT(list.get())) << "a key without values";

    ASSERT_EQ(0, reg.cd(L".."));
    for (const listed_case& c : cases) {
        if (!c.status) continue;
        scratch.clear();
        scratch.set_value(c.name, c.type, c.data);
        V_VT(list.put()) = VT_I4;
        EXPECT_EQ(c.status, reg.dir_value(list)) << c.name.substr(0, 20);
        EXPECT_EQ(VT_I4, V_VT(list.get())) << c.name.substr(0, 20) << ": ValueList keeps what it held";
    }
}

}  // namespace
}  // namespace vx::test
