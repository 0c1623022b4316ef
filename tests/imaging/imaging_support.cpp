#include "imaging/imaging_support.h"

#include <winternl.h>

namespace vx::test {

com_ptr<_cDIBSection> new_section() { return create<_cDIBSection>(CLSID_cDIBSection, IID__cDIBSection); }

com_ptr<_cDIBSection> new_section(long width, long height) {
    com_ptr<_cDIBSection> section = new_section();
    VARIANT_BOOL made = VARIANT_FALSE;
    EXPECT_EQ(S_OK, section->Create(width, height, &made));
    EXPECT_EQ(VARIANT_TRUE, made) << "Create(" << width << ", " << height << ")";
    return section;
}

section_facts facts_of(_cDIBSection* section) {
    section_facts f;
    LONG value = 0;
    section->get_Width(&value), f.width = value;
    section->get_Height(&value), f.height = value;
    value = 0;
    section->get_BytesPerScanLine(&value), f.stride = value;
    section->get_hdc(&value), f.hdc = value;
    section->get_hDib(&value), f.hdib = value;
    section->get_DIBSectionBitsPtr(&value), f.bits = value;
    return f;
}

unsigned char* bits_of(_cDIBSection* section) {
    GdiFlush();  // drawing the platform still holds back lands first
    LONG bits = 0;
    section->get_DIBSectionBitsPtr(&bits);
    return reinterpret_cast<unsigned char*>(static_cast<LONG_PTR>(bits));
}

std::uint32_t pixel_at(_cDIBSection* section, long x, long y) {
    const section_facts f = facts_of(section);
    const unsigned char* p = bits_of(section) + (f.height - 1 - y) * f.stride + 3 * x;
    return (std::uint32_t{p[2]} << 16) | (std::uint32_t{p[1]} << 8) | p[0];
}

void set_pixel(_cDIBSection* section, long x, long y, std::uint32_t rgb) {
    const section_facts f = facts_of(section);
    unsigned char* p = bits_of(section) + (f.height - 1 - y) * f.stride + 3 * x;
    p[0] = rgb & 0xFF;
    p[1] = (rgb >> 8) & 0xFF;
    p[2] = (rgb >> 16) & 0xFF;
}

namespace {

// One entry of the GDI handle table that the process environment block
// points to (the layout Windows and Wine share); a live object has a type.
#pragma pack(push, 4)
struct gdi_handle_entry {
    unsigned long long object;
    unsigned long owner;
    unsigned short unique;
    unsigned char type;
    unsigned char flags;
    unsigned long long user_pointer;
};
#pragma pack(pop)
static_assert(sizeof(gdi_handle_entry) == 24, "GDI handle table entry");
constexpr unsigned gdi_handle_table_size = 0x10000;
constexpr unsigned peb_gdi_handle_table_offset = 0x94;  // 32-bit PEB

}  // namespace

long gdi_object_count() {
    const DWORD counted = GetGuiResources(GetCurrentProcess(), GR_GDIOBJECTS);
    if (counted != 0) return static_cast<long>(counted);
    const char* peb = reinterpret_cast<const char*>(NtCurrentTeb()->ProcessEnvironmentBlock);
    const auto* table = *reinterpret_cast<const gdi_handle_entry* const*>(peb + peb_gdi_handle_table_offset);
    if (!table) return -1;
    long live = 0;
    for (unsigned i = 0; i < gdi_handle_table_size; ++i)
        if (table[i].type) ++live;
    return live;
}

std::string narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

}  // namespace vx::test
