// What the imaging tests share: sections made through the DLL and their pixel
// memory; the count of the process's GDI objects comes from resource_counts.
#pragma once

#include "support/component.h"
#include "support/resource_counts.h"
#include "vxTypes32_types.h"

#include <cstdint>
#include <string>

namespace vx::test {

com_ptr<_cDIBSection> new_section();
// A live section of the size; the test fails when Create refuses it.
com_ptr<_cDIBSection> new_section(long width, long height);

struct section_facts { long width = 0, height = 0, stride = 0; LONG_PTR hdc = 0, hdib = 0, bits = 0; };
section_facts facts_of(_cDIBSection* section);

// The pixel memory, once the drawing the platform held back has landed.
unsigned char* bits_of(_cDIBSection* section);

// The colour (0xRRGGBB) of the pixel at (x, y) as a DC sees it, y from the
// top: in a bottom-up section that is scan line height - 1 - y.
std::uint32_t pixel_at(_cDIBSection* section, long x, long y);
void set_pixel(_cDIBSection* section, long x, long y, std::uint32_t rgb);

}  // namespace vx::test
