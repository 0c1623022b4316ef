// A dispatch fuzzer: every member of every class in the class table through
// IDispatch::Invoke with random arguments, and GetIDsOfNames with odd names.
// A call may succeed or fail in order (a DISP_E_* refusal, or
// DISP_E_EXCEPTION with a source, a description and a failure code);
// anything else, a crash, or memory, GDI objects or registry keys left
// behind fails the run. A developer's tool: `fuzz_dispatch [--seed N]
// [--seconds S | --calls N] [--trace 1] [--skip Class.Member,...]` exits with
// the number of failures; CTest runs it on a small budget, scripts/fuzz.sh
// for a million calls. The calls keep to what a client may do:
// short sort ranges, no clipboard box, the registry class only under a
// scratch key, small sizes, and only bitmaps made here (or values that GDI
// rejects) handed over as bitmaps.
#include "frame/class_table.h"
#include "frame/handles.h"
#include "support/box_dismisser.h"
#include "support/resource_counts.h"
#include "vxTypes32_types.h"

#include <olectl.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cwctype>
#include <limits>
#include <map>
#include <optional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace vx::test {
namespace {

int failures_reported = 0;

std::wstring text_of(BSTR value) { return value ? std::wstring(value, SysStringLen(value)) : std::wstring(); }

std::string hex(HRESULT hr) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(hr));
    return text;
}

// An instance from the DLL beside the program, as CoCreateInstance makes one.
template <class Interface>
com_ptr<Interface> create(REFCLSID clsid, REFIID iid) {
    static const HMODULE module = [] {
        wchar_t path[MAX_PATH] = {};
        GetModuleFileNameW(nullptr, path, MAX_PATH);
        std::wstring dll = path;
        return LoadLibraryW((dll.erase(dll.find_last_of(L"\\/") + 1) + L"vxTypes32.dll").c_str());
    }();
    using get_class_object = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
    const auto entry = reinterpret_cast<get_class_object>(
        reinterpret_cast<void*>(GetProcAddress(module, "DllGetClassObject")));
    com_ptr<IClassFactory> factory;
    com_ptr<Interface> object;
    if (!entry || entry(clsid, IID_IClassFactory, factory.put_void()) != S_OK ||
        factory->CreateInstance(nullptr, iid, object.put_void()) != S_OK) {
        std::fprintf(stderr, "FAILED: an instance could not be made\n");
        ++failures_reported;
    }
    return object;
}

void fail(const std::string& what) {
    std::fprintf(stderr, "FAILED: %s\n", what.c_str());
    ++failures_reported;
}

struct options {
    unsigned seed = 20240601;
    unsigned calls_per_class = 3000;  // with no time budget
    double seconds = 0;               // a time budget instead of a count
    bool trace = false;               // each call on stderr before it is made
    std::string skip;                 // "Class.Member,..." left out, to narrow a fault down
};
options settings;

const wchar_t scratch_path[] = L"\\HKEY_CURRENT_USER\\Software\\vxTypes32 fuzz";
const wchar_t scratch_subkey[] = L"Software\\vxTypes32 fuzz";

class random_source {
public:
    explicit random_source(unsigned seed) : engine_(seed) {}
    unsigned below(unsigned n) { return n ? std::uniform_int_distribution<unsigned>(0, n - 1)(engine_) : 0; }
    bool chance(double p) { return std::uniform_real_distribution<double>(0, 1)(engine_) < p; }
    std::uint32_t bits() { return static_cast<std::uint32_t>(engine_()); }
    std::uint64_t wide() { return (static_cast<std::uint64_t>(bits()) << 32) | bits(); }
    template <class T>
    const T& pick(const std::vector<T>& from) { return from[below(static_cast<unsigned>(from.size()))]; }

private:
    std::mt19937 engine_;
};

std::string narrow(const std::wstring& text) {
    std::string out;
    for (wchar_t c : text) out += (c >= 32 && c < 127) ? static_cast<char>(c) : '?';
    return out;
}

std::wstring upper(std::wstring text) {
    for (wchar_t& c : text) c = static_cast<wchar_t>(towupper(c));
    return text;
}

std::wstring trimmed(const std::wstring& text) {
    const size_t first = text.find_first_not_of(L' ');
    return first == std::wstring::npos ? L"" : text.substr(first, text.find_last_not_of(L' ') - first + 1);
}

// Handles travel as Long in 32-bit code and as LongLong in 64-bit code.
constexpr VARTYPE handle_type = sizeof(void*) == 8 ? VT_I8 : VT_I4;

LONG handle_value(HGDIOBJ handle) { return static_cast<LONG>(reinterpret_cast<LONG_PTR>(handle)); }
HGDIOBJ gdi_handle(LONG value) { return reinterpret_cast<HGDIOBJ>(static_cast<LONG_PTR>(value)); }

// Bitmaps, pictures and a DC that the fuzzer makes and deletes; objects of
// every class to pass where objects go.
struct fixtures {
    std::vector<HBITMAP> bitmaps;
    std::vector<com_ptr<IDispatch>> pictures;
    HDC dc = nullptr;
    HBITMAP dc_bitmap = nullptr;
    HGDIOBJ dc_saved = nullptr;
    std::vector<com_ptr<IDispatch>> objects;  // one of each class
    std::vector<LONG> handles;                 // handle values worth passing

    void make() {
        const int sizes[][2] = {{1, 1}, {2, 2}, {32, 16}, {48, 48}, {3, 40}};
        HDC screen = GetDC(nullptr);
        for (const auto& s : sizes) bitmaps.push_back(CreateCompatibleBitmap(screen, s[0], s[1]));
        bitmaps.push_back(CreateBitmap(16, 8, 1, 1, nullptr));  // monochrome
        ReleaseDC(nullptr, screen);
        dc = CreateCompatibleDC(nullptr);
        dc_bitmap = CreateBitmap(64, 64, 1, 32, nullptr);
        dc_saved = SelectObject(dc, dc_bitmap);
        // Pictures that do not own their bitmaps (the fuzzer deletes those),
        // and one of no picture.
        for (std::size_t i = 0; i <= bitmaps.size(); ++i) {
            PICTDESC description = {sizeof description, PICTYPE_NONE};
            if (i < bitmaps.size()) description.picType = PICTYPE_BITMAP, description.bmp.hbitmap = bitmaps[i];
            com_ptr<IDispatch> picture;
            if (OleCreatePictureIndirect(&description, IID_IDispatch, FALSE, picture.put_void()) == S_OK)
                pictures.push_back(picture);
        }
        for (const class_entry& entry : class_table()) objects.push_back(create<IDispatch>(*entry.clsid, IID_IDispatch));
        handles.push_back(handle_value(dc));
        for (HBITMAP b : bitmaps) handles.push_back(handle_value(b));
    }

