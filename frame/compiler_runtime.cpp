// See compiler_runtime.h. Linked into the DLL alone: the linker takes these
// definitions in place of libgcc's, whose objects then stay out of it.
#include "frame/compiler_runtime.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <malloc.h>

namespace __gnu_cxx {
// libstdc++'s release of its reserve for exceptions thrown when memory runs
// out, about 19 KB that a static constructor takes at every load.
void __freeres() noexcept;
}  // namespace __gnu_cxx

// ---- Thread-local storage ---------------------------------------------------------
// The compiler turns every thread_local, libstdc++'s per-thread exception
// state among them, into calls of __emutls_get_address with a descriptor
// of the variable. One TLS index holds each thread's block of variables.

extern "C" {

struct __emutls_object {
    std::uintptr_t size;
    std::uintptr_t align;
    union {
        std::uintptr_t index;  // 1-based, 0 until the first use
        void* pointer;
    } loc;
    const void* initial;  // null: zero-filled
};

void* __emutls_get_address(__emutls_object* variable);
void __emutls_register_common(__emutls_object* variable, std::uintptr_t size, std::uintptr_t align,
                              void* initial);

}  // extern "C"

namespace {

// Blocks are linked so that freeing the DLL reaches the threads that still run.
struct thread_variables {
    thread_variables* next;
    thread_variables* previous;
    std::uintptr_t count;
    void** values;
};

INIT_ONCE slot_once = INIT_ONCE_STATIC_INIT;
std::atomic<DWORD> slot{TLS_OUT_OF_INDEXES};
std::atomic<std::uintptr_t> variables_numbered{0};
SRWLOCK threads_lock = SRWLOCK_INIT;
thread_variables* threads = nullptr;

// As libgcc does: a thread_local that cannot be had leaves nothing to return.
[[noreturn]] void out_of_resources() { std::abort(); }

BOOL CALLBACK allocate_slot(PINIT_ONCE, PVOID, PVOID*) {
    const DWORD index = TlsAlloc();
    slot.store(index);
    return index != TLS_OUT_OF_INDEXES;
}

void* new_value(const __emutls_object& variable) {
    const std::size_t alignment = std::max<std::size_t>(variable.align, sizeof(void*));
    void* value = _aligned_malloc(variable.size ? variable.size : 1, alignment);
    if (!value) out_of_resources();
    if (variable.initial)
        std::memcpy(value, variable.initial, variable.size);
    else
        std::memset(value, 0, variable.size);
    return value;
}

void free_variables(thread_variables* block) {
    for (std::uintptr_t i = 0; i < block->count; ++i) _aligned_free(block->values[i]);
    std::free(block->values);
    std::free(block);
}

// The calling thread's block, with room for the variable numbered index.
thread_variables& variables_of_this_thread(std::uintptr_t index) {
    auto* block = static_cast<thread_variables*>(TlsGetValue(slot.load()));
    if (!block) {
        block = static_cast<thread_variables*>(std::calloc(1, sizeof *block));
        if (!block || !TlsSetValue(slot.load(), block)) out_of_resources();
        AcquireSRWLockExclusive(&threads_lock);
        block->next = threads;
        if (threads) threads->previous = block;
        threads = block;
        ReleaseSRWLockExclusive(&threads_lock);
    }
    if (index > block->count) {
        const std::uintptr_t count = std::max(index + 16, 2 * block->count);
        auto** values = static_cast<void**>(std::realloc(block->values, count * sizeof(void*)));
        if (!values) out_of_resources();
        std::fill(values + block->count, values + count, nullptr);
        block->values = values;
        block->count = count;
    }
    return *block;
}

}  // namespace

void* __emutls_get_address(__emutls_object* variable) {
    // TlsGetValue clears the last error, which the caller may be about to read.
    const DWORD last_error = GetLastError();
    if (!InitOnceExecuteOnce(&slot_once, allocate_slot, nullptr, nullptr)) out_of_resources();
    std::uintptr_t index = __atomic_load_n(&variable->loc.index, __ATOMIC_ACQUIRE);
    if (index == 0) {
        // Two threads may number the variable at once: the first number stands.
        const std::uintptr_t fresh = variables_numbered.fetch_add(1) + 1;
        if (__atomic_compare_exchange_n(&variable->loc.index, &index, fresh, false, __ATOMIC_ACQ_REL,
                                        __ATOMIC_ACQUIRE))
            index = fresh;
    }
    void*& value = variables_of_this_thread(index).values[index - 1];
    if (!value) value = new_value(*variable);
    SetLastError(last_error);
    return value;
}

