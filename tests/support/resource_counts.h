// What the process holds, counted in ways that also work under Wine, whose GetGuiResources and
// GetProcessHandleCount answer 0: for tests that check that nothing is left behind.
#pragma once

#include <windows.h>

#include <cstddef>

namespace vx::test {

// GDI objects: GetGuiResources where the platform counts them, otherwise the live entries of the GDI handle table.
long gdi_object_count();
// Registry keys held open: every handle whose object is of type "Key".
DWORD open_registry_keys();
// Bytes in the busy blocks of every heap (what the allocator merely keeps in reserve is not counted).
std::size_t heap_bytes_in_use();

}  // namespace vx::test