    void release() {
        objects.clear();
        pictures.clear();
        SelectObject(dc, dc_saved);
        DeleteDC(dc);
        DeleteObject(dc_bitmap);
        for (HBITMAP b : bitmaps) DeleteObject(b);
        bitmaps.clear();
    }

    bool is_fuzzer_bitmap(LONG value) const {
        return std::any_of(bitmaps.begin(), bitmaps.end(), [&](HBITMAP b) { return handle_value(b) == value; });
    }
};

// A value that GDI takes for no object at all.
LONG garbage_handle(random_source& random) {
    for (;;) {
        const LONG value = static_cast<LONG>(random.chance(0.5) ? random.bits() : (random.bits() & 0x00FFFFFF));
        if (value != 0 && GetObjectType(gdi_handle(value)) == 0) return value;
    }
}

// Storage that the arguments of one call point into; cleared after it.
struct call_storage {
    std::vector<std::unique_ptr<VARIANT>> variables;
    VARIANT* variable() {
        variables.push_back(std::make_unique<VARIANT>());
        VariantInit(variables.back().get());
        return variables.back().get();
    }
    ~call_storage() {
        for (auto& v : variables) VariantClear(v.get());
    }
};

enum class text_kind { any, registry_path, registry_name };

class argument_maker {
public:
    argument_maker(random_source& random, fixtures& owned) : random_(random), owned_(owned) {}

    text_kind texts = text_kind::any;

    LONG integer() {
        static const std::vector<LONG> edges = {0, 1, -1, 2, 3, 5, 63, 64, 65, 255, 256, 257, -256, 32767, -32768,
                                                65535, 715827882, -715827883, 715827881, 0x7FFFFFFF,
                                                std::numeric_limits<LONG>::min(), 0x00CC0020, 0x008800C6};
        switch (random_.below(5)) {
        case 0: return random_.pick(edges);
        case 1: return static_cast<LONG>(random_.bits());
        case 2: return static_cast<LONG>(random_.below(130)) - 65;
        case 3: return owned_.handles.empty() ? 0 : random_.pick(owned_.handles);
        default: return garbage_handle(random_);
        }
    }

    double real() {
        static const std::vector<double> edges = {
            0.0, -0.0, 1.0, -1.0, 0.5, 2.5, 3.5, -2.5, 1e12, -1e12, 4294967295.0, 4294967296.0, 2147483647.5,
            -2147483648.5, 1e154, 1.4e154, 1e160, 1e308, -1e308, std::numeric_limits<double>::max(),
            std::numeric_limits<double>::denorm_min(), std::numeric_limits<double>::min(),
            std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
            std::numeric_limits<double>::quiet_NaN(), -std::numeric_limits<double>::quiet_NaN(), 305419896.0};
        if (random_.chance(0.7)) return random_.pick(edges);
        return std::ldexp(static_cast<double>(static_cast<std::int32_t>(random_.bits())), static_cast<int>(random_.below(80)) - 40);
    }

    std::wstring text() {
        return texts == text_kind::registry_path   ? registry_path()
               : texts == text_kind::registry_name ? registry_name()
                                                   : any_text();
    }

    // Text of odd lengths and contents, lone surrogates and NULs among them.
    std::wstring any_text() {
        static const std::vector<std::wstring> samples = {
            L"", L" ", L"x", L"12", L"-3", L"1e400", L"NaN", L"&H7FFFFFFF", L"True", L"#1/1/2000#", L"3.5",
            L"  42  ", L"\xD800", L"\xDC00", L"a\xD800" L"b", L"\xDBFF\xDFFF", std::wstring(1, L'\0'),
            std::wstring(L"a\0b", 3), L"\xFFFF", L"\x00E9t\x00E9", L"..", L"\\", L"CD"};
        if (random_.chance(0.5)) return random_.pick(samples);
        static const std::vector<unsigned> lengths = {1, 2, 3, 7, 255, 256, 257, 1023, 1024, 1025, 4097};
        const unsigned length = random_.pick(lengths);
        std::wstring out(length, L'a');
        for (wchar_t& c : out) {
            switch (random_.below(6)) {
            case 0: c = static_cast<wchar_t>(0xD800 + random_.below(0x800)); break;
            case 1: c = static_cast<wchar_t>(random_.below(0x10000)); break;
            case 2: c = L' '; break;
            default: c = static_cast<wchar_t>(L'a' + random_.below(26)); break;
            }
        }
        return out;
    }

    // A key name made of characters that stay inside the scratch key.
    std::wstring registry_name() {
        static const std::vector<std::wstring> samples = {
            L"k1", L"K1", L"k2", L"k1\\k2", L"K1\\K2\\k3", L" k1 ", L"k\xD800", L"k\xDC00z", L"k?",
            L"k\x00E9", std::wstring(L"k\0x", 3), L" ", L"k1 "};
        if (random_.chance(0.8)) return random_.pick(samples);
        std::wstring out(random_.chance(0.5) ? 300 : 1 + random_.below(20), L'k');
        for (wchar_t& c : out)
            if (random_.chance(0.2)) c = static_cast<wchar_t>(L'0' + random_.below(10));
        return out;
    }

