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

std::wstring widen(const std::string& text) { return std::wstring(text.begin(), text.end()); }

class scratch_key {
public:
    // Named after the test, so that tests running side by side never share one.
    scratch_key()
        : relative_(L"Software\\vxTypes32 tests\\" +
                    widen(testing::UnitTest::GetInstance()->current_test_info()->name())) {
        RegDeleteTreeW(HKEY_CURRENT_USER, relative_.c_str());
        EXPECT_EQ(0, RegCreateKeyW(HKEY_CURRENT_USER, relative_.c_str(), key_.put()));
    }
    ~scratch_key() {
        key_.reset();
        RegDeleteTreeW(HKEY_CURRENT_USER, relative_.c_str());
        RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\vxTypes32 tests");  // once no test uses it
    }
    // Removes every subkey and value.
    void clear() const { RegDeleteTreeW(key_.get(), nullptr); }
    // As CurrentKey names it, upper-cased.
    std::wstring path() const {
        std::wstring text = L"\\HKEY_CURRENT_USER\\" + relative_;
        for (wchar_t& c : text) c = static_cast<wchar_t>(towupper(c));
        return text;
    }
    // "~" in a table stands for the scratch key's path.
    std::wstring expand(const std::wstring& text) const {
        const size_t at = text.find(L'~');
        return at == std::wstring::npos ? text : text.substr(0, at) + path() + text.substr(at + 1);
    }
    void add_key(const std::wstring& below) const {
        unique_hkey key;
        EXPECT_EQ(0, RegCreateKeyW(key_.get(), below.c_str(), key.put()));
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
        return data.resize(length), std::make_pair(type, data);
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
    template <class Member, class Argument>
    long call(const std::string& what, Member member, Argument argument) {
        LONG status = 12345;
        expect_clean((object_.get()->*member)(argument, &status), what);
        return status;
    }
    template <class Member>
    long call(const std::string& what, Member member, const std::wstring& text) {
        return call(what, member, bstr_from(text).get());
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
    const LONG upper = upper_bound(list, VT_BSTR);
    if (upper == -2) return {L"<not a string array from 0>"};
    const BSTR* texts = static_cast<const BSTR*>(V_ARRAY(&list)->pvData);
    std::vector<std::wstring> result;
    for (LONG i = 0; i <= upper; ++i) result.push_back(text_of(texts[i]));
    return result;
}

// The rows of a listing, (0 To 2, 0 To n - 1), by name: {rendering, kind}.
std::map<std::wstring, std::pair<std::wstring, std::wstring>> rows_of(const VARIANT& list) {
    std::map<std::wstring, std::pair<std::wstring, std::wstring>> rows;
    SAFEARRAY* array = V_ARRAY(&list);
    LONG lower[2] = {1, 1}, upper[2] = {};
    for (UINT d = 0; V_VT(&list) == (VT_ARRAY | VT_BSTR) && SafeArrayGetDim(array) == 2 && d < 2; ++d)
        SafeArrayGetLBound(array, d + 1, &lower[d]), SafeArrayGetUBound(array, d + 1, &upper[d]);
    if (lower[0] != 0 || upper[0] != 2 || lower[1] != 0) return {{L"<not (0 To 2, 0 To n - 1) strings>", {}}};
    const BSTR* cells = static_cast<const BSTR*>(array->pvData);
    for (LONG row = 0; row <= upper[1]; ++row, cells += 3)
        rows[text_of(cells[erValueName])] = {text_of(cells[erValue]), text_of(cells[erValueType])};
    return rows;
}

// clang-format off
VARIANT text_value(const wchar_t* text) { VARIANT v; V_VT(&v) = VT_BSTR; V_BSTR(&v) = SysAllocString(text); return v; }
VARIANT double_value(double number) { VARIANT v; V_VT(&v) = VT_R8; V_R8(&v) = number; return v; }
// clang-format on
VARIANT array_value(VARTYPE type, const bytes& data, LONG lower = 0, ULONG second_dimension = 0) {
    SAFEARRAYBOUND bounds[2] = {{static_cast<ULONG>(data.size()), lower}, {second_dimension, 0}};
    VARIANT v;
    V_VT(&v) = VT_ARRAY | type;
    V_ARRAY(&v) = SafeArrayCreate(type, second_dimension ? 2 : 1, bounds);
    if (type == VT_UI1) std::copy(data.begin(), data.end(), static_cast<unsigned char*>(V_ARRAY(&v)->pvData));
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
        {"an empty path without a current key", {{L"", 2, L""}}},
        {"an empty path reopens the key",
         {{L"\\HKEY_USERS", 0, L"\\HKEY_USERS"}, {L"", 0, L"\\HKEY_USERS\\"}, {L"..", 0, L"\\HKEY_USERS"}}},
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
    EXPECT_EQ((std::vector<std::wstring>{L"HKEY_CLASSES_ROOT", L"HKEY_CURRENT_USER", L"HKEY_LOCAL_MACHINE",
                                         L"HKEY_USERS", L"HKEY_DYN_DATA", L"HKEY_CURRENT_CONFIG"}),
              strings_of(*list.get()));

    for (const wchar_t* name : {L"Gamma", L"alpha", L"Beta Key"}) scratch.add_key(name);
    ASSERT_EQ(0, reg.cd(scratch.path()));
    EXPECT_EQ(0, reg.dir_key(list));
    EXPECT_EQ((std::vector<std::wstring>{L"alpha", L"Beta Key", L"Gamma"}), strings_of(*list.get()))
        << "names as stored, in the order the registry enumerates them";
    EXPECT_EQ(0, reg.make_key(L"made")) << "the key is open with full access again";

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
    EXPECT_EQ(failure, reg.cd(L"missing")) << "a relative CD that fails";
    EXPECT_EQ(failure, reg.make_key(L"stray")) << "then acts on no other key";
    EXPECT_FALSE(scratch.has_key(L"stray"));
    EXPECT_EQ(0, reg.cd(scratch.path() + L"\\two")) << "after failures the object works normally";
}

TEST(EasyRegistryValues, WritesStoreWhatTheKindAccepts) {
    // The type and data stored when the status is 0.
    struct write_case { const char* name; long kind; VARIANT value; long status; DWORD type; bytes data; };
    const write_case cases[] = {
        {"text", erSTRING, text_value(L"abc"), 0, REG_SZ, {'a', 'b', 'c', 0}},
        {"empty text", erSTRING, text_value(L""), 0, REG_SZ, {0}},
        {"a whole Double", erDWord, double_value(305419896), 0, REG_DWORD, {0x78, 0x56, 0x34, 0x12}},
        {"the largest Double", erDWord, double_value(4294967295.0), 0, REG_DWORD, {255, 255, 255, 255}},
        {"bytes", erByte, array_value(VT_UI1, {1, 10, 255}), 0, REG_BINARY, {1, 10, 255}},
        {"bytes from lower bound 5", erByte, array_value(VT_UI1, {7, 8, 9}, 5), 0, REG_BINARY, {7, 8, 9}},
        {"no bytes", erByte, array_value(VT_UI1, {}), 0, REG_BINARY, {}},
        {"a Double over 32 bits", erDWord, double_value(4294967296.0), 3, 0, {}},
        {"a negative Double", erDWord, double_value(-1), 3, 0, {}},
        {"a fraction", erDWord, double_value(2.5), 3, 0, {}},
        {"numeric text for a number", erDWord, text_value(L"12"), 3, 0, {}},
        {"a number for text", erSTRING, double_value(2), 3, 0, {}},
        {"two-dimensional bytes", erByte, array_value(VT_UI1, {1, 2}, 0, 2), 3, 0, {}},
        {"an array of variants", erByte, array_value(VT_VARIANT, bytes(3)), 3, 0, {}},
        {"text for bytes", erByte, text_value(L"abc"), 3, 0, {}},
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

std::wstring spaced_hex(size_t count, const wchar_t* digits) {
    std::wstring text = digits;
    while (--count) text += L" " + std::wstring(digits);
    return text;
}

TEST(EasyRegistryValues, ReadsAndListingsRenderEveryValue) {
    wchar_t separator[8] = L",";
    GetLocaleInfoW(LOCALE_USER_DEFAULT, LOCALE_STHOUSAND, separator, 8);
    auto grouped = [&](std::wstring text) {  // "0,305,419,896" in the user's locale
        for (size_t at = text.find(L','); at != std::wstring::npos; at = text.find(L',', at + 1))
            text.replace(at, 1, separator), at += wcslen(separator) - 1;
        return text;
    };
    // A read that fails gives Empty. A listing that fails leaves ValueList alone,
    // so those rows come last and are listed alone.
    struct value_case {
        std::string name; DWORD type; bytes data;
        long status, kind; std::wstring text; double number;  // ValueOf get
        std::wstring listed, listed_kind; long listed_status;  // DirValue
    };
    const bytes long_text = [] { bytes text(1200, 'x'); return text.push_back(0), text; }();
    const value_case cases[] = {
        {"text", REG_SZ, {'a', 'b', 'c', 0}, 0, erSTRING, L"abc", 0, L"abc", L"0", 0},
        {"number", REG_DWORD, {0x78, 0x56, 0x34, 0x12}, 0, erDWord, L"12345678", 305419896,
         L"12345678 (" + grouped(L"0,305,419,896") + L")", L"2", 0},
        {"largest", REG_DWORD, {255, 255, 255, 255}, 0, erDWord, L"FFFFFFFF", 4294967295.0,
         L"FFFFFFFF (" + grouped(L"4,294,967,295") + L")", L"2", 0},
        {"zero", REG_DWORD, {0, 0, 0, 0}, 0, erDWord, L"00000000", 0, L"00000000 (" + grouped(L"0,000,000,000") + L")",
         L"2", 0},
        {"bytes", REG_BINARY, {1, 10, 255}, 0, erByte, L"1 A FF", 0, L"1 A FF", L"1", 0},
        {"empty text", REG_SZ, {0}, 0, erSTRING, L"", 0, L"", L"0", 0},
        {"no data", REG_BINARY, {}, 0, erByte, L"", 0, L"", L"", 0},
        {"unterminated", REG_NONE, {'A', 'B'}, 0, erSTRING, L"AB", 0, L"A", L"0", 0},
        {"", REG_SZ, {'d', 0}, 0, erSTRING, L"d", 0, L"d", L"0", 0},
        {"1,024 bytes", REG_BINARY, bytes(1024, 0xA0), 0, erByte, spaced_hex(1024, L"A0"), 0, spaced_hex(1024, L"A0"),
         L"1", 0},
        {std::string(1000, 'n'), REG_BINARY, {1}, 0, erByte, L"1", 0, L"1", L"1", 0},
        {"eight bytes of number", REG_DWORD, {0, 0, 0, 0, 0, 0, 0, 1}, 0, erDWord, L"0100000000000000",
         72057594037927936.0, L"0100000000000000 (" + grouped(L"72,057,594,037,927,900") + L")", L"2", 0},
        {"odd length", REG_DWORD, {1, 2, 3}, 9, erDWord, L"", 0, L"", L"", 9},
        {"1,025 bytes", REG_BINARY, bytes(1025, 1), failure, -7, L"", 0, L"", L"", failure},
        {"1,201 bytes of text", REG_SZ, long_text, failure, -7, L"", 0, L"", L"", failure},
        {std::string(1025, 'n'), REG_BINARY, {1}, 0, erByte, L"1", 0, L"", L"", failure},  // read, not listed
    };
    scratch_key scratch;
    registry reg;
    ASSERT_EQ(0, reg.cd(scratch.path()));
    size_t listed = 0;
    for (const value_case& c : cases) {
        const std::string name = c.name.substr(0, 20);
        if (c.listed_status) scratch.clear();
        scratch.set_value(c.name, c.type, c.data);
        const read_result read = reg.read(widen(c.name));
        EXPECT_EQ(c.status, read.status) << name;
        EXPECT_EQ(c.kind, read.type) << name;
        if (c.status) {
            EXPECT_EQ(VT_EMPTY, V_VT(read.value->get())) << name;
        } else if (upper_bound(*read.value->get(), VT_VARIANT) != 2) {
            ADD_FAILURE() << name << ": not three elements from 0";
        } else {
            const VARIANT* element = static_cast<const VARIANT*>(V_ARRAY(read.value->get())->pvData);
            EXPECT_TRUE(V_VT(&element[erStringFormat]) == VT_BSTR && V_VT(&element[erDWordFormat]) == VT_R8 &&
                        V_VT(&element[erByteFormat]) == (VT_ARRAY | VT_UI1)) << name;
            EXPECT_EQ(c.text, text_of(V_BSTR(&element[erStringFormat]))) << name;
            EXPECT_EQ(c.number, V_R8(&element[erDWordFormat])) << name;
        }
        unique_variant list;
        V_VT(list.get()) = VT_I4;
        EXPECT_EQ(c.listed_status, reg.dir_value(list)) << name;
        if (c.listed_status) {
            EXPECT_EQ(VT_I4, V_VT(list.get())) << name << ": ValueList keeps what it held";
            continue;
        }
        const auto rows = rows_of(*list.get());
        EXPECT_EQ(++listed, rows.size()) << name << ": every value so far";
        const auto row = rows.find(widen(c.name));
        ASSERT_NE(rows.end(), row) << name << " is listed";
        EXPECT_EQ(std::make_pair(c.listed, c.listed_kind), row->second) << name;
    }
    read_result missing = reg.read(L"no such value");
    EXPECT_TRUE(missing.status == failure && missing.type == -7 && V_VT(missing.value->get()) == VT_EMPTY);
    scratch.clear();
    scratch.add_key(L"no values");
    unique_variant list;
    EXPECT_TRUE(reg.cd(L"no values") == 0 && reg.dir_value(list) == 0 && V_VT(list.get()) == VT_NULL)
        << "a key without values";
}

}  // namespace
}  // namespace vx::test
