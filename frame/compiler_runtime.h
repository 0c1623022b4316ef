// The two pieces of the compiler's runtime that keep process-wide state,
// carried by the DLL itself so that freeing the DLL gives that state back:
// the index of unwind tables that exceptions search, and the storage behind
// thread_local. GCC's own versions keep a lock, a thread record or a TLS
// index for the life of the process, one more on every load.
#pragma once

namespace vx::compiler_runtime {

// The calling thread is ending: its thread-local variables go.
void thread_ending();

// The DLL is being freed while the process goes on: every thread's
// thread-local variables, the TLS index and the runtime's reserve for
// exceptions go. Call last, from the entry point.
void dll_freed();

}  // namespace vx::compiler_runtime
