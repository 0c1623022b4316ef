#include "registry/easy_registry.h"

#include "frame/runtime.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <new>
#include <string>
#include <vector>

namespace vx {

namespace {

// The one number of every failed registry call; only the description, which
// stays inside the class, tells the causes apart.
constexpr long registry_failure = static_cast<long>(0x80040100);
constexpr wchar_t api_call_source[] = L"EasyRegistry[API Call]";

constexpr long status_no_current_key = 1;
constexpr long status_unknown_root = 2;
constexpr long status_value_mismatch = 3;
constexpr long status_unknown_kind = 4;

// Both the name and the data of a value go through buffers of this size.
constexpr DWORD buffer_size = 1024;

struct root_key {
    const wchar_t* name;
    HKEY handle;
};

// In the order DirKey lists them: HKEY_DYN_DATA before HKEY_CURRENT_CONFIG.
const root_key roots[] = {
    {L"HKEY_CLASSES_ROOT", HKEY_CLASSES_ROOT}, {L"HKEY_CURRENT_USER", HKEY_CURRENT_USER},
    {L"HKEY_LOCAL_MACHINE", HKEY_LOCAL_MACHINE}, {L"HKEY_USERS", HKEY_USERS},
    {L"HKEY_DYN_DATA", HKEY_DYN_DATA},         {L"HKEY_CURRENT_CONFIG", HKEY_CURRENT_CONFIG},
};

// The trap that every member sets: the status its body returns, or the
// number of any error raised inside it. No error info is left behind.
template <class Body>
long trap(Body&& body) noexcept {
    long status = 0;
    const long error = trap_status([&] { status = body(); });
    return error != 0 ? error : status;
}

const wchar_t* api_result_description(LONG code) {
    switch (code) {
    case ERROR_FILE_NOT_FOUND: return L"Key/Value does not exist.";
    case ERROR_ACCESS_DENIED: return L"Access to Registry Denied.";
    case ERROR_OUTOFMEMORY: return L"Out of memory.";
    case ERROR_INVALID_PARAMETER: return L"Invalid Parameter.";
    case ERROR_BADDB: return L"Corrupt Registry Database!";
    case ERROR_BADKEY: return L"Key name is bad.";
    case ERROR_CANTOPEN: return L"Cannot Open Key.";
    case ERROR_CANTREAD: return L"Cannot Read Key.";
    case ERROR_CANTWRITE: return L"Cannot Write Key.";
    default: return L"Undefined key error code!";
    }
}

// CheckApiResult: any code but success is the registry failure.
void check_api_result(LONG code) {
    if (code != ERROR_SUCCESS) raise_error(registry_failure, api_call_source, api_result_description(code));
}

std::wstring text_of(BSTR text) { return std::wstring(text ? text : L"", SysStringLen(text)); }

// RootOfPath: "\HKEY_USERS\A\B" gives "HKEY_USERS".
std::wstring root_of_path(const std::wstring& path) {
    std::wstring root;
    trap([&] {
        if (path.size() <= 1) return 0;
        const std::wstring rest = mid(path, 2);
        const long separator = instr(rest, L"\\");
        root = separator > 0 ? left(rest, separator - 1) : rest;
        return 0;
    });
    return root;
}

// SubKeyOfPath: "\HKEY_USERS\A\B" gives "A\B".
std::wstring sub_key_of_path(const std::wstring& path) {
    std::wstring sub_key;
    trap([&] {
        if (path.size() <= 1) return 0;
        const long separator = instr(path, L"\\", 2);
        if (separator > 0) sub_key = mid(path, separator + 1);
        return 0;
    });
    return sub_key;
}

const root_key* find_root(const std::wstring& name) {
    for (const root_key& root : roots)
        if (name == root.name) return &root;
    return nullptr;
}

// ---- Arrays ------------------------------------------------------------------

// SafeArrayAccessData for one scope.
class array_data {
public:
    explicit array_data(SAFEARRAY* array) : array_(array) {
        const HRESULT hr = SafeArrayAccessData(array_, &data_);
        if (FAILED(hr)) raise_hresult(hr);
    }
    array_data(const array_data&) = delete;
    array_data& operator=(const array_data&) = delete;
    ~array_data() { SafeArrayUnaccessData(array_); }
    template <class Element>
    Element* elements() const { return static_cast<Element*>(data_); }

private:
    SAFEARRAY* array_;
    void* data_ = nullptr;
};

// A new array put in a variant at once, so that the variant owns it.
SAFEARRAY* new_array(unique_variant& value, VARTYPE element_type, std::vector<SAFEARRAYBOUND> bounds) {
    SAFEARRAY* array = SafeArrayCreate(element_type, static_cast<UINT>(bounds.size()), bounds.data());
    if (!array) throw std::bad_alloc();
    VARIANT* target = value.put();
    V_VT(target) = VT_ARRAY | element_type;
    V_ARRAY(target) = array;
    return array;
}

void string_array(unique_variant& value, const std::vector<std::wstring>& texts) {
    array_data data(new_array(value, VT_BSTR, {{static_cast<ULONG>(texts.size()), 0}}));
    for (std::size_t i = 0; i < texts.size(); ++i) data.elements<BSTR>()[i] = bstr_from(texts[i]).release();
}

void byte_array(unique_variant& value, const std::vector<unsigned char>& bytes) {
    SAFEARRAY* array = new_array(value, VT_UI1, {{static_cast<ULONG>(bytes.size()), 0}});
    if (bytes.empty()) return;
    array_data data(array);
    std::copy(bytes.begin(), bytes.end(), data.elements<unsigned char>());
}

// Replaces what a ByRef Variant held.
void assign(VARIANT* target, unique_variant& value) {
    const HRESULT hr = VariantClear(target);
    if (FAILED(hr)) raise_hresult(hr);
    value.detach_to(target);
}

// DimensionCount: 0 for an array with no dimensions allocated.
unsigned dimension_count(const VARIANT& array) {
    return V_ARRAY(&array) ? SafeArrayGetDim(V_ARRAY(&array)) : 0;
}

// ---- Renderings ----------------------------------------------------------------

using bytes = std::vector<unsigned char>;

// An index outside the data is the runtime's subscript fault, as it would be
// for a word read from a number of odd length.
unsigned char byte_at(const bytes& data, long index) {
    if (index < 0 || index >= static_cast<long>(data.size())) raise_error(error_subscript_out_of_range, runtime_error_source);
    return data[static_cast<std::size_t>(index)];
}

// "1 A FF" for the bytes 01 0A FF.
std::wstring hex_of_bytes(const bytes& data) {
    std::wstring text;
    for (unsigned char b : data) text += hex(b) + L" ";
    return trim(text);
}

// Four digits a word, taken from the end of the data: 78 56 34 12 give
// "12345678".
std::wstring hex_of_words(const bytes& data) {
    const long n = static_cast<long>(data.size());
    std::wstring text;
    for (long j = 0; j <= n - 1; j += 2) {
        const unsigned word = byte_at(data, n - 1 - j) * 256u + byte_at(data, n - 2 - j);
        const std::wstring digits = hex(word);
        text += std::wstring(4 - digits.size(), L'0') + digits;
    }
    return text;
}

// The number that the bytes make, least significant first.
double unsigned_value(const bytes& data) {
    double sum = 0;
    for (std::size_t j = 0; j < data.size(); ++j) sum += data[j] * power(256.0, static_cast<double>(j));
    if (!std::isfinite(sum)) raise_error(error_overflow, runtime_error_source);
    return sum;
}

std::wstring text_of_bytes(const bytes& data, std::size_t count) {
    return from_ansi(reinterpret_cast<const char*>(data.data()), count);
}

// The three elements of a read, indexed by enmValueOfIndex.
void read_result(unique_variant& value, DWORD registry_type, bytes data) {
    std::wstring text;
    double number = 0;
    unique_variant data_element;
    if (data.empty()) {
        byte_array(data_element, data);
    } else if (registry_type == REG_BINARY) {
        text = hex_of_bytes(data);
        byte_array(data_element, data);
    } else if (registry_type == REG_DWORD) {
        text = hex_of_words(data);
        number = unsigned_value(data);
        byte_array(data_element, data);
    } else {
        if (data.back() == 0) data.pop_back();
        text = text_of_bytes(data, data.size());
        // Nothing left after the zero: the byte element keeps that zero.
        byte_array(data_element, data.empty() ? bytes{0} : data);
    }
    array_data elements(new_array(value, VT_VARIANT, {{3, 0}}));
    VARIANT* element = elements.elements<VARIANT>();
    V_VT(&element[erStringFormat]) = VT_BSTR;
    V_BSTR(&element[erStringFormat]) = bstr_from(text).release();
    data_element.detach_to(&element[erByteFormat]);
    V_VT(&element[erDWordFormat]) = VT_R8;
    V_R8(&element[erDWordFormat]) = number;
}

// ---- Writing ---------------------------------------------------------------------

struct value_data {
    DWORD registry_type;
    std::string bytes;
};

// The accepted-value table: the data to write, or nothing for a value that
// does not match its kind.
bool data_to_write(long kind, const VARIANT& value, value_data& out) {
    const std::wstring name = type_name(value);
    switch (kind) {
    case erSTRING:
        if (name != L"String") return false;
        out = {REG_SZ, to_ansi(text_of(V_BSTR(&value))) + '\0'};
        return true;
    case erByte: {
        if (name != L"Byte()" || dimension_count(value) != 1) return false;
        SAFEARRAY* array = V_ARRAY(&value);
        out = {REG_BINARY, {}};
        if (array->rgsabound[0].cElements > 0) {
            array_data data(array);
            out.bytes.assign(data.elements<char>(), array->rgsabound[0].cElements);
        }
        return true;
    }
    case erDWord: {
        if (name != L"Double") return false;
        const double number = V_R8(&value);
        if (int_floor(number) != number || number < 0 || number > 4294967295.0) return false;
        const auto whole = static_cast<std::uint32_t>(number);
        out = {REG_DWORD, {static_cast<char>(whole & 0xFF), static_cast<char>((whole >> 8) & 0xFF),
                           static_cast<char>((whole >> 16) & 0xFF), static_cast<char>(whole >> 24)}};
        return true;
    }
    default: return false;
    }
}

// The columns of one listed value, indexed by enmDirValueIndex.
struct listed_value {
    std::wstring column[3];
};

listed_value listed(const char* name, DWORD name_length, DWORD registry_type, const bytes& data) {
    listed_value row;
    row.column[erValueName] = from_ansi(name, name_length);
    if (data.empty()) return row;
    if (registry_type == REG_BINARY) {
        row.column[erValueType] = L"1";
        row.column[erValue] = hex_of_bytes(data);
    } else if (registry_type == REG_DWORD) {
        row.column[erValueType] = L"2";
        row.column[erValue] =
            hex_of_words(data) + L" (" + format_number(unsigned_value(data), L"0,000,000,000") + L")";
    } else {
        // Unlike a read, the listing drops the last byte of text unseen.
        row.column[erValueType] = L"0";
        row.column[erValue] = text_of_bytes(data, data.size() - 1);
    }
    return row;
}

void listing(unique_variant& value, const std::vector<listed_value>& rows) {
    array_data data(new_array(value, VT_BSTR, {{3, 0}, {static_cast<ULONG>(rows.size()), 0}}));
    BSTR* cell = data.elements<BSTR>();
    // The first index, the column, varies fastest.
    for (const listed_value& row : rows)
        for (const std::wstring& text : row.column) *cell++ = bstr_from(text).release();
}

DWORD count_of(HKEY key, bool values) {
    std::string key_class(buffer_size, ' ');
    DWORD class_length = buffer_size, sub_keys = 0, longest_sub_key = 0, longest_class = 0, value_count = 0,
          longest_value_name = 0, longest_value = 0, security_descriptor = 0;
    FILETIME last_write = {};
    check_api_result(RegQueryInfoKeyA(key, key_class.data(), &class_length, nullptr, &sub_keys, &longest_sub_key,
                                      &longest_class, &value_count, &longest_value_name, &longest_value,
                                      &security_descriptor, &last_write));
    return values ? value_count : sub_keys;
}

}  // namespace

easy_registry::easy_registry(const class_entry& entry) : automation_object(entry) {}

easy_registry::~easy_registry() {
    // Closing ignores its result: the termination step never fails.
    key_handle_.reset();
    current_key_.clear();
}

// Closing a key that failed to open has nothing to close.
void easy_registry::close_current_key() {
    if (key_handle_) check_api_result(RegCloseKey(key_handle_.release()));
}

// OpenKeyPath: resolves a path against the current key and opens it.
long easy_registry::open_key_path(std::wstring path, REGSAM access) {
    return trap([&]() -> long {
        path = upper_case(trim(path));
        if (path == L"\\") {
            if (!current_key_.empty()) close_current_key();
            current_key_.clear();
            return 0;
        }
        if (path == L"..") {
            if (current_key_.empty()) return status_no_current_key;
            long last = 0;
            for (long hit = instr(current_key_, L"\\", 1); hit > 0; hit = instr(current_key_, L"\\", hit + 1))
                last = hit;
            return open_key_path(left(current_key_, last), access);
        }
        if (path.size() > 1 && path.back() == L'\\') path.pop_back();
        if (current_key_.empty() && (path.empty() || path.front() != L'\\')) path.insert(0, L"\\");

        if (path.front() != L'\\') {
            current_key_ += L"\\" + path;
            // A current key that failed to open has no handle to open below:
            // resolve its whole new path from the root instead.
            if (!key_handle_) return open_key_path(current_key_, access);
            unique_hkey opened;
            const LONG code = RegOpenKeyExA(key_handle_.get(), to_ansi(path).c_str(), 0, access, opened.put());
            // The previous key must not stand in for the one that failed.
            if (code != ERROR_SUCCESS) key_handle_.reset();
            check_api_result(code);
            close_current_key();
            key_handle_ = std::move(opened);
            return 0;
        }

        if (!current_key_.empty()) {
            close_current_key();
            current_key_.clear();
        }
        const root_key* root = find_root(root_of_path(path));
        if (!root) return status_unknown_root;
        current_key_ = path;
        check_api_result(
            RegOpenKeyExA(root->handle, to_ansi(sub_key_of_path(path)).c_str(), 0, access, key_handle_.put()));
        return 0;
    });
}

HRESULT easy_registry::get_CurrentKey(BSTR* result) {
    if (!result) return E_POINTER;
    *result = SysAllocStringLen(current_key_.data(), static_cast<UINT>(current_key_.size()));
    return *result ? S_OK : E_OUTOFMEMORY;
}

HRESULT easy_registry::CD(BSTR strDirectory, LONG* result) {
    if (!result) return E_POINTER;
    *result = trap([&] { return open_key_path(text_of(strDirectory), KEY_ALL_ACCESS); });
    return S_OK;
}

HRESULT easy_registry::DirKey(VARIANT* DirList, LONG* result) {
    if (!DirList || !result) return E_POINTER;
    *result = trap([&]() -> long {
        if (current_key_.empty()) {
            std::vector<std::wstring> names;
            for (const root_key& root : roots) names.push_back(root.name);
            unique_variant list;
            string_array(list, names);
            assign(DirList, list);
            return 0;
        }
        const long opened = open_key_path(current_key_, KEY_READ);
        if (opened != 0) return opened;
        const DWORD count = count_of(key_handle_.get(), false);
        unique_variant list;
        if (count < 1) {
            V_VT(list.get()) = VT_NULL;
        } else {
            std::vector<std::wstring> names;
            for (DWORD i = 0; i < count; ++i) {
                std::string name(buffer_size, ' '), key_class(buffer_size, ' ');
                DWORD name_length = buffer_size, class_length = buffer_size;
                FILETIME last_write = {};
                check_api_result(RegEnumKeyExA(key_handle_.get(), i, name.data(), &name_length, nullptr,
                                               key_class.data(), &class_length, &last_write));
                names.push_back(from_ansi(name.data(), name_length));
            }
            string_array(list, names);
        }
        assign(DirList, list);
        return open_key_path(current_key_, KEY_ALL_ACCESS);
    });
    return S_OK;
}

HRESULT easy_registry::DirValue(VARIANT* ValueList, LONG* result) {
    if (!ValueList || !result) return E_POINTER;
    *result = trap([&]() -> long {
        if (current_key_.empty()) return error_invalid_use_of_null;
        const long opened = open_key_path(current_key_, KEY_READ);
        if (opened != 0) return opened;
        const DWORD count = count_of(key_handle_.get(), true);
        unique_variant list;
        if (count < 1) {
            V_VT(list.get()) = VT_NULL;
        } else {
            std::vector<listed_value> rows;
            for (DWORD i = 0; i < count; ++i) {
                std::string name(buffer_size, ' ');
                bytes data(buffer_size + 1, 0);
                DWORD name_length = buffer_size, data_length = buffer_size, registry_type = 0;
                check_api_result(RegEnumValueA(key_handle_.get(), i, name.data(), &name_length, nullptr,
                                               &registry_type, data.data(), &data_length));
                data.resize(data_length);
                rows.push_back(listed(name.data(), name_length, registry_type, data));
            }
            listing(list, rows);
        }
        assign(ValueList, list);
        open_key_path(current_key_, KEY_ALL_ACCESS);  // its status is not the listing's
        return 0;
    });
    return S_OK;
}

HRESULT easy_registry::put_ValueOf(BSTR strValueName, enmDataType* lngValueType, LONG* lRet, VARIANT vValue) {
    if (!lngValueType || !lRet) return E_POINTER;
    *lRet = trap([&]() -> long {
        const long kind = *lngValueType;
        if (kind < erSTRING || kind > erDWord) return status_unknown_kind;
        unique_variant value;
        const HRESULT copied = VariantCopyInd(value.get(), &vValue);
        if (FAILED(copied)) raise_hresult(copied);
        value_data data;
        if (!data_to_write(kind, *value.get(), data)) return status_value_mismatch;
        // A key that cannot be opened for writing gets nothing written, and
        // neither does any other key.
        if (open_key_path(current_key_, KEY_WRITE) != 0) return registry_failure;
        check_api_result(RegSetValueExA(key_handle_.get(), to_ansi(text_of(strValueName)).c_str(), 0,
                                        data.registry_type, reinterpret_cast<const BYTE*>(data.bytes.data()),
                                        static_cast<DWORD>(data.bytes.size())));
        return open_key_path(current_key_, KEY_ALL_ACCESS);
    });
    return S_OK;
}

HRESULT easy_registry::get_ValueOf(BSTR strValueName, enmDataType* lngValueType, LONG* lRet, VARIANT* result) {
    if (!lngValueType || !lRet || !result) return E_POINTER;
    VariantInit(result);
    unique_variant value;  // stays Empty when an error strikes
    *lRet = trap([&]() -> long {
        if (!current_key_.empty()) {
            const long opened = open_key_path(current_key_, KEY_READ);
            if (opened != 0) {
                V_VT(value.get()) = VT_NULL;
                return opened;
            }
        }
        bytes data(buffer_size);
        DWORD registry_type = 0, length = buffer_size;
        check_api_result(RegQueryValueExA(key_handle_.get(), to_ansi(text_of(strValueName)).c_str(), nullptr,
                                          &registry_type, data.data(), &length));
        data.resize(length);
        *lngValueType = registry_type == REG_BINARY ? erByte : registry_type == REG_DWORD ? erDWord : erSTRING;
        unique_variant read;
        read_result(read, registry_type, std::move(data));
        if (!current_key_.empty()) {
            const long reopened = open_key_path(current_key_, KEY_ALL_ACCESS);
            if (reopened != 0) {
                V_VT(value.get()) = VT_NULL;
                return reopened;
            }
        }
        read.detach_to(value.get());
        return 0;
    });
    value.detach_to(result);
    return S_OK;
}

HRESULT easy_registry::MakeKey(BSTR strDirectory, LONG* result) {
    if (!result) return E_POINTER;
    *result = trap([&] {
        SECURITY_ATTRIBUTES security = {0, nullptr, FALSE};
        char no_class[] = "";
        HKEY created = nullptr;
        DWORD disposition = 0;
        check_api_result(RegCreateKeyExA(key_handle_.get(), to_ansi(text_of(strDirectory)).c_str(), 0, no_class,
                                         REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, &security, &created,
                                         &disposition));
        check_api_result(RegCloseKey(created));
        return 0L;
    });
    return S_OK;
}

HRESULT easy_registry::DeleteKey(BSTR strName, LONG* result) {
    if (!result) return E_POINTER;
    *result = trap([&] {
        check_api_result(RegDeleteKeyA(key_handle_.get(), to_ansi(text_of(strName)).c_str()));
        return 0L;
    });
    return S_OK;
}

HRESULT easy_registry::DeleteValue(BSTR strName, LONG* result) {
    if (!result) return E_POINTER;
    *result = trap([&] {
        check_api_result(RegDeleteValueA(key_handle_.get(), to_ansi(text_of(strName)).c_str()));
        return 0L;
    });
    return S_OK;
}

HRESULT create_easy_registry(const class_entry& entry, REFIID iid, void** object) {
    return create_instance<easy_registry>(entry, iid, object);
}

}  // namespace vx
