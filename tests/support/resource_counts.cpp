#include "support/resource_counts.h"

#include <winternl.h>

#include <string>
#include <vector>

namespace vx::test {

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
constexpr unsigned peb_gdi_handle_table_offset = sizeof(void*) == 8 ? 0xF8 : 0x94;  // in the PEB

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

DWORD open_registry_keys() {
    using query_object = NTSTATUS(NTAPI*)(HANDLE, OBJECT_INFORMATION_CLASS, void*, ULONG, ULONG*);
    static const auto query = reinterpret_cast<query_object>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQueryObject")));
    DWORD count = 0;
    union {
        PUBLIC_OBJECT_TYPE_INFORMATION info;
        unsigned char space[1024];
    } type;
    for (ULONG_PTR handle = 4; handle < 0x10000; handle += 4) {
        ULONG length = 0;
        if (query(reinterpret_cast<HANDLE>(handle), ObjectTypeInformation, &type, sizeof type, &length) != 0)
            continue;
        if (std::wstring(type.info.TypeName.Buffer, type.info.TypeName.Length / sizeof(wchar_t)) == L"Key") ++count;
    }
    return count;
}

std::size_t heap_bytes_in_use() {
    std::vector<HANDLE> heaps(64);
    DWORD count = GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
    if (count > heaps.size()) {
        heaps.resize(count);
        count = GetProcessHeaps(count, heaps.data());
    }
    std::size_t in_use = 0;
    for (DWORD h = 0; h < count && h < heaps.size(); ++h) {
        if (!HeapLock(heaps[h])) continue;
        PROCESS_HEAP_ENTRY entry = {};
        while (HeapWalk(heaps[h], &entry))
            if (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) in_use += entry.cbData;
        HeapUnlock(heaps[h]);
    }
    return in_use;
}

}  // namespace vx::test