// A variable declared in several objects takes the largest size and
// alignment, and the initial value of a definition of that size.
void __emutls_register_common(__emutls_object* variable, std::uintptr_t size, std::uintptr_t align,
                              void* initial) {
    if (variable->size < size) {
        variable->size = size;
        variable->initial = nullptr;
    }
    if (variable->align < align) variable->align = align;
    if (initial && size == variable->size) variable->initial = initial;
}

// ---- The index of unwind tables -----------------------------------------------------
// With DWARF unwinding (32-bit x86), crtbegin hands the DLL's .eh_frame to
// __register_frame_info at load and takes it back at unload, and the
// unwinder asks _Unwind_Find_FDE for the entry that covers a return
// address. The index is built at registration, under the loader lock and
// before any code of the DLL can run, and only read afterwards: no lock.
#if !defined(__SEH__) && !defined(__USING_SJLJ_EXCEPTIONS__)

extern "C" {

struct dwarf_eh_bases {
    void* tbase;
    void* dbase;
    void* func;
};

void __register_frame_info(const void* tables, void* object);
void* __deregister_frame_info(const void* tables);
const void* _Unwind_Find_FDE(void* pc, dwarf_eh_bases* bases);

}  // extern "C"

namespace {

struct covered_range {
    std::uintptr_t begin, end;
    const unsigned char* entry;  // the FDE, from its length field
};

const unsigned char* registered_tables = nullptr;
covered_range* ranges = nullptr;  // by begin; null: the tables are searched directly
std::size_t range_count = 0;

template <class Value>
Value read(const unsigned char*& at) {
    Value value;
    std::memcpy(&value, at, sizeof value);
    at += sizeof value;
    return value;
}

std::uintptr_t read_unsigned_leb128(const unsigned char*& at) {
    std::uintptr_t value = 0;
    unsigned shift = 0;
    unsigned char byte;
    do {
        byte = *at++;
        if (shift < 8 * sizeof value) value |= std::uintptr_t(byte & 0x7F) << shift;
        shift += 7;
    } while (byte & 0x80);
    return value;
}

std::intptr_t read_signed_leb128(const unsigned char*& at) {
    std::uintptr_t value = 0;
    unsigned shift = 0;
    unsigned char byte;
    do {
        byte = *at++;
        if (shift < 8 * sizeof value) value |= std::uintptr_t(byte & 0x7F) << shift;
        shift += 7;
    } while (byte & 0x80);
    if (shift < 8 * sizeof value && (byte & 0x40)) value |= ~std::uintptr_t(0) << shift;
    return static_cast<std::intptr_t>(value);
}

// A value in one of DWARF's pointer encodings: absolute or relative to where
// it is stored, the two the compiler writes. False for any other.
bool read_encoded(unsigned char encoding, const unsigned char*& at, std::uintptr_t& value) {
    const unsigned char* const stored_at = at;
    switch (encoding & 0x0F) {
    case 0x00: value = read<std::uintptr_t>(at); break;
    case 0x01: value = read_unsigned_leb128(at); break;
    case 0x02: value = read<std::uint16_t>(at); break;
    case 0x03: value = read<std::uint32_t>(at); break;
    case 0x04: value = static_cast<std::uintptr_t>(read<std::uint64_t>(at)); break;
    case 0x09: value = static_cast<std::uintptr_t>(read_signed_leb128(at)); break;
    case 0x0A: value = static_cast<std::uintptr_t>(read<std::int16_t>(at)); break;
    case 0x0B: value = static_cast<std::uintptr_t>(read<std::int32_t>(at)); break;
    case 0x0C: value = static_cast<std::uintptr_t>(read<std::int64_t>(at)); break;
    default: return false;
    }
    switch (encoding & 0x70) {
    case 0x00: return true;
    case 0x10: value += reinterpret_cast<std::uintptr_t>(stored_at); return true;
    default: return false;
    }
}

// How a CIE's FDEs store their addresses; -1 when its augmentation is one
// this index does not read.
int address_encoding(const unsigned char* cie) {
    const unsigned char* at = cie + 8;  // past the length and the zero id
    const unsigned char version = *at++;
    const char* const augmentation = reinterpret_cast<const char*>(at);
    at += std::strlen(augmentation) + 1;
    if (*augmentation == '\0') return 0x00;
    if (*augmentation != 'z') return -1;
    read_unsigned_leb128(at);  // code alignment
    read_signed_leb128(at);    // data alignment
    if (version == 1)
        ++at;  // return address column
    else
        read_unsigned_leb128(at);
    read_unsigned_leb128(at);  // length of the augmentation data
    for (const char* letter = augmentation + 1; *letter; ++letter) {
        switch (*letter) {
        case 'R': return *at;
        case 'L': ++at; break;  // encoding of the LSDA
        case 'P': {             // the personality routine
            const unsigned char encoding = *at++;
            std::uintptr_t personality;
            if (!read_encoded(encoding & 0x7F, at, personality)) return -1;
            break;
        }
        case 'S': break;  // a signal frame
        default: return -1;
        }
    }
    return 0x00;
}

// Calls visit(begin, end, entry) for every FDE of the tables, up to the zero
// length that crtend writes after them.
template <class Visit>
void for_each_entry(const unsigned char* tables, Visit&& visit) {
    for (const unsigned char* record = tables;;) {
        const unsigned char* at = record;
        const std::uint32_t length = read<std::uint32_t>(at);
        if (length == 0 || length == 0xFFFFFFFFu) return;  // the end (64-bit DWARF is not written here)
        const unsigned char* const next = at + length;
        const std::uint32_t cie_offset = read<std::uint32_t>(at);  // 0: this is a CIE
        if (cie_offset != 0) {
            const int encoding = address_encoding(record + 4 - cie_offset);
            std::uintptr_t begin = 0, size = 0;
            // An entry of code the linker dropped begins at 0.
            if (encoding >= 0 && read_encoded(static_cast<unsigned char>(encoding), at, begin) &&
                read_encoded(encoding & 0x0F, at, size) && begin != 0 && size != 0)
                visit(begin, begin + size, record);
        }
        record = next;
    }
}

}  // namespace

