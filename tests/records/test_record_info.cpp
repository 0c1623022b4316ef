// Record semantics as an automation client gets them from the platform's
// IRecordInfo over our type library: identities, empty records, and
// ownership of strings and arrays through copy and clear.
#include "support/component.h"
#include "vxTypes32_types.h"

#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vx::test {
namespace {

using namespace vxTypes32;

std::string narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

bool on_wine() { return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr; }

com_ptr<IRecordInfo> record_info(const GUID& type) {
    com_ptr<ITypeLib> library;
    EXPECT_EQ(S_OK, LoadTypeLibEx(dll_path().c_str(), REGKIND_NONE, library.put()));
    com_ptr<ITypeInfo> info;
    if (library) EXPECT_EQ(S_OK, library->GetTypeInfoOfGuid(type, info.put()));
    com_ptr<IRecordInfo> record;
    if (info) EXPECT_EQ(S_OK, GetRecordInfoFromTypeInfo(info.get(), record.put()));
    return record;
}

GUID guid(const wchar_t* text) {
    GUID value{};
    CLSIDFromString(text, &value);
    return value;
}

// The published sizes are the 32-bit layout's; a 64-bit build's follow from
// pointer-sized fields, as its generated declarations have them.
constexpr ULONG layout_size(std::size_t declared, ULONG published) {
    return sizeof(void*) == 4 ? published : static_cast<ULONG>(declared);
}

TEST(RecordInfo, EveryRecordHasItsIdentityAndInitsToZeroes) {
    struct record_identity {
        const wchar_t *name, *guid;
        ULONG size, fields;
        const wchar_t *first_field, *last_field;
    };
    const record_identity records[] = {
        {L"IPDataRecord", L"{E3DA102C-9C32-4E0F-9ADA-E2268419DB69}", layout_size(sizeof(IPDataRecord), 256), 44, L"array_type", L"Comments"},
        {L"Veltrax_point_transform", L"{83A179F6-B2BB-4E75-8221-F9D1ABC312FC}", layout_size(sizeof(Veltrax_point_transform), 124), 16, L"DoTransform", L"zscale"},
        {L"datum_transform", L"{0BE89198-F9A7-48E8-935E-B60E4A197359}", layout_size(sizeof(datum_transform), 316), 9, L"datum_name", L"datum_parameters"},
        {L"Coordinate_System", L"{68FCAB92-37EA-4E88-A90F-08701E450CFB}", layout_size(sizeof(Coordinate_System), 308), 28, L"IsValid",
         L"projection_parameters"},
        {L"OPENFILENAME", L"{780C64B3-4B4F-4904-BA27-E222F086B01D}", layout_size(sizeof(OPENFILENAME), 76), 20, L"lStructSize", L"lpTemplateName"},
        {L"CHOOSECOLOR", L"{D9BF45C5-28FB-459D-AE9B-1AE0DF94E693}", layout_size(sizeof(CHOOSECOLOR), 36), 9, L"lStructSize", L"lpTemplateName"},
        {L"BrowseInfo", L"{01DF86B3-691C-44D7-A0D1-E78C9694C928}", layout_size(sizeof(BrowseInfo), 32), 8, L"hWndOwner", L"iImage"},
        {L"Veltrax_posting_file", L"{BC0B5FC5-83A3-4870-A308-01A376D5DE20}", layout_size(sizeof(Veltrax_posting_file), 6124), 22, L"file_name", L"macro_text"},
        {L"Veltrax_posting_field", L"{D25526CD-58D1-4A20-877A-75D71C0FD05B}", layout_size(sizeof(Veltrax_posting_field), 176), 28, L"Name", L"ip_topo_ygcol"},
        {L"Veltrax_posting_source", L"{864F6AF3-01BF-4540-8F7C-0182FC35463D}", layout_size(sizeof(Veltrax_posting_source), 29796), 54, L"FileDef",
         L"point_transform"},
        {L"Veltrax_facet_file", L"{31582D70-955D-497B-8EF2-DB1EBCAA5433}", layout_size(sizeof(Veltrax_facet_file), 52), 13, L"format", L"coord_zpos"},
    };
    for (const record_identity& r : records) {
        const std::string where = narrow(r.name);
        com_ptr<IRecordInfo> info = record_info(guid(r.guid));
        ASSERT_TRUE(info) << where;
        unique_bstr name;
        GUID found{};
        ULONG size = 0;
        EXPECT_EQ(S_OK, info->GetName(name.put())) << where;
        EXPECT_EQ(r.name, text_of(name.get())) << where;
        EXPECT_EQ(S_OK, info->GetGuid(&found)) << where;
        EXPECT_TRUE(IsEqualGUID(guid(r.guid), found)) << where;
        EXPECT_EQ(S_OK, info->GetSize(&size)) << where;
        EXPECT_EQ(r.size, size) << where;
        // Room for more names than any record has: Wine does not count
        // them without an array to fill.
        BSTR names[64] = {};
        ULONG count = 64;
        EXPECT_EQ(S_OK, info->GetFieldNames(&count, names)) << where;
        EXPECT_EQ(r.fields, count) << where;
        if (count == r.fields) {
            EXPECT_EQ(r.first_field, text_of(names[0])) << where;
            EXPECT_EQ(r.last_field, text_of(names[count - 1])) << where;
        }
        for (ULONG i = 0; i < count && i < 64; ++i) SysFreeString(names[i]);

        std::vector<unsigned char> bytes(r.size + 8, 0xA5);
        ASSERT_EQ(S_OK, info->RecordInit(bytes.data())) << where;
        EXPECT_EQ(std::vector<unsigned char>(r.size), std::vector<unsigned char>(bytes.begin(), bytes.end() - 8))
            << where << ": RecordInit leaves bytes nonzero";
        EXPECT_EQ(0xA5, bytes[r.size]) << where << ": RecordInit wrote past the end";
    }
}

using record_bytes = unsigned char*;
BSTR& string_at(record_bytes record, ULONG offset) { return *reinterpret_cast<BSTR*>(record + offset); }
std::wstring text_for(ULONG offset) { return L"text at " + std::to_wstring(offset); }

// Puts a string of its own at every offset of source, copies it and clears
// the source and then the copy, checking at each step who owns what. The
// numbers are left as fill_numbers set them; so are the bytes of padding,
// which RecordInit zeroed. Gives false, having freed everything, when on
// Wine the copy left strings out.
bool copy_and_clear(IRecordInfo* info, ULONG size, const std::vector<ULONG>& strings, const std::string& where,
                    const std::function<void(record_bytes)>& fill_numbers) {
    std::vector<unsigned char> source_bytes(size), copy_bytes(size);
    record_bytes source = source_bytes.data(), copy = copy_bytes.data();
    EXPECT_EQ(S_OK, info->RecordInit(source)) << where;
    EXPECT_EQ(S_OK, info->RecordInit(copy)) << where;
    fill_numbers(source);
    for (ULONG offset : strings) string_at(source, offset) = bstr_from(text_for(offset)).release();
    auto release_leftovers = [&] {  // what a platform that fell short left; never twice
        for (ULONG offset : strings) {
            BSTR &mine = string_at(source, offset), &theirs = string_at(copy, offset);
            if (theirs != mine) SysFreeString(theirs);
            SysFreeString(mine);
            mine = theirs = nullptr;
        }
    };
    auto count = [&](const std::function<bool(ULONG)>& wrong) {
        size_t n = 0;
        for (ULONG offset : strings) n += wrong(offset);
        return n;
    };

    EXPECT_EQ(S_OK, info->RecordCopy(source, copy)) << where;
    if (on_wine() && count([&](ULONG at) { return !string_at(copy, at); })) {
        release_leftovers();
        return false;
    }
    EXPECT_EQ(0u, count([&](ULONG at) { return string_at(copy, at) == string_at(source, at); }))
        << where << ": strings the copy shares with its source";
    EXPECT_EQ(0u, count([&](ULONG at) { return text_of(string_at(copy, at)) != text_for(at); }))
        << where << ": strings the copy does not hold";
    std::vector<unsigned char> numbers_of_source = source_bytes, numbers_of_copy = copy_bytes;
    for (ULONG offset : strings) {
        string_at(numbers_of_source.data(), offset) = string_at(numbers_of_copy.data(), offset) = nullptr;
    }
    EXPECT_TRUE(numbers_of_source == numbers_of_copy) << where << ": bytes of numbers not copied";

    EXPECT_EQ(S_OK, info->RecordClear(source)) << where;
    EXPECT_EQ(0u, count([&](ULONG at) { return string_at(source, at) != nullptr; }))
        << where << ": strings clearing left in the source";
    EXPECT_EQ(0u, count([&](ULONG at) { return text_of(string_at(copy, at)) != text_for(at); }))
        << where << ": strings of the copy that clearing the source took";
    EXPECT_EQ(S_OK, info->RecordClear(copy)) << where;
    EXPECT_EQ(0u, count([&](ULONG at) { return string_at(copy, at) != nullptr; }))
        << where << ": strings clearing left in the copy";
    release_leftovers();
    return true;
}

TEST(RecordInfo, CopyAndClearOwnTheStrings) {
    if (sizeof(void*) == 8) GTEST_SKIP() << "platform: Wine's 64-bit RecordCopy faults on a record with strings";
    // Records of strings and numbers only, with no gaps: every byte that is
    // not a string is given a value.
    struct string_record {
        const char* name;
        const GUID* type;
        ULONG size;
        std::vector<ULONG> strings;
    };
    const string_record cases[] = {
        {"OPENFILENAME", &GUID_OPENFILENAME, 76, {12, 16, 28, 36, 44, 48, 60, 72}},
        {"CHOOSECOLOR", &GUID_CHOOSECOLOR, 36, {16, 32}},
        {"Veltrax_facet_file", &GUID_Veltrax_facet_file, 52, {12, 32}},
    };
    for (const string_record& c : cases) {
        com_ptr<IRecordInfo> info = record_info(*c.type);
        ASSERT_TRUE(info) << c.name;
        EXPECT_TRUE(copy_and_clear(info.get(), c.size, c.strings, c.name, [&](record_bytes record) {
            for (ULONG i = 0; i < c.size; ++i) record[i] = static_cast<unsigned char>(7 * i + 1);
        })) << c.name;
    }
}

// A reading followed by a nonzero word where Wine's RecordClear, reading the
// dynamic-array field itself as an array descriptor, looks for a lock count:
// it then refuses harmlessly instead of freeing memory it does not own. The
// word lies past the record, so a correct platform never reads it.
struct guarded_reading {
    IPDataRecord record;
    ULONG guard[4] = {1, 0, 0, 0};
};
static_assert(offsetof(guarded_reading, guard) == sizeof(IPDataRecord));

const std::vector<float> repeat_values = {1.5f, -2.25f, 3.0f, 0.125f};
constexpr LONG repeat_first_index = 1;

SAFEARRAY* make_repeat_data() {
    SAFEARRAYBOUND bound{static_cast<ULONG>(repeat_values.size()), repeat_first_index};
    SAFEARRAY* array = SafeArrayCreate(VT_R4, 1, &bound);
    std::copy(repeat_values.begin(), repeat_values.end(), static_cast<float*>(array->pvData));
    return array;
}

// The elements of a one-dimensional Single array from the first index.
std::vector<float> repeat_values_of(SAFEARRAY* array) {
    VARTYPE type = VT_EMPTY;
    LONG lower = 0, upper = -1;
    if (!array || SafeArrayGetDim(array) != 1 || SafeArrayGetVartype(array, &type) != S_OK || type != VT_R4) return {};
    SafeArrayGetLBound(array, 1, &lower);
    SafeArrayGetUBound(array, 1, &upper);
    if (lower != repeat_first_index) return {};
    const float* data = static_cast<const float*>(array->pvData);
    return std::vector<float>(data, data + (upper - lower + 1));
}

// Frees what a platform that fell short left behind.
void release_reading(IPDataRecord& reading) {
    for (BSTR* text : {&reading.array_type, &reading.Comments}) SysFreeString(std::exchange(*text, nullptr));
    if (reading.repeat_data) SafeArrayDestroy(std::exchange(reading.repeat_data, nullptr));
}

// The repeat array of a reading: its absence read back, then clearing, then
// copying, which is tried only once clearing has shown the platform handles
// array fields (copying misreads the array before any check could stop it).
bool reading_with_repeat_array(IRecordInfo* info) {
    IPDataRecord empty{};
    unique_variant array;
    EXPECT_EQ(S_OK, info->RecordInit(&empty));
    const HRESULT hr = info->GetField(&empty, L"repeat_data", array.put());
    const bool reads_arrays = !(on_wine() && hr == E_NOTIMPL);
    if (reads_arrays) {
        EXPECT_EQ(S_OK, hr);
        EXPECT_TRUE(V_VT(array.get()) & VT_ARRAY) << "no repeat array reads back as an array";
        EXPECT_EQ(nullptr, V_ARRAY(array.get())) << "and there is none";
    }

    guarded_reading cleared;
    EXPECT_EQ(S_OK, info->RecordInit(&cleared.record));
    cleared.record.Comments = bstr_from(L"cleared").release();
    cleared.record.repeat_data = make_repeat_data();
    EXPECT_EQ(S_OK, info->RecordClear(&cleared.record));
    EXPECT_EQ(nullptr, cleared.record.Comments) << "clearing frees the string after the array";
    const bool handled = cleared.record.repeat_data == nullptr;
    release_reading(cleared.record);
    if (on_wine() && !handled) return false;
    EXPECT_TRUE(handled) << "clearing frees the repeat array and nulls its reference";

    IPDataRecord source{}, copy{};
    EXPECT_EQ(S_OK, info->RecordInit(&source));
    EXPECT_EQ(S_OK, info->RecordInit(&copy));
    source.array_type = bstr_from(L"dipole-dipole").release();
    source.Comments = bstr_from(L"repeat readings").release();
    source.num_repeats = 4;
    source.repeat_data = make_repeat_data();
    EXPECT_EQ(S_OK, info->RecordCopy(&source, &copy));
    EXPECT_NE(source.Comments, copy.Comments) << "the copy has its own strings";
    EXPECT_EQ(L"repeat readings", text_of(copy.Comments)) << "the string after the array";
    EXPECT_EQ(4, copy.num_repeats);
    EXPECT_NE(source.repeat_data, copy.repeat_data) << "the copy has its own repeat array";
    EXPECT_EQ(repeat_values, repeat_values_of(copy.repeat_data)) << "the copy's repeat array";
    EXPECT_EQ(S_OK, info->RecordClear(&source));
    EXPECT_EQ(nullptr, source.repeat_data);
    EXPECT_EQ(repeat_values, repeat_values_of(copy.repeat_data)) << "after the source is cleared";
    EXPECT_EQ(S_OK, info->RecordClear(&copy));
    EXPECT_EQ(nullptr, copy.repeat_data);
    release_reading(source);
    release_reading(copy);
    return reads_arrays;
}

// Every string of a posting source, by offset: its file definition's, its
// own, those of each of the 129 field settings and of the two embedded
// coordinate records.
std::vector<ULONG> posting_source_strings() {
    std::vector<ULONG> offsets = {0, 4, 16};  // file_name, file_format, data_source
    for (ULONG i = 0; i < 129; ++i) offsets.push_back(48 + 4 * i);    // namdat
    for (ULONG i = 0; i < 129; ++i) offsets.push_back(564 + 4 * i);   // namuse
    for (ULONG i = 0; i < 17; ++i) offsets.push_back(5988 + 4 * i);   // macro_name
    for (ULONG i = 0; i < 17; ++i) offsets.push_back(6056 + 4 * i);   // macro_text
    for (ULONG offset : {6164, 6168, 6240, 6244, 6248, 6272, 6308, 6312, 6316, 29040}) offsets.push_back(offset);
    for (ULONG k = 0; k < 129; ++k) {
        for (ULONG offset : {0, 8, 84, 96, 108, 116, 120, 128, 132, 136, 140}) offsets.push_back(6324 + 176 * k + offset);
    }
    offsets.push_back(29048);      // transform_datum.datum_name
    offsets.push_back(29364 + 4);  // transform_coord.Name
    return offsets;
}

bool posting_source_with_nested_records(IRecordInfo* info) {
    const std::vector<ULONG> strings = posting_source_strings();
    EXPECT_EQ(3u + 2 * 129 + 2 * 17 + 10 + 129 * 11 + 2, strings.size());
    return copy_and_clear(info, sizeof(Veltrax_posting_source), strings, "posting source", [](record_bytes record) {
        Veltrax_posting_source& s = *reinterpret_cast<Veltrax_posting_source*>(record);
        s.FileDef.doscale[128] = VARIANT_TRUE;
        reinterpret_cast<LONG*>(&s.FileDef.datind)[6 * 129 - 1] = 774;
        s.posting_field[128].StyleInfo[16] = 2.5f;
        s.transform_datum.datum_parameters[31] = 9.75;
        s.point_transform.zscale = 3.0;
    });
}

// Wine 8.0 falls short of Windows here. GetField reads no array fields;
// RecordClear and RecordCopy pass the address of a dynamic-array field, not
// the array, to SafeArrayDestroy and SafeArrayCopy, and skip fixed-array and
// nested-record fields altogether. A case that meets one of these stops
// there, and the test is skipped naming it.
TEST(RecordInfo, ArrayAndNestedRecordFieldsThroughCopyAndClear) {
    if (sizeof(void*) == 8) GTEST_SKIP() << "platform: Wine's 64-bit RecordCopy faults on a record with strings";
    struct platform_case {
        const char* name;
        const GUID* type;
        bool (*run)(IRecordInfo*);  // false: Wine fell short
    };
    const platform_case cases[] = {
        {"a reading's repeat array", &GUID_IPDataRecord, reading_with_repeat_array},
        {"a posting source's fixed arrays and nested records", &GUID_Veltrax_posting_source,
         posting_source_with_nested_records},
    };
    std::string limited;
    for (const platform_case& c : cases) {
        com_ptr<IRecordInfo> info = record_info(*c.type);
        ASSERT_TRUE(info) << c.name;
        if (!c.run(info.get())) limited += std::string(limited.empty() ? "" : "; ") + c.name;
    }
    if (!limited.empty()) GTEST_SKIP() << "platform limitation on Wine: " << limited;
}

}  // namespace
}  // namespace vx::test
