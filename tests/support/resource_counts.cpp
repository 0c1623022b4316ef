#include "support/resource_counts.h"

#include <winternl.h>

#include <algorithm>
#include <string>
#include <vector>

namespace vx::test {

// One entry of the GDI handle table that the process environment block
// points to (the layout Windows and Wine share); a live object has a type.
#pragma pack(push, 4)
struct gdi_handle_entry {
    unsigned long long object;
    unsigned long owner;
    unsigned short unique;
    unsigned char type, flags;
    unsigned long long user_pointer;
};
#pragma pack(pop)
static_assert(sizeof(gdi_handle_entry) == 24, "GDI handle table entry");

#pragma GCC diagnostic ignored "-Warray-bounds"  // NtCurrentTeb reads through gs or fs: GCC sees an empty array
long gdi_object_count() {
    if (const DWORD counted = GetGuiResources(GetCurrentProcess(), GR_GDIOBJECTS)) return static_cast<long>(counted);
    const char* peb = reinterpret_cast<const char*>(NtCurrentTeb()->ProcessEnvironmentBlock);
    const auto* table = *reinterpret_cast<const gdi_handle_entry* const*>(peb + (sizeof(void*) == 8 ? 0xF8 : 0x94));
    long live = 0;
    for (unsigned i = 0; table && i < 0x10000; ++i) live += table[i].type != 0;
    return table ? live : -1;
}

DWORD open_registry_keys() {
    using query_object = NTSTATUS(NTAPI*)(HANDLE, OBJECT_INFORMATION_CLASS, void*, ULONG, ULONG*);
    static const auto query = reinterpret_cast<query_object>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQueryObject")));
    DWORD count = 0;
    ULONG length = 0;
    union {
        PUBLIC_OBJECT_TYPE_INFORMATION info;
        unsigned char space[1024];
    } type;
    for (ULONG_PTR handle = 4; handle < 0x10000; handle += 4)
        if (!query(reinterpret_cast<HANDLE>(handle), ObjectTypeInformation, &type, sizeof type, &length))
            count += std::wstring(type.info.TypeName.Buffer, type.info.TypeName.Length / sizeof(wchar_t)) == L"Key";
    return count;
}

std::size_t heap_bytes_in_use() {
    std::vector<HANDLE> heaps(GetProcessHeaps(0, nullptr) + 8);  // room for heaps made meanwhile
    heaps.resize(std::min<std::size_t>(heaps.size(), GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data())));
    std::size_t in_use = 0;
    for (HANDLE heap : heaps) {
        if (!HeapLock(heap)) continue;
        PROCESS_HEAP_ENTRY entry = {};
        while (HeapWalk(heap, &entry)) in_use += entry.wFlags & PROCESS_HEAP_ENTRY_BUSY ? entry.cbData : 0;
        HeapUnlock(heap);
    }
    return in_use;
}

}  // namespace vx::test