    std::wstring registry_path() {
        const std::wstring scratch = scratch_path;
        static const std::vector<std::wstring> elsewhere = {L"\\HKLM\\SOFTWARE", L"\\HKEY_NOPE\\k1", L"\\\\",
                                                            L"", L"   ", L"\\HKEY_CURRENT_USER_\\k1"};
        switch (random_.below(9)) {
        case 0: return scratch;
        case 1: return L"  " + upper(scratch) + L"\\ ";
        case 2: return scratch + L"\\" + registry_name();
        case 3: return L"..";
        case 4: return L"\\";
        case 5: return random_.pick(elsewhere);
        case 6: return L"hkey_current_user\\software\\VXTYPES32 FUZZ";
        default: return registry_name();
        }
    }

    BSTR bstr() {
        if (random_.chance(0.05)) return nullptr;  // a null BSTR is the empty string
        const std::wstring t = text();
        return SysAllocStringLen(t.data(), static_cast<UINT>(t.size()));
    }

    IDispatch* object() {
        if (random_.chance(0.15)) return nullptr;
        return com_ptr<IDispatch>(random_.chance(0.4) && !owned_.pictures.empty() ? random_.pick(owned_.pictures)
                                                                                  : random_.pick(owned_.objects))
            .detach();
    }

    SAFEARRAY* array() {
        static const VARTYPE types[] = {VT_I4, VT_BSTR, VT_VARIANT, VT_UI1, VT_R8, VT_I2};
        const VARTYPE type = types[random_.below(6)];
        const unsigned dims = 1 + random_.below(3);
        SAFEARRAYBOUND bounds[3];
        unsigned total = 1;
        for (unsigned d = 0; d < dims; ++d) {
            static const std::vector<LONG> lower = {0, 1, -1, 5, -7, 1000000, std::numeric_limits<LONG>::min() / 2};
            bounds[d].lLbound = random_.pick(lower);
            bounds[d].cElements = random_.below(dims == 1 ? 40 : 6);
            total *= bounds[d].cElements;
        }
        SAFEARRAY* made = SafeArrayCreate(type, dims, bounds);
        if (!made || total == 0) return made;
        void* data = nullptr;
        if (FAILED(SafeArrayAccessData(made, &data))) return made;
        for (unsigned i = 0; i < total; ++i) {
            switch (type) {
            case VT_I4: static_cast<LONG*>(data)[i] = integer(); break;
            case VT_I2: static_cast<SHORT*>(data)[i] = static_cast<SHORT>(random_.bits()); break;
            case VT_UI1: static_cast<BYTE*>(data)[i] = static_cast<BYTE>(random_.bits()); break;
            case VT_R8: static_cast<double*>(data)[i] = real(); break;
            case VT_BSTR: static_cast<BSTR*>(data)[i] = bstr(); break;
            case VT_VARIANT: {
                VARIANT& v = static_cast<VARIANT*>(data)[i];
                if (random_.chance(0.5)) V_VT(&v) = VT_I4, V_I4(&v) = integer();
                else V_VT(&v) = VT_BSTR, V_BSTR(&v) = bstr();
                break;
            }
            }
        }
        SafeArrayUnaccessData(made);
        return made;
    }

    // A plain value of a random kind.
    void value(VARIANT& v, int depth = 0) {
        VariantInit(&v);
        switch (random_.below(22)) {
        case 0: break;  // Empty
        case 1: V_VT(&v) = VT_NULL; break;
        case 2: V_VT(&v) = VT_ERROR; V_ERROR(&v) = DISP_E_PARAMNOTFOUND; break;  // missing
        case 3: V_VT(&v) = VT_ERROR; V_ERROR(&v) = static_cast<SCODE>(random_.bits()); break;
        case 4: V_VT(&v) = VT_I2; V_I2(&v) = static_cast<SHORT>(integer()); break;
        case 5: case 6: V_VT(&v) = VT_I4; V_I4(&v) = integer(); break;
        case 7: case 8: V_VT(&v) = VT_R8; V_R8(&v) = real(); break;
        case 9: V_VT(&v) = VT_R4; V_R4(&v) = static_cast<float>(real()); break;
        case 10: V_VT(&v) = VT_BOOL; V_BOOL(&v) = random_.pick(std::vector<VARIANT_BOOL>{0, -1, 1, 0x7FFF}); break;
        case 11: case 12: V_VT(&v) = VT_BSTR; V_BSTR(&v) = bstr(); break;
        case 13: V_VT(&v) = VT_DATE; V_DATE(&v) = real(); break;
        case 14: V_VT(&v) = VT_CY; V_CY(&v).int64 = static_cast<LONGLONG>(random_.wide()); break;
        case 15: {
            static const VARTYPE small[] = {VT_UI1, VT_I1, VT_UI2, VT_UI4, VT_INT, VT_UINT, VT_I8, VT_UI8};
            V_VT(&v) = small[random_.below(8)];
            V_UI8(&v) = random_.wide();
            break;
        }
        case 16: VarDecFromR8(random_.chance(0.5) ? 1e20 : -2.5, &V_DECIMAL(&v)); V_VT(&v) = VT_DECIMAL; break;
        case 17: case 18: V_VT(&v) = VT_DISPATCH; V_DISPATCH(&v) = object(); break;
        case 19: V_VT(&v) = VT_UNKNOWN; V_UNKNOWN(&v) = object(); break;
        case 20: {
            // An array that was never dimensioned travels as a null pointer.
            SAFEARRAY* a = depth < 2 ? array() : nullptr;
            VARTYPE element = VT_UI1;
            if (a) SafeArrayGetVartype(a, &element);
            V_VT(&v) = static_cast<VARTYPE>(VT_ARRAY | element);
            V_ARRAY(&v) = a;
            break;
        }
        default: V_VT(&v) = random_.pick(std::vector<VARTYPE>{15, 0x49, 0x7FF, VT_VOID, VT_PTR}); break;  // no such type
        }
    }

