// What the process holds, counted in ways that also work under Wine, whose
// GetGuiResources and GetProcessHandleCount answer 0: for tests that check
// that nothing is left behind.
#pragma once

#include <windows.h>

#include <cstddef>

namespace vx::test {

// GDI objects of this process: GetGuiResources where the platform counts
// them, otherwise the live entries of the process's GDI handle table.
long gdi_object_count();

// Registry keys this process holds open: every handle whose object is of
// type "Key".
DWORD open_registry_keys();

// Bytes in use in the blocks of every heap of the process, found by walking
// them (nothing the allocator merely keeps in reserve is counted).
std::size_t heap_bytes_in_use();

}  // namespace vx::test
