// The eleven records read back from the built DLL's type library and compared,
// field by field, with the published layouts. The tables are written from the
// contract, not from our descriptions.
#include "support/component.h"

#include <string>

namespace vx::test {
namespace {

std::string narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

// Types are spelled as the published tables spell them: "Double(1 To 32)" is a
// fixed array with its inclusive bounds, "Single()" a dynamic array, a bare
// name a nested record.
struct field {
    long offset;
    const wchar_t* name;
    const wchar_t* type;
};

struct record {
    const wchar_t* name;
    const wchar_t* guid;
    unsigned index;
    unsigned size;
    const field* fields;
    unsigned field_count;
};

const field ip_data_record[] = {
    {0, L"array_type", L"BSTR"},            {4, L"survey_type", L"BSTR"},
    {8, L"reading_time", L"DATE"},          {16, L"UseData", L"Boolean"},
    {18, L"UseRes", L"Boolean"},            {20, L"UseIP", L"Boolean"},
    {24, L"raw_channel", L"Long"},          {28, L"c1", L"Double"},
    {36, L"c2", L"Double"},                 {44, L"p1", L"Double"},
    {52, L"p2", L"Double"},                 {60, L"rc2y", L"Double"},
    {68, L"Tx_line", L"BSTR"},              {72, L"Tx_line_number", L"Double"},
    {80, L"Rx_line", L"BSTR"},              {84, L"Rx_Line_Number", L"Double"},
    {92, L"Gain", L"Single"},               {96, L"scan_rate", L"Single"},
    {100, L"RampWidth", L"Single"},         {104, L"dipole", L"Single"},
    {108, L"txI", L"Single"},               {112, L"SP", L"Double"},
    {120, L"Vp", L"Double"},                {128, L"totChg", L"Double"},
    {136, L"SD", L"Double"},                {144, L"AppRes", L"Double"},
    {152, L"AppResError", L"Double"},       {160, L"AppResModel", L"Double"},
    {168, L"Mx", L"Double"},                {176, L"MxError", L"Double"},
    {184, L"MxModel", L"Double"},           {192, L"telluric_amplitude", L"Double"},
    {200, L"decay_rate", L"Double"},        {208, L"decay_area", L"Double"},
    {216, L"EMC_apply", L"Long"},           {220, L"EMC_nwind", L"Long"},
    {224, L"EMC_dt", L"Single"},            {228, L"EMC_ha", L"Single"},
    {232, L"EMC_hb", L"Single"},            {236, L"EMC_hc", L"Single"},
    {240, L"num_repeats", L"Long"},         {244, L"num_data", L"Long"},
    {248, L"repeat_data", L"Single()"},     {252, L"Comments", L"BSTR"},
};

const field point_transform[] = {
    {0, L"DoTransform", L"Boolean"}, {4, L"rotation", L"Double"},   {12, L"crot", L"Double"},
    {20, L"srot", L"Double"},        {28, L"xscale", L"Double"},    {36, L"yscale", L"Double"},
    {44, L"xorigin", L"Double"},     {52, L"xorigin2", L"Double"},  {60, L"xoffset", L"Double"},
    {68, L"xoffset2", L"Double"},    {76, L"yorigin", L"Double"},   {84, L"yorigin2", L"Double"},
    {92, L"yoffset", L"Double"},     {100, L"yoffset2", L"Double"}, {108, L"zshift", L"Double"},
    {116, L"zscale", L"Double"},
};

const field datum_transform[] = {
    {0, L"datum_name", L"BSTR"},  {4, L"datum_dx", L"Double"},  {12, L"datum_dy", L"Double"},
    {20, L"datum_dz", L"Double"}, {28, L"datum_rx", L"Double"}, {36, L"datum_ry", L"Double"},
    {44, L"datum_rz", L"Double"}, {52, L"datum_sc", L"Double"},
    {60, L"datum_parameters", L"Double(1 To 32)"},
};

const field coordinate_system[] = {
    {0, L"IsValid", L"Boolean"},
    {4, L"Name", L"BSTR"},
    {8, L"Projection", L"Long"},
    {12, L"Datum", L"Long"},
    {16, L"hemisphere", L"Long"},
    {20, L"Units", L"Long"},
    {24, L"use_Units", L"Boolean"},
    {28, L"Origin_Longitude", L"Double"},
    {36, L"use_Origin_Longitude", L"Boolean"},
    {40, L"Origin_Latitude", L"Double"},
    {48, L"use_Origin_Latitude", L"Boolean"},
    {52, L"Standard_parallel_1", L"Double"},
    {60, L"use_Standard_parallel_1", L"Boolean"},
    {64, L"Standard_parallel_2", L"Double"},
    {72, L"use_Standard_parallel_2", L"Boolean"},
    {76, L"azimuth", L"Double"},
    {84, L"use_Azimuth", L"Boolean"},
    {88, L"scale_factor", L"Double"},
    {96, L"use_Scale_Factor", L"Boolean"},
    {100, L"false_easting", L"Double"},
    {108, L"use_False_Easting", L"Boolean"},
    {112, L"false_northing", L"Double"},
    {120, L"use_False_Northing", L"Boolean"},
    {124, L"Range", L"Double"},
    {132, L"use_Range", L"Boolean"},
    {136, L"zone_number", L"Long"},
    {140, L"zone_width", L"Double"},
    {148, L"projection_parameters", L"Double(1 To 20)"},
};

const field open_file_name[] = {
    {0, L"lStructSize", L"Long"},         {4, L"hWndOwner", L"Long"},
    {8, L"hInstance", L"Long"},           {12, L"lpstrFilter", L"BSTR"},
    {16, L"lpstrCustomFilter", L"BSTR"},  {20, L"nMaxCustFilter", L"Long"},
    {24, L"nFilterIndex", L"Long"},       {28, L"lpstrFile", L"BSTR"},
    {32, L"nMaxFile", L"Long"},           {36, L"lpstrFileTitle", L"BSTR"},
    {40, L"nMaxFileTitle", L"Long"},      {44, L"lpstrInitialDir", L"BSTR"},
    {48, L"lpstrTitle", L"BSTR"},         {52, L"flags", L"Long"},
    {56, L"nFileOffset", L"Integer"},     {58, L"nFileExtension", L"Integer"},
    {60, L"lpstrDefExt", L"BSTR"},        {64, L"lCustData", L"Long"},
    {68, L"lpfnHook", L"Long"},           {72, L"lpTemplateName", L"BSTR"},
};

const field choose_color[] = {
    {0, L"lStructSize", L"Long"}, {4, L"hWndOwner", L"Long"},    {8, L"hInstance", L"Long"},
    {12, L"rgbResult", L"Long"},  {16, L"lpCustColors", L"BSTR"}, {20, L"flags", L"Long"},
    {24, L"lCustData", L"Long"},  {28, L"lpfnHook", L"Long"},    {32, L"lpTemplateName", L"BSTR"},
};

const field browse_info[] = {
    {0, L"hWndOwner", L"Long"},  {4, L"pIDLRoot", L"Long"},      {8, L"pszDisplayName", L"Long"},
    {12, L"lpszTitle", L"Long"}, {16, L"ulFlags", L"Long"},      {20, L"lpfnCallback", L"Long"},
    {24, L"lParam", L"Long"},    {28, L"iImage", L"Long"},
};

const field posting_file[] = {
    {0, L"file_name", L"BSTR"},
    {4, L"file_format", L"BSTR"},
    {8, L"format_sel", L"Long"},
    {12, L"data_source_type", L"Long"},
    {16, L"data_source", L"BSTR"},
    {20, L"unix_file", L"Long"},
    {24, L"header_lines", L"Long"},
    {28, L"header_names", L"Long"},
    {32, L"lines_per_record", L"Long"},
    {36, L"line_skip", L"Long"},
    {40, L"numfld", L"Long"},
    {44, L"scale_data", L"Boolean"},
    {48, L"namdat", L"BSTR(0 To 128)"},
    {564, L"namuse", L"BSTR(0 To 128)"},
    {1080, L"nuldat", L"Single(0 To 128)"},
    {1596, L"offsetdat", L"Single(0 To 128)"},
    {2112, L"scaledat", L"Single(0 To 128)"},
    {2628, L"datind", L"Long(0 To 5, 0 To 128)"},
    {5724, L"doscale", L"Boolean(0 To 128)"},
    {5984, L"macro_num", L"Long"},
    {5988, L"macro_name", L"BSTR(0 To 16)"},
    {6056, L"macro_text", L"BSTR(0 To 16)"},
};

const field posting_field[] = {
    {0, L"Name", L"BSTR"},
    {4, L"post_zpos", L"Long"},
    {8, L"post_zfmt", L"BSTR"},
    {12, L"StyleInfo", L"Single(0 To 16)"},
    {80, L"ip_image_on", L"Long"},
    {84, L"ip_image_file", L"BSTR"},
    {88, L"ip_image_format", L"Long"},
    {92, L"ip_image_style", L"Long"},
    {96, L"ip_histogram_file", L"BSTR"},
    {100, L"ip_equalise_histogram", L"Long"},
    {104, L"ip_reverse_colour", L"Long"},
    {108, L"ip_colour_table", L"BSTR"},
    {112, L"ip_cont_on", L"Long"},
    {116, L"ip_contour_file", L"BSTR"},
    {120, L"ip_contour_list", L"BSTR"},
    {124, L"ip_dxf_on", L"Long"},
    {128, L"ip_dxf_file", L"BSTR"},
    {132, L"ip_topo_file", L"BSTR"},
    {136, L"ip_topo_legend", L"BSTR"},
    {140, L"ip_topo_axis", L"BSTR"},
    {144, L"ip_topo_nhead", L"Long"},
    {148, L"ip_topo_lcol", L"Long"},
    {152, L"ip_topo_xcol", L"Long"},
    {156, L"ip_topo_zcol", L"Long"},
    {160, L"ip_topo_base", L"Single"},
    {164, L"ip_topo_scale", L"Single"},
    {168, L"ip_topo_xgcol", L"Long"},
    {172, L"ip_topo_ygcol", L"Long"},
};

const field posting_source[] = {
    {0, L"FileDef", L"Veltrax_posting_file"},
    {6124, L"Show", L"Long"},
    {6128, L"type", L"Long"},
    {6132, L"baselog", L"Single"},
    {6136, L"repeats_policy", L"Long"},
    {6140, L"mag_phase", L"Long"},
    {6144, L"label_electrodes", L"Long"},
    {6148, L"interpolate_filter", L"Long"},
    {6152, L"filter_type", L"Long"},
    {6156, L"rotation", L"Single"},
    {6160, L"data_range", L"Long"},
    {6164, L"xdata", L"BSTR"},
    {6168, L"ydata", L"BSTR"},
    {6172, L"coord", L"Long"},
    {6176, L"invert_latitude", L"Long"},
    {6180, L"invert_longitude", L"Long"},
    {6184, L"zone", L"Long"},
    {6188, L"use_layout_projection", L"Long"},
    {6192, L"drillhole_east", L"Double"},
    {6200, L"drillhole_north", L"Double"},
    {6208, L"drillhole_azimuth", L"Double"},
    {6216, L"drillhole_width", L"Double"},
    {6224, L"drillhole_dx", L"Double"},
    {6232, L"drillhole_dy", L"Double"},
    {6240, L"line", L"BSTR"},
    {6244, L"text_lmin", L"BSTR"},
    {6248, L"text_lmax", L"BSTR"},
    {6252, L"lmin_val", L"Single"},
    {6256, L"lmax_val", L"Single"},
    {6260, L"linc", L"Single"},
    {6264, L"line_order", L"Long"},
    {6268, L"station_spacing", L"Single"},
    {6272, L"samp", L"BSTR"},
    {6276, L"samp_pos", L"Long"},
    {6280, L"mark_type", L"Long"},
    {6284, L"mark_size", L"Single"},
    {6288, L"label_size", L"Single"},
    {6292, L"mask_label", L"Long"},
    {6296, L"null_data", L"Long"},
    {6300, L"character_line_number", L"Long"},
    {6304, L"geosoft_line", L"Long"},
    {6308, L"c2data", L"BSTR"},
    {6312, L"txI", L"BSTR"},
    {6316, L"p2data", L"BSTR"},
    {6320, L"numz", L"Long"},
    {6324, L"posting_field", L"Veltrax_posting_field(0 To 128)"},
    {29028, L"barlength", L"Single"},
    {29032, L"ip_isdipole", L"Long"},
    {29036, L"barwidth", L"Single"},
    {29040, L"ddata", L"BSTR"},
    {29044, L"depth_scale", L"Single"},
    {29048, L"transform_datum", L"datum_transform"},
    {29364, L"transform_coord", L"Coordinate_System"},
    {29672, L"point_transform", L"Veltrax_point_transform"},
};

const field facet_file[] = {
    {0, L"format", L"Long"},           {4, L"colour", L"Long"},       {8, L"zcoord_invert", L"Long"},
    {12, L"facet_file", L"BSTR"},      {16, L"facet_nhead", L"Long"}, {20, L"facet_xpos", L"Long"},
    {24, L"facet_ypos", L"Long"},      {28, L"facet_zpos", L"Long"},  {32, L"coordinate_file", L"BSTR"},
    {36, L"coord_nhead", L"Long"},     {40, L"coord_xpos", L"Long"},  {44, L"coord_ypos", L"Long"},
    {48, L"coord_zpos", L"Long"},
};

template <unsigned N>
constexpr unsigned count(const field (&)[N]) { return N; }

#define VX_FIELDS(table) table, count(table)

const record records[] = {
    {L"IPDataRecord", L"{E3DA102C-9C32-4E0F-9ADA-E2268419DB69}", 16, 256, VX_FIELDS(ip_data_record)},
    {L"Veltrax_point_transform", L"{83A179F6-B2BB-4E75-8221-F9D1ABC312FC}", 17, 124, VX_FIELDS(point_transform)},
    {L"datum_transform", L"{0BE89198-F9A7-48E8-935E-B60E4A197359}", 18, 316, VX_FIELDS(datum_transform)},
    {L"Coordinate_System", L"{68FCAB92-37EA-4E88-A90F-08701E450CFB}", 19, 308, VX_FIELDS(coordinate_system)},
    {L"OPENFILENAME", L"{780C64B3-4B4F-4904-BA27-E222F086B01D}", 20, 76, VX_FIELDS(open_file_name)},
    {L"CHOOSECOLOR", L"{D9BF45C5-28FB-459D-AE9B-1AE0DF94E693}", 21, 36, VX_FIELDS(choose_color)},
    {L"BrowseInfo", L"{01DF86B3-691C-44D7-A0D1-E78C9694C928}", 22, 32, VX_FIELDS(browse_info)},
    {L"Veltrax_posting_file", L"{BC0B5FC5-83A3-4870-A308-01A376D5DE20}", 23, 6124, VX_FIELDS(posting_file)},
    {L"Veltrax_posting_field", L"{D25526CD-58D1-4A20-877A-75D71C0FD05B}", 24, 176, VX_FIELDS(posting_field)},
    {L"Veltrax_posting_source", L"{864F6AF3-01BF-4540-8F7C-0182FC35463D}", 25, 29796, VX_FIELDS(posting_source)},
    {L"Veltrax_facet_file", L"{31582D70-955D-497B-8EF2-DB1EBCAA5433}", 26, 52, VX_FIELDS(facet_file)},
};

#undef VX_FIELDS

// The field counts the contract states, against slips in the tables above.
static_assert(count(ip_data_record) == 44 && count(point_transform) == 16 && count(datum_transform) == 9 &&
              count(coordinate_system) == 28 && count(open_file_name) == 20 && count(choose_color) == 9 &&
              count(browse_info) == 8 && count(posting_file) == 22 && count(posting_field) == 28 &&
              count(posting_source) == 54 && count(facet_file) == 13);

GUID guid(const wchar_t* text) {
    GUID value{};
    CLSIDFromString(text, &value);
    return value;
}

std::wstring name_of(ITypeInfo* info, MEMBERID member = MEMBERID_NIL, std::wstring* doc = nullptr,
                     DWORD* help_context = nullptr) {
    unique_bstr name, documentation;
    info->GetDocumentation(member, name.put(), documentation.put(), help_context, nullptr);
    if (doc) *doc = text_of(documentation.get());
    return text_of(name.get());
}

std::wstring spelled(ITypeInfo* info, const TYPEDESC& type) {
    switch (type.vt) {
    case VT_BSTR: return L"BSTR";
    case VT_DATE: return L"DATE";
    case VT_BOOL: return L"Boolean";
    case VT_I2: return L"Integer";
    case VT_I4: return L"Long";
    case VT_R4: return L"Single";
    case VT_R8: return L"Double";
    case VT_SAFEARRAY: return spelled(info, *type.lptdesc) + L"()";
    case VT_CARRAY: {
        const ARRAYDESC& array = *type.lpadesc;
        std::wstring text = spelled(info, array.tdescElem) + L"(";
        for (USHORT d = 0; d < array.cDims; ++d) {
            const SAFEARRAYBOUND& bound = array.rgbounds[d];
            if (d) text += L", ";
            text += std::to_wstring(bound.lLbound) + L" To " +
                    std::to_wstring(bound.lLbound + static_cast<LONG>(bound.cElements) - 1);
        }
        return text + L")";
    }
    case VT_USERDEFINED: {
        com_ptr<ITypeInfo> target;
        if (FAILED(info->GetRefTypeInfo(type.hreftype, target.put()))) return L"unresolved reference";
        TYPEATTR* attributes = nullptr;
        target->GetTypeAttr(&attributes);
        const bool is_record = attributes && attributes->typekind == TKIND_RECORD;
        if (attributes) target->ReleaseTypeAttr(attributes);
        return name_of(target.get()) + (is_record ? L"" : L" (not a record)");
    }
    default: return L"vt " + std::to_wstring(type.vt);
    }
}

TEST(RecordLayout, EveryRecordFieldByField) {
    // The published offsets are the 32-bit layout's; the 64-bit build reads
    // its own back from the library it writes.
    if (sizeof(void*) == 8) GTEST_SKIP() << "the published layout is the 32-bit one";
    com_ptr<ITypeLib> library;
    ASSERT_EQ(S_OK, LoadTypeLibEx(dll_path().c_str(), REGKIND_NONE, library.put()));
    for (const record& r : records) {
        const std::string where = narrow(r.name);
        com_ptr<ITypeInfo> info;
        ASSERT_EQ(S_OK, library->GetTypeInfoOfGuid(guid(r.guid), info.put())) << where;
        EXPECT_EQ(r.name, name_of(info.get())) << where << ": the type with its GUID";

        std::wstring doc;
        DWORD help_context = 1;
        name_of(info.get(), MEMBERID_NIL, &doc, &help_context);
        EXPECT_EQ(L"", doc) << where << ": no documentation string of its own";
        EXPECT_EQ(0u, help_context) << where << ": no help context";

        TYPEATTR* a = nullptr;
        ASSERT_EQ(S_OK, info->GetTypeAttr(&a)) << where;
        EXPECT_EQ(TKIND_RECORD, a->typekind) << where;
        EXPECT_EQ(1, a->wMajorVerNum) << where;
        EXPECT_EQ(0, a->wMinorVerNum) << where;
        EXPECT_EQ(0, a->wTypeFlags) << where;
        EXPECT_EQ(r.size, a->cbSizeInstance) << where;
        EXPECT_EQ(4, a->cbAlignment) << where;
        EXPECT_EQ(0, a->cFuncs) << where;
        EXPECT_EQ(0, a->cImplTypes) << where;
        EXPECT_EQ(r.field_count, a->cVars) << where;
        const UINT fields = a->cVars;
        info->ReleaseTypeAttr(a);

        // Variable flags and the fields' help contexts are not part of the
        // contract and stay unchecked.
        for (UINT i = 0; i < fields && i < r.field_count; ++i) {
            const field& e = r.fields[i];
            const std::string at = where + "." + narrow(e.name);
            VARDESC* v = nullptr;
            ASSERT_EQ(S_OK, info->GetVarDesc(i, &v)) << at;
            std::wstring field_doc;
            EXPECT_EQ(e.name, name_of(info.get(), v->memid, &field_doc)) << where << " field " << i;
            EXPECT_EQ(e.name, field_doc) << at << ": the doc string is the field's name";
            EXPECT_EQ(static_cast<MEMBERID>(0x40000000 + i), v->memid) << at;
            EXPECT_EQ(VAR_PERINSTANCE, v->varkind) << at;
            EXPECT_EQ(static_cast<ULONG>(e.offset), v->oInst) << at << ": offset";
            EXPECT_EQ(std::wstring(e.type), spelled(info.get(), v->elemdescVar.tdesc)) << at << ": type";
            info->ReleaseVarDesc(v);
        }
    }
}

// Clients index the library by position as well as by GUID.
TEST(RecordLayout, RecordsHoldTheirPlacesInTheLibrary) {
    com_ptr<ITypeLib> library;
    ASSERT_EQ(S_OK, LoadTypeLibEx(dll_path().c_str(), REGKIND_NONE, library.put()));
    ASSERT_EQ(30u, library->GetTypeInfoCount());
    for (const record& r : records) {
        TYPEKIND kind = TKIND_MAX;
        EXPECT_EQ(S_OK, library->GetTypeInfoType(r.index, &kind)) << narrow(r.name);
        EXPECT_EQ(TKIND_RECORD, kind) << narrow(r.name);
        unique_bstr name;
        library->GetDocumentation(static_cast<INT>(r.index), name.put(), nullptr, nullptr, nullptr);
        EXPECT_EQ(r.name, text_of(name.get())) << "index " << r.index;
    }
}

}  // namespace
}  // namespace vx::test