    // An argument: a value, or a variable passed by reference.
    void argument(VARIANT& slot, call_storage& storage) {
        if (!random_.chance(0.3)) {
            value(slot);
            return;
        }
        VARIANT* variable = storage.variable();
        VariantInit(&slot);
        switch (random_.below(9)) {
        case 0: V_VT(variable) = VT_I2; V_I2(variable) = static_cast<SHORT>(integer()); break;
        case 1: case 2: V_VT(variable) = VT_I4; V_I4(variable) = integer(); break;
        case 3: V_VT(variable) = VT_R8; V_R8(variable) = real(); break;
        case 4: V_VT(variable) = VT_BSTR; V_BSTR(variable) = bstr(); break;
        case 5: V_VT(variable) = VT_DISPATCH; V_DISPATCH(variable) = object(); break;
        case 6: V_VT(variable) = VT_BOOL; V_BOOL(variable) = random_.chance(0.5) ? VARIANT_TRUE : VARIANT_FALSE; break;
        case 7: V_VT(variable) = static_cast<VARTYPE>(VT_ARRAY | VT_UI1); V_ARRAY(variable) = nullptr; break;
        default: {
            // A Variant variable holding anything.
            value(*variable);
            if (V_VT(variable) == VT_ERROR && random_.chance(0.5)) V_VT(variable) = VT_EMPTY;
            V_VT(&slot) = VT_BYREF | VT_VARIANT;
            V_VARIANTREF(&slot) = variable;
            return;
        }
        }
        V_VT(&slot) = static_cast<VARTYPE>(VT_BYREF | V_VT(variable));
        V_BYREF(&slot) = &V_UI1(variable);  // the value's storage, whatever its type
    }

private:
    random_source& random_;
    fixtures& owned_;
};

// A short account of an argument, for the trace and for messages.
std::string describe(const VARIANT& v) {
    std::string out = "vt" + std::to_string(V_VT(&v));
    VARIANT plain, text;
    VariantInit(&plain);
    VariantInit(&text);
    if (V_VT(&v) != (VT_BYREF | VT_VARIANT) || V_VT(V_VARIANTREF(&v)) < 0x100) {
        if (SUCCEEDED(VariantCopyInd(&plain, const_cast<VARIANT*>(&v)))) {
            if (V_VT(&plain) == VT_DISPATCH || V_VT(&plain) == VT_UNKNOWN) out += V_UNKNOWN(&plain) ? "=object" : "=nothing";
            else if (!(V_VT(&plain) & VT_ARRAY) && SUCCEEDED(VariantChangeType(&text, &plain, 0, VT_BSTR)))
                out += "=" + narrow(text_of(V_BSTR(&text))).substr(0, 40);
        }
    }
    VariantClear(&plain);
    VariantClear(&text);
    return out;
}

// An argument read the way the dispatcher will read it.
template <VARTYPE type, class Value>
std::optional<Value> read_as(VARIANT* slot, Value (*get)(const VARIANT&)) {
    if (!slot) return std::nullopt;
    unique_variant plain, converted;
    if (FAILED(VariantCopyInd(plain.get(), slot)) || FAILED(VariantChangeType(converted.get(), plain.get(), 0, type)))
        return std::nullopt;
    return get(*converted.get());
}
std::optional<LONG> as_long(VARIANT* slot) {
    return read_as<VT_I4, LONG>(slot, [](const VARIANT& v) { return V_I4(&v); });
}
std::optional<LONG> as_boolean(VARIANT* slot) {
    return read_as<VT_BOOL, LONG>(slot, [](const VARIANT& v) -> LONG { return V_BOOL(&v); });
}
std::optional<std::wstring> as_text(VARIANT* slot) {
    return read_as<VT_BSTR, std::wstring>(slot, [](const VARIANT& v) { return text_of(V_BSTR(&v)); });
}

bool is_missing(VARIANT* slot) { return !slot || (V_VT(slot) == VT_ERROR && V_ERROR(slot) == DISP_E_PARAMNOTFOUND); }

void set_long(VARIANT* slot, LONG value) {
    VariantClear(slot);
    V_VT(slot) = VT_I4, V_I4(slot) = value;
}

void set_text(VARIANT* slot, const std::wstring& value) {
    VariantClear(slot);
    V_VT(slot) = VT_BSTR, V_BSTR(slot) = SysAllocStringLen(value.data(), static_cast<UINT>(value.size()));
}

// Whether a 24-bit section of this size fails its size arithmetic, which
// raises before anything is allocated.
bool size_overflows(LONG width, LONG height) {
    const long long stride = (static_cast<long long>(width) * 3 + 3);
    if (stride > std::numeric_limits<LONG>::max() || stride < std::numeric_limits<LONG>::min()) return true;
    const long long padded = static_cast<long long>(static_cast<LONG>(static_cast<ULONG>(stride) & 0xFFFFFFFCu));
    const long long image = padded * height;
    return image > std::numeric_limits<LONG>::max() || image < std::numeric_limits<LONG>::min();
}

bool small_size(LONG width, LONG height) { return std::labs(width) <= 256 && std::labs(height) <= 256; }

struct class_figures {
    unsigned long calls = 0, succeeded = 0, refused = 0, raised = 0, names = 0;
};

struct failure_log {
    unsigned count = 0;
    void add(const std::string& what) {
        if (++count <= 30) std::fprintf(stderr, "FAILED: %s\n", what.c_str());
    }
};

class fuzzer {
public:
    fuzzer(unsigned seed, fixtures& owned) : random_(seed), owned_(owned), make_(random_, owned) {}

    ~fuzzer() { release_all(); }

    std::map<std::wstring, class_figures> figures;
    failure_log failures;

    // One call on a random member of a random instance of the class.
    void call(const class_entry& entry) {
        auto& pool = pools_[entry.name];
        while (pool.size() < 3) pool.push_back(create<IDispatch>(*entry.clsid, IID_IDispatch));
        // Instances come and go, so that their termination steps run too.
        if (random_.chance(0.01)) {
            const unsigned which = random_.below(3);
            release_instance(pool[which]);
            pool[which] = create<IDispatch>(*entry.clsid, IID_IDispatch);
        }
        IDispatch* object = pool[random_.below(3)].get();
        class_figures& counts = figures[entry.name];
        if (random_.chance(0.08)) {
            ids_of_names(entry, object);
            ++counts.names;
            return;
        }
        invoke(entry, object, counts);
    }

