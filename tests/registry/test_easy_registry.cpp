// clsEasyRegistry on the prefix's real registry: navigation, keys, values, renderings, limits and statuses.
#include "support/component.h"
#include "vxTypes32_types.h"

#include <cwctype>
#include <map>
#include <optional>

namespace vx::test {
namespace {

constexpr long failure = -2147221248;  // a registry call failed
using bytes = std::vector<unsigned char>;
std::wstring widen(const std::string& text) { return std::wstring(text.begin(), text.end()); }
// Each test works in a scratch key of its own, named after it in capitals as CurrentKey gives it.
class EasyRegistry : public testing::Test {
protected:
    void SetUp() override {
        for (wchar_t& c : relative_) c = static_cast<wchar_t>(towupper(c));
        RegDeleteTreeW(HKEY_CURRENT_USER, relative_.c_str());
        ASSERT_EQ(0, RegCreateKeyW(HKEY_CURRENT_USER, relative_.c_str(), key_.put()));
    }
    void TearDown() override {
        key_.reset();
        RegDeleteTreeW(HKEY_CURRENT_USER, relative_.c_str());
        RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\vxTypes32 tests");  // once no test uses it
    }
    void clear() const { RegDeleteTreeW(key_.get(), nullptr); }  // every subkey and value
    std::wstring path() const { return L"\\HKEY_CURRENT_USER\\" + relative_; }
    std::wstring expand(const std::wstring& text) const { return text[0] == L'~' ? path() + text.substr(1) : text; }  // "~" in a table
    void add_key(const wchar_t* below) const { EXPECT_EQ(0, RegCreateKeyW(key_.get(), below, unique_hkey().put())); }
    bool has_key(const wchar_t* below) const { return !RegOpenKeyExW(key_.get(), below, 0, KEY_READ, unique_hkey().put()); }
    void set_value(const std::string& name, DWORD type, const bytes& data) const {
        ASSERT_EQ(0, RegSetValueExA(key_.get(), name.c_str(), 0, type, data.data(), static_cast<DWORD>(data.size())));
    }
    std::optional<std::pair<DWORD, bytes>> stored(const std::string& name) const {  // as the ANSI functions give it back
        bytes data(4096);
        DWORD type = 0, length = static_cast<DWORD>(data.size());
        if (RegQueryValueExA(key_.get(), name.c_str(), nullptr, &type, data.data(), &length) != 0) return std::nullopt;
        return data.resize(length), std::make_pair(type, data);
    }
    std::wstring relative_ = L"Software\\vxTypes32 tests\\" + widen(testing::UnitTest::GetInstance()->current_test_info()->name());
    unique_hkey key_;
};
// Every member succeeds at the boundary and leaves no error info behind.
void expect_clean(HRESULT hr, const std::string& call) {
    com_ptr<IErrorInfo> info;
    EXPECT_EQ(S_OK, hr) << call;
    EXPECT_EQ(S_FALSE, GetErrorInfo(0, info.put())) << call << " left error info";
}
// The object, with the statuses its members answer: reg(&R::CD, L"\\HKEY_USERS").
using R = _clsEasyRegistry;
struct registry {
    template <class Argument> long operator()(HRESULT (STDMETHODCALLTYPE R::*member)(Argument, LONG*), Argument argument) {
        LONG status = 12345;
        return expect_clean((object.get()->*member)(argument, &status), "a member"), status;
    }
    long operator()(HRESULT (STDMETHODCALLTYPE R::*m)(BSTR, LONG*), const std::wstring& text) { return (*this)(m, bstr_from(text).get()); }
    long operator()(HRESULT (STDMETHODCALLTYPE R::*member)(VARIANT*, LONG*), unique_variant& list) { return (*this)(member, list.get()); }
    std::wstring current_key() {
        unique_bstr key;
        return expect_clean(object->get_CurrentKey(key.put()), "CurrentKey"), text_of(key.get());
    }
    // Takes the value over and clears it; the kind is only read.
    long write(const std::wstring& name, long kind, VARIANT value) {
        enmDataType type = static_cast<enmDataType>(kind);
        LONG status = 12345;
        expect_clean(object->put_ValueOf(bstr_from(name).get(), &type, &status, value), "ValueOf let");
        VariantClear(&value);
        return type == kind ? status : 12345;
    }
    long read(const std::wstring& name, long& kind, unique_variant& value) {
        enmDataType type = static_cast<enmDataType>(-7);  // unless the value is found
        LONG status = 12345;
        expect_clean(object->get_ValueOf(bstr_from(name).get(), &type, &status, value.put()), "ValueOf get");
        return kind = type, status;
    }
    com_ptr<_clsEasyRegistry> object = create<_clsEasyRegistry>(CLSID_clsEasyRegistry, IID__clsEasyRegistry);
};
// The cells of a String array whose bounds start at 0, in storage order; a listing's first dimension holds a row.
std::vector<std::wstring> cells_of(const VARIANT& list, UINT dimensions) {
    const SAFEARRAY* a = V_VT(&list) == (VT_ARRAY | VT_BSTR) ? V_ARRAY(&list) : nullptr;
    if (!a || a->cDims != dimensions || a->rgsabound[0].lLbound || a->rgsabound[dimensions - 1].lLbound ||
        (dimensions == 2 && a->rgsabound[1].cElements != 3))
        return {L"<not the String array expected>"};
    const BSTR* cells = static_cast<const BSTR*>(a->pvData);
    return std::vector<std::wstring>(cells, cells + a->rgsabound[0].cElements * (dimensions == 2 ? 3 : 1));
}
std::map<std::wstring, std::pair<std::wstring, std::wstring>> rows_of(const VARIANT& list) {  // by name: {rendering, kind}
    const std::vector<std::wstring> cells = cells_of(list, 2);
    std::map<std::wstring, std::pair<std::wstring, std::wstring>> rows;
    for (size_t at = 0; at + 2 < cells.size(); at += 3) rows[cells[at + erValueName]] = {cells[at + erValue], cells[at + erValueType]};
    return rows;
}
VARIANT text_value(const wchar_t* text) { VARIANT v; V_VT(&v) = VT_BSTR; V_BSTR(&v) = SysAllocString(text); return v; }
VARIANT double_value(double number) { VARIANT v; V_VT(&v) = VT_R8; V_R8(&v) = number; return v; }
VARIANT array_value(VARTYPE type, const bytes& data, LONG lower = 0, ULONG second_dimension = 0) {
    SAFEARRAYBOUND bounds[2] = {{static_cast<ULONG>(data.size()), lower}, {second_dimension, 0}};
    VARIANT v;
    V_VT(&v) = VT_ARRAY | type, V_ARRAY(&v) = SafeArrayCreate(type, second_dimension ? 2 : 1, bounds);
    if (type == VT_UI1) std::copy(data.begin(), data.end(), static_cast<unsigned char*>(V_ARRAY(&v)->pvData));
    return v;
}

TEST_F(EasyRegistry, NavigationPathsResolveAsStated) {
    struct step { std::wstring path; long status; std::wstring current_key; };  // "~" is the scratch key
    const struct { const char* name; std::vector<step> steps; } cases[] = {
        {"trimmed and upper-cased", {{L"  hkey_current_user\\software\\ ", 0, L"\\HKEY_CURRENT_USER\\SOFTWARE"}}},
        {"'..' without a current key", {{L"..", 1, L""}}}, {"an empty path without a current key", {{L"", 2, L""}}},
        {"'..' from a root", {{L"\\HKEY_CURRENT_USER", 0, L"\\HKEY_CURRENT_USER"}, {L"..", 0, L""}}},
        {"'..' from a subkey", {{L"~\\a\\b", 0, L"~\\A\\B"}, {L"..", 0, L"~\\A"}}},
        {"'..' inside a path names a key", {{L"~", 0, L"~"}, {L"A\\..", failure, L"~\\A\\.."}}},
        {"one trailing backslash is dropped", {{L"~\\a\\", 0, L"~\\A"}}}, {"'\\' closes the key", {{L"~", 0, L"~"}, {L"\\", 0, L""}}},
        {"an unknown root loses the current key", {{L"~", 0, L"~"}, {L"\\HKLM\\SOFTWARE", 2, L""}}},
        {"an empty path reopens the key", {{L"\\HKEY_USERS", 0, L"\\HKEY_USERS"}, {L"", 0, L"\\HKEY_USERS\\"}, {L"..", 0, L"\\HKEY_USERS"}}},
        {"a missing key is still reported", {{L"~\\missing", failure, L"~\\MISSING"}}},
        {"every root opens", {{L"\\HKEY_CLASSES_ROOT", 0, L"\\HKEY_CLASSES_ROOT"}, {L"\\HKEY_LOCAL_MACHINE", 0, L"\\HKEY_LOCAL_MACHINE"},
                              {L"\\HKEY_CURRENT_CONFIG", 0, L"\\HKEY_CURRENT_CONFIG"}}},
    };
    add_key(L"A\\B");
    for (const auto& c : cases) {
        registry reg;
        EXPECT_EQ(L"", reg.current_key()) << c.name << ": a new instance";
        for (const step& s : c.steps) {
            EXPECT_EQ(s.status, reg(&R::CD, expand(s.path))) << c.name << ": CD " << narrow(s.path);
            EXPECT_EQ(expand(s.current_key), reg.current_key()) << c.name << ": after CD " << narrow(s.path);
        }
    }
}

TEST_F(EasyRegistry, KeysListMakeAndDeleteActBelowTheCurrentKeyAndNeedOne) {
    registry reg;
    unique_variant list, value;
    V_VT(list.get()) = VT_I4;
    long kind = 0;
    const struct { const char* name; long status, expected; } without_key[] = {
        {"MakeKey", reg(&R::MakeKey, L"nowhere"), failure}, {"DeleteKey", reg(&R::DeleteKey, L"nowhere"), failure},
        {"DeleteValue", reg(&R::DeleteValue, L"nowhere"), failure}, {"ValueOf get", reg.read(L"v", kind, value), failure},
        {"ValueOf let", reg.write(L"v", erSTRING, text_value(L"abc")), failure},
        {"ValueOf let checks the kind first", reg.write(L"v", 3, text_value(L"abc")), 4},
        {"DirValue", reg(&R::DirValue, list), 94},
    };
    for (const auto& c : without_key) EXPECT_EQ(c.expected, c.status) << c.name << " without a current key";
    EXPECT_TRUE(V_VT(value.get()) == VT_EMPTY && V_VT(list.get()) == VT_I4) << "ValueOf get gives Empty, DirValue leaves ValueList";
    EXPECT_EQ(0, reg(&R::DirKey, list));
    EXPECT_EQ((std::vector<std::wstring>{L"HKEY_CLASSES_ROOT", L"HKEY_CURRENT_USER", L"HKEY_LOCAL_MACHINE", L"HKEY_USERS",
                                         L"HKEY_DYN_DATA", L"HKEY_CURRENT_CONFIG"}), cells_of(*list.get(), 1)) << "the roots";
    for (const wchar_t* name : {L"Gamma", L"alpha", L"Beta Key"}) add_key(name);
    ASSERT_EQ(0, reg(&R::CD, path()));
    EXPECT_EQ(0, reg(&R::DirKey, list));
    EXPECT_EQ((std::vector<std::wstring>{L"alpha", L"Beta Key", L"Gamma"}), cells_of(*list.get(), 1))
        << "names as stored, in the order the registry enumerates them";
    EXPECT_TRUE(reg(&R::MakeKey, L"Made") == 0 && reg(&R::MakeKey, L"two\\levels") == 0 && has_key(L"Made") && has_key(L"two\\levels"))
        << "after DirKey the key is open with full access again; a path of two levels in one piece";
    EXPECT_EQ(path(), reg.current_key()) << "the current key does not move";
    EXPECT_TRUE(reg(&R::DeleteKey, L"made") == 0 && !has_key(L"Made") && reg(&R::DeleteKey, L"made") == failure) << "then missing";
    set_value("gone", REG_SZ, {'x', 0});
    EXPECT_TRUE(reg(&R::DeleteValue, L"gone") == 0 && !stored("gone"));
    EXPECT_EQ(failure, reg(&R::CD, L"missing")) << "a relative CD that fails";
    EXPECT_TRUE(reg(&R::MakeKey, L"stray") == failure && !has_key(L"stray")) << "then acts on no other key";
    V_VT(list.put()) = VT_I4;
    EXPECT_TRUE(reg(&R::DirKey, list) == failure && V_VT(list.get()) == VT_I4) << "lists nothing and leaves DirList alone";
}

TEST_F(EasyRegistry, WritesStoreWhatTheKindAccepts) {
    struct write_case { const char* name; long kind; VARIANT value; long status; DWORD type = 0; bytes data = {}; };  // stored if 0
    const write_case cases[] = {
        {"text", erSTRING, text_value(L"abc"), 0, REG_SZ, {'a', 'b', 'c', 0}},
        {"", erSTRING, text_value(L"default"), 0, REG_SZ, {'d', 'e', 'f', 'a', 'u', 'l', 't', 0}},
        {"a whole Double", erDWord, double_value(305419896), 0, REG_DWORD, {0x78, 0x56, 0x34, 0x12}},
        {"the largest Double", erDWord, double_value(4294967295.0), 0, REG_DWORD, {255, 255, 255, 255}},
        {"bytes", erByte, array_value(VT_UI1, {1, 10, 255}), 0, REG_BINARY, {1, 10, 255}},
        {"bytes from lower bound 5", erByte, array_value(VT_UI1, {7, 8, 9}, 5), 0, REG_BINARY, {7, 8, 9}},
        {"no bytes", erByte, array_value(VT_UI1, {}), 0, REG_BINARY, {}},
        {"over 32 bits", erDWord, double_value(4294967296.0), 3}, {"negative", erDWord, double_value(-1), 3},
        {"a fraction", erDWord, double_value(2.5), 3}, {"numeric text", erDWord, text_value(L"12"), 3},
        {"a number for text", erSTRING, double_value(2), 3}, {"text for bytes", erByte, text_value(L"abc"), 3},
        {"two-dimensional bytes", erByte, array_value(VT_UI1, {1, 2}, 0, 2), 3},
        {"an array of variants", erByte, array_value(VT_VARIANT, bytes(3)), 3},
    };
    registry reg;
    ASSERT_EQ(0, reg(&R::CD, path()));
    for (const write_case& c : cases) {
        clear();
        EXPECT_EQ(c.status, reg.write(widen(c.name), c.kind, c.value)) << c.name;
        EXPECT_EQ(c.status ? std::nullopt : std::optional(std::make_pair(c.type, c.data)), stored(c.name)) << c.name;
    }
}

TEST_F(EasyRegistry, ReadsAndListingsRenderEveryValue) {
    wchar_t separator[8] = L",";
    GetLocaleInfoW(LOCALE_USER_DEFAULT, LOCALE_STHOUSAND, separator, 8);
    // A number is listed as "12345678 (0,305,419,896)", grouped in the user's locale.
    auto number = [&](std::wstring hex, std::wstring grouped) {
        for (size_t at = grouped.find(L','); at != std::wstring::npos; at = grouped.find(L',', at + wcslen(separator)))
            grouped.replace(at, 1, separator);
        return hex + L" (" + grouped + L")";
    };
    // A failed read gives Empty; a failed listing leaves ValueList alone, so those rows come last and listed alone.
    struct value_case { std::string name; DWORD type; bytes data; long status, kind; std::wstring text; double number;  // ValueOf get
                        std::wstring listed, listed_kind; long listed_status; };  // DirValue
    const std::wstring a0 = [] { std::wstring text = L"A0"; while (text.size() < 1024 * 3 - 1) text += L" A0"; return text; }();
    const value_case cases[] = {
        {"text", REG_SZ, {'a', 'b', 'c', 0}, 0, erSTRING, L"abc", 0, L"abc", L"0", 0},
        {"number", REG_DWORD, {0x78, 0x56, 0x34, 0x12}, 0, erDWord, L"12345678", 305419896, number(L"12345678", L"0,305,419,896"), L"2", 0},
        {"largest", REG_DWORD, {255, 255, 255, 255}, 0, erDWord, L"FFFFFFFF", 4294967295.0, number(L"FFFFFFFF", L"4,294,967,295"), L"2", 0},
        {"bytes", REG_BINARY, {1, 10, 255}, 0, erByte, L"1 A FF", 0, L"1 A FF", L"1", 0},
        {"no data", REG_BINARY, {}, 0, erByte, L"", 0, L"", L"", 0},
        {"unterminated", REG_NONE, {'A', 'B'}, 0, erSTRING, L"AB", 0, L"A", L"0", 0},
        {"", REG_SZ, {'d', 0}, 0, erSTRING, L"d", 0, L"d", L"0", 0},
        {"1,024 bytes", REG_BINARY, bytes(1024, 0xA0), 0, erByte, a0, 0, a0, L"1", 0},
        {std::string(1000, 'n'), REG_BINARY, {1}, 0, erByte, L"1", 0, L"1", L"1", 0},
        {"odd length", REG_DWORD, {1, 2, 3}, 9, erDWord, L"", 0, L"", L"", 9},
        {"1,025 bytes", REG_BINARY, bytes(1025, 1), failure, -7, L"", 0, L"", L"", failure},
        {"1,201 bytes of text", REG_SZ, [] { bytes text(1201, 'x'); return text.back() = 0, text; }(), failure, -7, L"", 0, L"", L"", failure},
        {std::string(1025, 'n'), REG_BINARY, {1}, 0, erByte, L"1", 0, L"", L"", failure},  // read, not listed
    };
    registry reg;
    ASSERT_EQ(0, reg(&R::CD, path()));
    size_t listed = 0;
    long kind = 0;
    unique_variant read, list;
    for (const value_case& c : cases) {
        const std::string name = c.name.substr(0, 20);
        if (c.listed_status) clear();
        set_value(c.name, c.type, c.data);
        EXPECT_EQ(c.status, reg.read(widen(c.name), kind, read)) << name;
        EXPECT_EQ(c.kind, kind) << name;
        const SAFEARRAY* array = V_VT(read.get()) == (VT_ARRAY | VT_VARIANT) ? V_ARRAY(read.get()) : nullptr;
        const VARIANT* e = array && array->cDims == 1 && !array->rgsabound[0].lLbound && array->rgsabound[0].cElements == 3
                               ? static_cast<const VARIANT*>(array->pvData) : nullptr;
        const bool typed = e && V_VT(&e[erStringFormat]) == VT_BSTR && V_VT(&e[erDWordFormat]) == VT_R8 &&
                           V_VT(&e[erByteFormat]) == (VT_ARRAY | VT_UI1);
        EXPECT_TRUE(c.status ? V_VT(read.get()) == VT_EMPTY : typed) << name << ": three elements from 0, text, number and bytes";
        EXPECT_EQ(std::make_pair(c.text, c.number), typed ? std::make_pair(text_of(V_BSTR(&e[erStringFormat])), V_R8(&e[erDWordFormat]))
                                                          : std::make_pair(std::wstring(), 0.0)) << name;
        V_VT(list.put()) = VT_I4;
        EXPECT_EQ(c.listed_status, reg(&R::DirValue, list)) << name;
        auto rows = rows_of(*list.get());
        if (c.listed_status) EXPECT_EQ(VT_I4, V_VT(list.get())) << name << ": ValueList keeps what it held";
        else EXPECT_TRUE(++listed == rows.size() && rows[widen(c.name)] == std::make_pair(c.listed, c.listed_kind))
            << name << ": " << rows.size() << " rows, " << narrow(rows[widen(c.name)].first);
    }
    clear();
    EXPECT_TRUE(reg.read(L"missing", kind, read) == failure && kind == -7 && V_VT(read.get()) == VT_EMPTY);
    EXPECT_TRUE(reg(&R::DirValue, list) == 0 && V_VT(list.get()) == VT_NULL) << "a key without values";
}

}  // namespace
}  // namespace vx::test
