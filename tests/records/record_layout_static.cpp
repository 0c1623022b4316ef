// What a C++ client compiled against the generated declarations sees: the
// published sizes and offsets, checked by the compiler. A representative set
// of fields per record; the read-back test covers every field of the library.
#include <cstddef>
#include <type_traits>
#include <utility>

#include "vxTypes32_types.h"

namespace {

using namespace vxTypes32;

// Bytes of a field, without naming its declared type.
#define VX_BYTES(record, member) sizeof(std::declval<record&>().member)

// The published layout is the 32-bit one; on 64-bit, strings and handles
// are pointer-sized and the offsets follow.
#if !defined(_WIN64)

static_assert(sizeof(IPDataRecord) == 256);
static_assert(offsetof(IPDataRecord, reading_time) == 8 && VX_BYTES(IPDataRecord, reading_time) == 8);
static_assert(offsetof(IPDataRecord, UseIP) == 20 && VX_BYTES(IPDataRecord, UseIP) == 2);
static_assert(offsetof(IPDataRecord, raw_channel) == 24);
static_assert(offsetof(IPDataRecord, c1) == 28);
static_assert(offsetof(IPDataRecord, Rx_Line_Number) == 84);
static_assert(offsetof(IPDataRecord, txI) == 108 && VX_BYTES(IPDataRecord, txI) == 4);
static_assert(offsetof(IPDataRecord, decay_area) == 208);
static_assert(offsetof(IPDataRecord, repeat_data) == 248 && VX_BYTES(IPDataRecord, repeat_data) == 4);
static_assert(offsetof(IPDataRecord, Comments) == 252);
static_assert(std::is_same_v<decltype(IPDataRecord::array_type), BSTR>);
static_assert(std::is_same_v<decltype(IPDataRecord::UseData), VARIANT_BOOL>);
static_assert(std::is_same_v<decltype(IPDataRecord::reading_time), DATE>);
static_assert(std::is_same_v<decltype(IPDataRecord::repeat_data), SAFEARRAY*>);

static_assert(sizeof(Veltrax_point_transform) == 124);
static_assert(offsetof(Veltrax_point_transform, rotation) == 4);
static_assert(offsetof(Veltrax_point_transform, xoffset2) == 68);
static_assert(offsetof(Veltrax_point_transform, zscale) == 116);

static_assert(sizeof(datum_transform) == 316);
static_assert(offsetof(datum_transform, datum_sc) == 52);
// Indices 1 to 32: 32 Doubles from offset 60, the last at 308.
static_assert(offsetof(datum_transform, datum_parameters) == 60);
static_assert(VX_BYTES(datum_transform, datum_parameters) == 32 * 8);

static_assert(sizeof(Coordinate_System) == 308);
static_assert(offsetof(Coordinate_System, Name) == 4);
static_assert(offsetof(Coordinate_System, use_Units) == 24);
static_assert(offsetof(Coordinate_System, Origin_Longitude) == 28);
static_assert(offsetof(Coordinate_System, use_Azimuth) == 84);
static_assert(offsetof(Coordinate_System, use_Range) == 132);
static_assert(offsetof(Coordinate_System, zone_width) == 140);
static_assert(offsetof(Coordinate_System, projection_parameters) == 148);
static_assert(VX_BYTES(Coordinate_System, projection_parameters) == 20 * 8);

// The same sizes as the Win32 blocks, the file dialog's in its 76-byte form.
static_assert(sizeof(OPENFILENAME) == 76);
static_assert(offsetof(OPENFILENAME, lpstrFilter) == 12);
static_assert(offsetof(OPENFILENAME, flags) == 52);
static_assert(offsetof(OPENFILENAME, nFileOffset) == 56 && VX_BYTES(OPENFILENAME, nFileOffset) == 2);
static_assert(offsetof(OPENFILENAME, nFileExtension) == 58 && VX_BYTES(OPENFILENAME, nFileExtension) == 2);
static_assert(std::is_signed_v<std::remove_reference_t<decltype(std::declval<OPENFILENAME&>().nFileOffset)>>);
static_assert(offsetof(OPENFILENAME, lpstrDefExt) == 60);
static_assert(offsetof(OPENFILENAME, lpTemplateName) == 72);

static_assert(sizeof(CHOOSECOLOR) == 36);
static_assert(offsetof(CHOOSECOLOR, lpCustColors) == 16);
static_assert(offsetof(CHOOSECOLOR, lpTemplateName) == 32);

static_assert(sizeof(BrowseInfo) == 32);
static_assert(offsetof(BrowseInfo, lpszTitle) == 12 && VX_BYTES(BrowseInfo, lpszTitle) == 4);
static_assert(offsetof(BrowseInfo, iImage) == 28);

static_assert(sizeof(Veltrax_posting_file) == 6124);
static_assert(offsetof(Veltrax_posting_file, scale_data) == 44);
static_assert(offsetof(Veltrax_posting_file, namdat) == 48 && VX_BYTES(Veltrax_posting_file, namdat) == 516);
static_assert(offsetof(Veltrax_posting_file, nuldat) == 1080);
// The in-memory order of datind's two indices is the clients' own: only its
// place and its 6 x 129 Longs are fixed.
static_assert(offsetof(Veltrax_posting_file, datind) == 2628 && VX_BYTES(Veltrax_posting_file, datind) == 3096);
static_assert(offsetof(Veltrax_posting_file, doscale) == 5724 && VX_BYTES(Veltrax_posting_file, doscale) == 258);
static_assert(offsetof(Veltrax_posting_file, macro_num) == 5984);
static_assert(offsetof(Veltrax_posting_file, macro_name) == 5988 && VX_BYTES(Veltrax_posting_file, macro_name) == 68);
static_assert(offsetof(Veltrax_posting_file, macro_text) == 6056);

static_assert(sizeof(Veltrax_posting_field) == 176);
static_assert(offsetof(Veltrax_posting_field, StyleInfo) == 12 && VX_BYTES(Veltrax_posting_field, StyleInfo) == 68);
static_assert(offsetof(Veltrax_posting_field, ip_image_on) == 80);
static_assert(offsetof(Veltrax_posting_field, ip_topo_base) == 160);
static_assert(offsetof(Veltrax_posting_field, ip_topo_ygcol) == 172);

static_assert(sizeof(Veltrax_posting_source) == 29796);
static_assert(offsetof(Veltrax_posting_source, FileDef) == 0 && VX_BYTES(Veltrax_posting_source, FileDef) == 6124);
static_assert(offsetof(Veltrax_posting_source, Show) == 6124);
static_assert(offsetof(Veltrax_posting_source, drillhole_east) == 6192);
static_assert(offsetof(Veltrax_posting_source, txI) == 6312 && VX_BYTES(Veltrax_posting_source, txI) == 4);
static_assert(offsetof(Veltrax_posting_source, posting_field) == 6324);
static_assert(VX_BYTES(Veltrax_posting_source, posting_field) == 129 * 176);
static_assert(sizeof(std::declval<Veltrax_posting_source&>().posting_field[0]) == 176);
static_assert(offsetof(Veltrax_posting_source, barlength) == 29028);
static_assert(offsetof(Veltrax_posting_source, depth_scale) == 29044);
static_assert(offsetof(Veltrax_posting_source, transform_datum) == 29048);
static_assert(offsetof(Veltrax_posting_source, transform_coord) == 29364);
static_assert(offsetof(Veltrax_posting_source, point_transform) == 29672);
static_assert(std::is_same_v<decltype(Veltrax_posting_source::FileDef), Veltrax_posting_file>);
static_assert(std::is_same_v<decltype(Veltrax_posting_source::transform_datum), datum_transform>);
static_assert(std::is_same_v<decltype(Veltrax_posting_source::transform_coord), Coordinate_System>);
static_assert(std::is_same_v<decltype(Veltrax_posting_source::point_transform), Veltrax_point_transform>);

static_assert(sizeof(Veltrax_facet_file) == 52);
static_assert(offsetof(Veltrax_facet_file, facet_file) == 12);
static_assert(offsetof(Veltrax_facet_file, coordinate_file) == 32);
static_assert(offsetof(Veltrax_facet_file, coord_zpos) == 48);

#endif
#undef VX_BYTES

}  // namespace