    void release_all() {
        for (auto& [name, pool] : pools_)
            for (auto& instance : pool) release_instance(instance);
        pools_.clear();
    }

private:
    void release_instance(com_ptr<IDispatch>& instance) {
        IDispatch* raw = instance.get();
        instance.reset();
        // A section that CreateDIB handed over is the caller's to delete.
        auto found = sections_.find(raw);
        if (found == sections_.end()) return;
        for (HBITMAP section : found->second) DeleteObject(section);
        sections_.erase(found);
    }

    const member_entry* resolve(const interface_members& members, DISPID id, WORD flags) {
        for (unsigned i = 0; i < members.count; ++i) {
            const member_entry& m = members.members[i];
            const bool reaches = (m.invoke_kind == INVOKE_FUNC && (flags & DISPATCH_METHOD)) ||
                                 (m.invoke_kind == INVOKE_PROPERTYGET && (flags & DISPATCH_PROPERTYGET)) ||
                                 (m.invoke_kind == INVOKE_PROPERTYPUT && (flags & DISPATCH_PROPERTYPUT)) ||
                                 (m.invoke_kind == INVOKE_PROPERTYPUTREF && (flags & DISPATCH_PROPERTYPUTREF));
            if (m.dispid == id && reaches) return &m;
        }
        return nullptr;
    }

    WORD flags_for(const member_entry& member) {
        if (random_.chance(0.1)) {
            static const std::vector<WORD> odd = {0, DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF, 0xFFFF, 0x10,
                                                  DISPATCH_METHOD | DISPATCH_PROPERTYPUT};
            return random_.pick(odd);
        }
        switch (member.invoke_kind) {
        case INVOKE_FUNC: return random_.chance(0.7) ? DISPATCH_METHOD : DISPATCH_METHOD | DISPATCH_PROPERTYGET;
        case INVOKE_PROPERTYGET:
            return random_.chance(0.6) ? DISPATCH_PROPERTYGET : DISPATCH_METHOD | DISPATCH_PROPERTYGET;
        default: return random_.chance(0.9) ? DISPATCH_PROPERTYPUT : DISPATCH_PROPERTYPUTREF;
        }
    }

    // Keeps a call to what a client may do (see the top of the file); may
    // change the arguments that the member would get.
    void keep_to_the_contract(const class_entry& entry, IDispatch* object, const member_entry& member,
                              std::vector<VARIANT*>& slots) {
        const std::wstring class_name = entry.name, name = member.name;
        auto slot = [&](unsigned k) { return k < slots.size() ? slots[k] : nullptr; };
        if (class_name == L"cDIBSection") {
            unsigned width = 0, height = 1;
            if (name == L"Resample") width = 1, height = 0;
            if (name == L"CreateDIB") width = 1, height = 2;
            if (name == L"Create" || name == L"Resample" || name == L"CreateDIB") {
                const auto w = as_long(slot(width)), h = as_long(slot(height));
                if (w && h && !small_size(*w, *h) && !size_overflows(*w, *h)) {
                    set_long(slot(width), static_cast<LONG>(random_.below(300)) - 30);
                    set_long(slot(height), static_cast<LONG>(random_.below(300)) - 30);
                }
            }
            if (name == L"CreateDIB" && slot(3)) {
                // The section's handle must come back to be deleted: only a
                // variable of the parameter's type, or a Variant one, does.
                const VARTYPE t = V_VT(slot(3));
                if (t != (VT_BYREF | handle_type) && t != (VT_BYREF | VT_VARIANT) && slot(1)) set_long(slot(1), 0);
            }
            if (name == L"CopyToClipboard" && !slots.empty() && slots[0]) {
                // The box waits for a user; it has a test of its own.
                const auto v = is_missing(slots[0]) ? std::optional<LONG>(-1) : as_boolean(slots[0]);
                if (v && *v != 0) set_long(slots[0], 0);
            }
        }
        if (class_name == L"clsQuickSort" && name == L"Sort") {
            const auto last = as_long(slot(0));
            std::optional<LONG> first = is_missing(slot(1)) ? std::optional<LONG>(1) : as_long(slot(1));
            if (last && first) {
                const long long width = static_cast<long long>(*last) - *first;
                // A range nobody answers still costs about n * n / 2 events.
                if (width > 64 && width <= std::numeric_limits<LONG>::max()) {
                    const long long bounded = std::min<long long>(*first + random_.below(65), std::numeric_limits<LONG>::max());
                    set_long(slot(0), static_cast<LONG>(bounded));
                }
            }
        }
        if (class_name == L"clsBitmap" && name == L"SetBitmap" && slot(0)) {
            const auto handle = as_long(slot(0));
            if (handle && *handle != 0 && !owned_.is_fuzzer_bitmap(*handle) &&
                GetObjectType(reinterpret_cast<HGDIOBJ>(static_cast<LONG_PTR>(*handle))) != 0)
                set_long(slot(0), garbage_handle(random_));
        }
        if (class_name == L"clsEasyRegistry") keep_registry_in_scratch(object, name, member, slots);
    }

    std::wstring current_key(IDispatch* object) {
        com_ptr<_clsEasyRegistry> registry = com_ptr<IDispatch>::copy(object).query<_clsEasyRegistry>(IID__clsEasyRegistry);
        BSTR key = nullptr;
        registry->get_CurrentKey(&key);
        const std::wstring out = text_of(key);
        SysFreeString(key);
        return out;
    }

    static bool in_scratch(const std::wstring& key) {
        const std::wstring scratch = upper(scratch_path);
        return key.compare(0, scratch.size(), scratch) == 0 && (key.size() == scratch.size() || key[scratch.size()] == L'\\');
    }