void __register_frame_info(const void* tables, void*) {
    const auto* const first = static_cast<const unsigned char*>(tables);
    if (!first || *reinterpret_cast<const std::uint32_t*>(first) == 0) return;
    registered_tables = first;
    std::size_t count = 0;
    for_each_entry(first, [&](std::uintptr_t, std::uintptr_t, const unsigned char*) { ++count; });
    ranges = static_cast<covered_range*>(std::malloc(count * sizeof *ranges));
    if (!ranges) return;
    range_count = 0;
    for_each_entry(first, [&](std::uintptr_t begin, std::uintptr_t end, const unsigned char* entry) {
        ranges[range_count++] = {begin, end, entry};
    });
    std::sort(ranges, ranges + range_count,
              [](const covered_range& a, const covered_range& b) { return a.begin < b.begin; });
}

void* __deregister_frame_info(const void* tables) {
    if (tables != registered_tables) return nullptr;
    std::free(ranges);
    ranges = nullptr;
    range_count = 0;
    registered_tables = nullptr;
    return nullptr;
}

const void* _Unwind_Find_FDE(void* pc, dwarf_eh_bases* bases) {
    const auto address = reinterpret_cast<std::uintptr_t>(pc);
    covered_range found{};
    if (ranges) {
        const covered_range* after =
            std::upper_bound(ranges, ranges + range_count, address,
                             [](std::uintptr_t a, const covered_range& range) { return a < range.begin; });
        if (after != ranges && address < after[-1].end) found = after[-1];
    } else if (registered_tables) {
        for_each_entry(registered_tables, [&](std::uintptr_t begin, std::uintptr_t end, const unsigned char* entry) {
            if (begin <= address && address < end) found = {begin, end, entry};
        });
    }
    if (!found.entry) return nullptr;
    bases->tbase = nullptr;
    bases->dbase = nullptr;
    bases->func = reinterpret_cast<void*>(found.begin);
    return found.entry;
}

#endif

namespace vx::compiler_runtime {

void thread_ending() {
    const DWORD index = slot.load();
    if (index == TLS_OUT_OF_INDEXES) return;
    auto* block = static_cast<thread_variables*>(TlsGetValue(index));
    if (!block) return;
    AcquireSRWLockExclusive(&threads_lock);
    if (block->previous)
        block->previous->next = block->next;
    else
        threads = block->next;
    if (block->next) block->next->previous = block->previous;
    ReleaseSRWLockExclusive(&threads_lock);
    TlsSetValue(index, nullptr);
    free_variables(block);
}

void dll_freed() {
    AcquireSRWLockExclusive(&threads_lock);
    for (thread_variables* block = threads; block;) {
        thread_variables* const next = block->next;
        free_variables(block);
        block = next;
    }
    threads = nullptr;
    ReleaseSRWLockExclusive(&threads_lock);
    const DWORD index = slot.exchange(TLS_OUT_OF_INDEXES);
    if (index != TLS_OUT_OF_INDEXES) TlsFree(index);
    // A late use numbers afresh in a new index rather than reach a freed one.
    slot_once = INIT_ONCE_STATIC_INIT;
    __gnu_cxx::__freeres();
}

}  // namespace vx::compiler_runtime
