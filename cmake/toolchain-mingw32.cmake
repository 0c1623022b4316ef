# Cross compilation for 32-bit Windows with Debian's mingw-w64 packages.
#
# The component is built with the win32 thread model. The posix model's
# threads runtime keeps a record, two handles and a TLS index for every
# thread that touches it, and the unwinder touches it at every load: a DLL
# that hosts free and load again would leak them each time.
#
# The tests need std::thread and std::mutex, which GCC 12 has only in the
# posix model, so tests/ compiles and links with VX_TEST_CXX_COMPILER. The
# component's objects that tests link use no threads, so they serve both.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER i686-w64-mingw32-gcc-win32)
set(CMAKE_CXX_COMPILER i686-w64-mingw32-g++-win32)
set(VX_TEST_CXX_COMPILER i686-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER i686-w64-mingw32-windres)
set(CMAKE_FIND_ROOT_PATH /usr/i686-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