    void keep_registry_in_scratch(IDispatch* object, const std::wstring& name, const member_entry& member,
                                  std::vector<VARIANT*>& slots) {
        if (slots.empty() || !slots[0]) return;
        const std::wstring key = current_key(object);
        if (name == L"CD") {
            const auto path = as_text(slots[0]);
            if (!path) return;
            const std::wstring p = upper(trimmed(*path));
            if (p == L"..") {
                const std::wstring scratch = upper(scratch_path);
                if (!key.empty() && key.size() <= scratch.size() + 1) set_text(slots[0], L"\\");
                return;
            }
            if (p.find(L"..") != std::wstring::npos) {
                set_text(slots[0], L"k1");
                return;
            }
            // Without a current key every path is absolute.
            const bool absolute = !p.empty() && (p[0] == L'\\' || key.empty());
            if (!absolute) return;
            const std::wstring full = p[0] == L'\\' ? p : L"\\" + p;
            static const wchar_t* const roots[] = {L"HKEY_CLASSES_ROOT", L"HKEY_CURRENT_USER", L"HKEY_LOCAL_MACHINE",
                                                   L"HKEY_USERS", L"HKEY_DYN_DATA", L"HKEY_CURRENT_CONFIG"};
            const std::wstring root = full.substr(1, full.find(L'\\', 1) == std::wstring::npos ? std::wstring::npos : full.find(L'\\', 1) - 1);
            bool known = false;
            for (const wchar_t* r : roots) known = known || root == r;
            std::wstring without_slash = full;
            if (without_slash.size() > 1 && without_slash.back() == L'\\') without_slash.pop_back();
            if (known && !in_scratch(without_slash)) set_text(slots[0], scratch_path);
            return;
        }
        const bool changes = name == L"MakeKey" || name == L"DeleteKey" || name == L"DeleteValue" ||
                             member.invoke_kind == INVOKE_PROPERTYPUT;
        if (!changes) return;
        // What changes the registry does so only under the scratch key (or
        // with no current key, which the platform refuses).
        if (!key.empty() && !in_scratch(key)) {
            com_ptr<_clsEasyRegistry> registry =
                com_ptr<IDispatch>::copy(object).query<_clsEasyRegistry>(IID__clsEasyRegistry);
            BSTR path = SysAllocString(scratch_path);
            LONG status = 0;
            registry->CD(path, &status);
            SysFreeString(path);
            failures.add("clsEasyRegistry: the current key left the scratch key: " + narrow(key));
        }
        if (name == L"MakeKey" || name == L"DeleteKey") {
            const auto subkey = as_text(slots[0]);
            if (!subkey) return;
            if (subkey->empty() || (*subkey)[0] == L'\\' || subkey->find(L"..") != std::wstring::npos ||
                trimmed(*subkey).empty())
                set_text(slots[0], L"k2");
        }
    }

    static bool orderly_refusal(HRESULT hr) {
        static const HRESULT orderly[] = {DISP_E_BADPARAMCOUNT,   DISP_E_BADVARTYPE,       DISP_E_MEMBERNOTFOUND,
                                          DISP_E_NONAMEDARGS,     DISP_E_OVERFLOW,         DISP_E_PARAMNOTFOUND,
                                          DISP_E_TYPEMISMATCH,    DISP_E_PARAMNOTOPTIONAL, DISP_E_NOTACOLLECTION,
                                          DISP_E_UNKNOWNINTERFACE, DISP_E_UNKNOWNNAME,     E_OUTOFMEMORY};
        return std::find(std::begin(orderly), std::end(orderly), hr) != std::end(orderly);
    }

    void invoke(const class_entry& entry, IDispatch* object, class_figures& counts) {
        const interface_members& members = *entry.members;
        DISPID id = 0;
        WORD flags = DISPATCH_METHOD;
        const member_entry* target = nullptr;
        if (members.count == 0 || random_.chance(0.03)) {
            // A DISPID that no member has.
            static const std::vector<DISPID> strangers = {0, -1, -4, 1, 0x60030000, 0x7FFFFFFF, DISPID_PROPERTYPUT};
            id = random_.pick(strangers);
            flags = static_cast<WORD>(1 + random_.below(15));
        } else {
            target = &members.members[random_.below(members.count)];
            if (!settings.skip.empty() &&
                settings.skip.find("," + narrow(entry.name) + "." + narrow(target->name) + ",") != std::string::npos)
                return;
            id = target->dispid;
            flags = flags_for(*target);
        }
        const member_entry* reached = resolve(members, id, flags);
        const unsigned declared = target ? target->param_count : 0;

        // Arguments for the member aimed at, some of them by name.
        call_storage storage;
        unsigned count = declared;
        if (random_.chance(0.25)) count = random_.below(declared + 3);
        const std::wstring class_name = entry.name;
        const std::wstring member_name = reached ? reached->name : L"";
        // The box of CopyToClipboard's default waits for a user.
        if (member_name == L"CopyToClipboard" && count == 0) count = 1;
        const bool is_put = flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF);
        std::vector<DISPID> names;
        unsigned positional = count;
        if (is_put && count > 0 && random_.chance(0.9)) {
            names.push_back(DISPID_PROPERTYPUT);
            positional = count - 1;
        }
        if (positional > 0 && random_.chance(0.15)) {
            const unsigned from = random_.below(positional + 1);
            for (unsigned k = from; k < positional; ++k)
                names.push_back(random_.chance(0.9) ? static_cast<DISPID>(k)
                                                    : static_cast<DISPID>(random_.bits() % 20) - 5);
            positional = from;
        }
        // rgvarg: the named arguments first, in the order of their names,
        // then the positional ones in reverse.
        std::vector<VARIANT> rgvarg(count);
        for (unsigned k = 0; k < count; ++k) {
            make_.texts = text_kind::any;
            if (class_name == L"clsEasyRegistry" && member_name == L"CD") make_.texts = text_kind::registry_path;
            if (class_name == L"clsEasyRegistry" && (member_name == L"MakeKey" || member_name == L"DeleteKey"))
                make_.texts = text_kind::registry_name;
            make_.argument(rgvarg[k], storage);
        }
        // Where each parameter of the member reached finds its argument, as
        // the dispatcher will look for it.
        std::vector<VARIANT*> slots(reached ? reached->param_count : 0, nullptr);
        for (unsigned p = 0; p < positional && p < slots.size(); ++p) slots[p] = &rgvarg[count - 1 - p];
        for (unsigned n = 0; n < names.size(); ++n) {
            DISPID d = names[n];
            if (d == DISPID_PROPERTYPUT && reached && reached->invoke_kind == INVOKE_PROPERTYPUT)
                d = static_cast<DISPID>(slots.size()) - 1;
            if (d >= 0 && static_cast<size_t>(d) < slots.size() && !slots[d]) slots[d] = &rgvarg[n];
        }
        if (reached) keep_to_the_contract(entry, object, *reached, slots);
        DISPPARAMS params = {rgvarg.empty() ? nullptr : rgvarg.data(), names.empty() ? nullptr : names.data(),
                             static_cast<UINT>(rgvarg.size()), static_cast<UINT>(names.size())};

