// What the imaging tests share: sections made through the DLL and their pixel memory.
#pragma once

#include "support/component.h"
#include "vxTypes32_types.h"

#include <cstdint>

namespace vx::test {

inline com_ptr<_cDIBSection> new_section() { return create<_cDIBSection>(CLSID_cDIBSection, IID__cDIBSection); }
// A live section of the size; the test fails when Create refuses it.
inline com_ptr<_cDIBSection> new_section(long width, long height) {
    com_ptr<_cDIBSection> section = new_section();
    VARIANT_BOOL made = VARIANT_FALSE;
    EXPECT_EQ(S_OK, section->Create(width, height, &made));
    EXPECT_EQ(VARIANT_TRUE, made) << "Create(" << width << ", " << height << ")";
    return section;
}

struct section_facts { long width = 0, height = 0, stride = 0; LONG_PTR hdc = 0, hdib = 0, bits = 0; };
inline section_facts facts_of(_cDIBSection* section) {
    section_facts f;
    LONG value = 0;
    section->get_Width(&value), f.width = value;
    section->get_Height(&value), f.height = value;
    value = 0;
    section->get_BytesPerScanLine(&value), f.stride = value;
    section->get_hdc(&f.hdc), section->get_hDib(&f.hdib), section->get_DIBSectionBitsPtr(&f.bits);
    return f;
}

// The pixel memory, once the drawing the platform held back has landed.
inline unsigned char* bits_of(_cDIBSection* section) {
    GdiFlush();
    return reinterpret_cast<unsigned char*>(facts_of(section).bits);
}

}  // namespace vx::test
