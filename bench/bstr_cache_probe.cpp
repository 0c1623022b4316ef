// The platform's string cache on its own, without the component: strings made
// and freed as a busy automation client makes them, and the heap's bytes in
// use as it goes, with the cache of freed strings on and then off (the two
// runs are two processes: the cache is turned off before the first string).
// `probe_bstr_cache [--no-cache]` prints the figures.
#include <windows.h>
#include <oleauto.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

namespace {

// Bytes in use in the blocks of every heap of the process (what the allocator
// keeps in reserve is not counted): Wine reports no private bytes.
long heap_bytes_in_use() {
    std::vector<HANDLE> heaps(GetProcessHeaps(0, nullptr) + 8);
    heaps.resize(GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data()));
    std::size_t in_use = 0;
    for (HANDLE heap : heaps) {
        if (!HeapLock(heap)) continue;
        PROCESS_HEAP_ENTRY entry = {};
        while (HeapWalk(heap, &entry))
            if (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) in_use += entry.cbData;
        HeapUnlock(heap);
    }
    return static_cast<long>(in_use);
}

}  // namespace

int main(int argc, char** argv) {
    const bool cached = !(argc > 1 && std::strcmp(argv[1], "--no-cache") == 0);
    if (!cached) {
        const auto no_cache = GetProcAddress(LoadLibraryW(L"oleaut32.dll"), "SetOaNoCache");
        if (no_cache) reinterpret_cast<void (*)()>(reinterpret_cast<void*>(no_cache))();
    }
    std::mt19937 engine(7);
    // A few sizes over and over (texts of fixed lengths), or ever new ones
    // (paths and listings of any length up to 4,096 characters).
    for (const bool many_sizes : {false, true}) {
        std::vector<BSTR> held(8, nullptr);  // the last few strings stay alive, as a client's variables do
        const long start = heap_bytes_in_use();
        std::printf("%s, %s:", cached ? "cache on" : "cache off", many_sizes ? "any size" : "11 sizes");
        for (unsigned long call = 1; call <= 1000000; ++call) {
            static const unsigned lengths[] = {1, 2, 3, 7, 255, 256, 257, 1023, 1024, 1025, 4097};
            const unsigned length = many_sizes ? engine() % 4097 : lengths[engine() % 11];
            BSTR& slot = held[engine() % held.size()];
            SysFreeString(slot);
            slot = SysAllocStringLen(nullptr, length);
            if (call == 1000 || call == 10000 || call == 100000 || call == 1000000)
                std::printf(" %lu calls %+ld bytes;", call,
                            heap_bytes_in_use() - start);
        }
        for (BSTR& s : held) SysFreeString(s);
        std::printf(" all freed %+ld bytes\n",
                    heap_bytes_in_use() - start);
    }
    return 0;
}