        std::string arguments;
        for (unsigned p = count; p-- > 0;) arguments += " " + describe(rgvarg[p]);
        if (settings.trace) {
            std::fprintf(stderr, "%s %p %s flags %u named %zu:%s\n", narrow(entry.name).c_str(),
                         static_cast<void*>(object), reached ? narrow(reached->name).c_str() : "?", flags,
                         names.size(), arguments.c_str());
            std::fflush(stderr);
        }
        VARIANT result;
        VariantInit(&result);
        EXCEPINFO exception = {};
        UINT argument_error = 0xFFFFFFFF;
        const bool want_result = random_.chance(0.9), want_exception = random_.chance(0.9);
        const bool odd_interface = random_.chance(0.01);
        const bool want_argument_error = random_.chance(0.9);
        const HRESULT hr = object->Invoke(id, odd_interface ? IID_IDispatch : IID_NULL, random_.bits() & 0xFFFF, flags,
                                          &params, want_result ? &result : nullptr, want_exception ? &exception : nullptr,
                                          want_argument_error ? &argument_error : nullptr);
        ++counts.calls;
        if (exception.pfnDeferredFillIn) exception.pfnDeferredFillIn(&exception);

        const std::string what = narrow(entry.name) + "." + (reached ? narrow(reached->name) : "#" + std::to_string(id)) +
                                 " flags " + std::to_string(flags) + " named " + std::to_string(names.size()) +
                                 " (arguments in order:" + arguments + ")";
        if (hr == S_OK) {
            ++counts.succeeded;
            if (!reached) failures.add(what + ": a call that reaches no member succeeded");
            else if (want_result && reached->result_type != VT_VARIANT && reached->result_type != VT_EMPTY &&
                     V_VT(&result) != reached->result_type)
                failures.add(what + ": result of type " + std::to_string(V_VT(&result)));
        } else if (hr == DISP_E_EXCEPTION) {
            ++counts.raised;
            const SCODE code = exception.scode ? exception.scode : exception.wCode;
            if (!want_exception) failures.add(what + ": DISP_E_EXCEPTION without an EXCEPINFO to fill");
            if (class_name == L"clsEasyRegistry") failures.add(what + ": clsEasyRegistry raised " + hex(code));
            if (exception.scode ? SUCCEEDED(exception.scode) : exception.wCode == 0)
                failures.add(what + ": the exception carries no failure code");
            if (!exception.bstrSource || !*exception.bstrSource)
                failures.add(what + ": the exception carries no source (" + hex(code) + ")");
            if (!exception.bstrDescription || !*exception.bstrDescription)
                failures.add(what + ": the exception carries no description (" + hex(code) + ")");
            if (V_VT(&result) != VT_EMPTY) failures.add(what + ": a failed member wrote its result");
        } else if (orderly_refusal(hr) || (hr == E_INVALIDARG && (argument_error != 0xFFFFFFFF || !want_argument_error))) {
            // E_INVALIDARG is the platform's coercion refusing an argument
            // (a date out of range, an array never dimensioned), named by
            // puArgErr like any other refusal.
            ++counts.refused;
            if (V_VT(&result) != VT_EMPTY) failures.add(what + ": a refused call wrote a result");
        } else if (!want_exception && HRESULT_FACILITY(hr) == FACILITY_CONTROL && FAILED(hr)) {
            ++counts.raised;  // an automation error, with nowhere to put its text
        } else {
            failures.add(what + ": not an orderly answer: " + hex(hr));
        }
        SysFreeString(exception.bstrSource);
        SysFreeString(exception.bstrDescription);
        SysFreeString(exception.bstrHelpFile);
        VariantClear(&result);

        // A section that CreateDIB handed back is the fuzzer's to delete,
        // once the instance is gone (its bits address still names it).
        if (hr == S_OK && class_name == L"cDIBSection" && member_name == L"CreateDIB" && slots.size() > 3 && slots[3])
            keep_section(object, slots[3]);
        for (VARIANT& v : rgvarg) VariantClear(&v);
    }

    void keep_section(IDispatch* object, VARIANT* slot) {
        LONG_PTR handle = 0;
        if (V_VT(slot) == (VT_BYREF | VT_I4)) handle = *V_I4REF(slot);
        else if (V_VT(slot) == (VT_BYREF | VT_I8)) handle = static_cast<LONG_PTR>(*V_I8REF(slot));
        else if (V_VT(slot) == (VT_BYREF | VT_VARIANT) && V_VT(V_VARIANTREF(slot)) == handle_type)
            handle = handle_type == VT_I8 ? static_cast<LONG_PTR>(V_I8(V_VARIANTREF(slot))) : V_I4(V_VARIANTREF(slot));
        if (!handle) return;
        const HGDIOBJ section = reinterpret_cast<HGDIOBJ>(handle);
        if (GetObjectType(section) != OBJ_BITMAP || owned_.is_fuzzer_bitmap(static_cast<LONG>(handle))) return;
        sections_[object].push_back(static_cast<HBITMAP>(section));
    }

    // GetIDsOfNames with names a client should not send, and some it may.
    void ids_of_names(const class_entry& entry, IDispatch* object) {
        const interface_members& members = *entry.members;
        std::vector<std::wstring> texts;
        const unsigned count = random_.below(5);
        for (unsigned n = 0; n < count; ++n) {
            std::wstring name;
            const unsigned kind = random_.below(8);
            if (members.count && kind < 3) {
                const member_entry& m = members.members[random_.below(members.count)];
                name = m.name;
                if (n > 0 && m.param_count) name = m.params[random_.below(m.param_count)].name;
                for (wchar_t& c : name)
                    if (random_.chance(0.5)) c = static_cast<wchar_t>(iswupper(c) ? towlower(c) : towupper(c));
            } else if (kind == 3) {
                name = L"";
            } else if (kind == 4) {
                name = std::wstring(random_.chance(0.5) ? 70000 : 1025, L'N');
            } else {
                name = make_.any_text();
            }
            texts.push_back(name);
        }
        std::vector<LPOLESTR> names;
        for (std::wstring& t : texts) names.push_back(t.data());
        if (count > 1 && random_.chance(0.1)) names[1] = nullptr;
        std::vector<DISPID> ids(count + 1, 12345);
        const HRESULT hr = object->GetIDsOfNames(IID_NULL, names.empty() ? nullptr : names.data(), count,
                                                 LOCALE_USER_DEFAULT, ids.data());
        const std::string what = narrow(entry.name) + ".GetIDsOfNames(" + std::to_string(count) + " names)";
        if (hr != S_OK && hr != DISP_E_UNKNOWNNAME && hr != E_INVALIDARG) failures.add(what + ": " + hex(hr));
        if (hr == S_OK && count > 0) {
            bool known = false;
            for (unsigned i = 0; i < members.count; ++i) known = known || members.members[i].dispid == ids[0];
            if (!known) failures.add(what + ": an unknown DISPID " + std::to_string(ids[0]));
        }
        if (ids[count] != 12345) failures.add(what + ": wrote past the names");
    }

    random_source random_;
    fixtures& owned_;
    argument_maker make_;
    std::map<std::wstring, std::vector<com_ptr<IDispatch>>> pools_;
    std::map<IDispatch*, std::vector<HBITMAP>> sections_;
};

