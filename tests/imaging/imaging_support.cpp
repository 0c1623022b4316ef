#include "imaging/imaging_support.h"

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
    section->get_hdc(&f.hdc), section->get_hDib(&f.hdib), section->get_DIBSectionBitsPtr(&f.bits);
    return f;
}

unsigned char* bits_of(_cDIBSection* section) {
    GdiFlush();
    return reinterpret_cast<unsigned char*>(facts_of(section).bits);
}

static unsigned char* pixel(_cDIBSection* section, long x, long y) {
    const section_facts f = facts_of(section);
    return bits_of(section) + (f.height - 1 - y) * f.stride + 3 * x;
}

std::uint32_t pixel_at(_cDIBSection* section, long x, long y) {
    const unsigned char* p = pixel(section, x, y);
    return (std::uint32_t{p[2]} << 16) | (std::uint32_t{p[1]} << 8) | p[0];
}

void set_pixel(_cDIBSection* section, long x, long y, std::uint32_t rgb) {
    unsigned char* p = pixel(section, x, y);
    p[0] = rgb & 0xFF, p[1] = (rgb >> 8) & 0xFF, p[2] = (rgb >> 16) & 0xFF;
}

}  // namespace vx::test