void remove_scratch_key() { RegDeleteTreeW(HKEY_CURRENT_USER, scratch_subkey); }

bool empty_clipboard() {
    if (!OpenClipboard(nullptr)) return false;
    EmptyClipboard();
    return CloseClipboard();
}

// Taken with the clipboard emptied, since CopyToClipboard leaves a bitmap there.
struct resource_figures {
    bool emptied = empty_clipboard();
    std::size_t heap = heap_bytes_in_use();
    long gdi = gdi_object_count();
    DWORD keys = open_registry_keys();
};

int run_fuzzer() {
    remove_scratch_key();
    if (RegCreateKeyExW(HKEY_CURRENT_USER, scratch_subkey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                        unique_hkey().put(), nullptr) != ERROR_SUCCESS)
        return fail("no scratch key"), 1;

    fixtures owned;
    owned.make();
    // Only in case: no call here asks for CopyToClipboard's box.
    box_dismisser boxes;

    // A warm-up with another seed: the platform's caches, the runtime's
    // one-time state and the predefined registry keys settle first.
    {
        fuzzer warm_up(settings.seed ^ 0x5A5A5A5Au, owned);
        for (unsigned i = 0; i < 300; ++i) {
            for (const class_entry& entry : class_table()) warm_up.call(entry);
            if (settings.trace && i % 20 == 0)
                std::fprintf(stderr, "GDI objects %ld, heap %zu\n", gdi_object_count(), heap_bytes_in_use());
        }
        if (warm_up.failures.count) fail(std::to_string(warm_up.failures.count) + " failures in the warm-up");
    }
    const resource_figures before;

    fuzzer run(settings.seed, owned);
    const auto start = std::chrono::steady_clock::now();
    unsigned long rounds = 0;
    auto more = [&] {
        return settings.seconds > 0
                   ? std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() < settings.seconds
                   : rounds < settings.calls_per_class;
    };
    for (; more(); ++rounds)
        for (const class_entry& entry : class_table()) run.call(entry);
    run.release_all();
    const resource_figures after;

    unsigned long total = 0;
    std::printf("fuzz_dispatch: seed %u, %lu rounds\n", settings.seed, rounds);
    std::printf("%-18s %8s %8s %8s %8s %8s\n", "class", "invoked", "S_OK", "refused", "raised", "names");
    for (const auto& [name, c] : run.figures) {
        std::printf("%-18s %8lu %8lu %8lu %8lu %8lu\n", narrow(name).c_str(), c.calls, c.succeeded, c.refused,
                    c.raised, c.names);
        total += c.calls + c.names;
    }
    std::printf("calls in all: %lu\n", total);
    std::printf("before, after: heap bytes in use %zu, %zu; GDI objects %ld, %ld; "
                "open registry keys %lu, %lu\n",
                before.heap, after.heap, before.gdi, after.gdi,
                static_cast<unsigned long>(before.keys), static_cast<unsigned long>(after.keys));
    std::fflush(stdout);

    if (run.failures.count) fail(std::to_string(run.failures.count) + " calls did not answer in order (30 listed)");
    if (before.gdi != after.gdi) fail("GDI objects left behind");
    if (before.keys != after.keys) fail("registry keys left open");
    // The heap's own bookkeeping moves a little between two walks; a leak of
    // even a few bytes a call over these calls is far more.
    const std::size_t tolerance = 64 * 1024;
    if (after.heap > before.heap + tolerance) fail("heap bytes in use grew by " + std::to_string(after.heap - before.heap));

    owned.release();
    remove_scratch_key();
    return failures_reported + static_cast<int>(run.failures.count);
}

}  // namespace
}  // namespace vx::test

int main(int argc, char** argv) {
    for (int i = 1; i + 1 < argc; ++i) {
        const std::string flag = argv[i];
        if (flag == "--seed") vx::test::settings.seed = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 0));
        else if (flag == "--seconds") vx::test::settings.seconds = std::strtod(argv[++i], nullptr);
        else if (flag == "--trace") vx::test::settings.trace = std::strtoul(argv[++i], nullptr, 0) != 0;
        else if (flag == "--skip") vx::test::settings.skip = "," + std::string(argv[++i]) + ",";
        else if (flag == "--calls") vx::test::settings.calls_per_class = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 0));
    }
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    const int failures = vx::test::run_fuzzer();
    CoUninitialize();
    std::printf("fuzz_dispatch: %d failures\n", failures);
    return failures > 125 ? 125 : failures;
}
