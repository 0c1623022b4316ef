# The developer kit: the library as IDL (tools/gen_idl.py, from the .types
# descriptions), and what widl, an independent compiler, makes of it: the
# C/C++ header, the GUID definitions and, for this platform, a type library
# that a test compares with the DLL's.
#
# Provides the target vx_kit and the variables VX_KIT_DIR (the kit's files)
# and VX_KIT_TYPELIB_FILE.

set(VX_KIT_DIR ${CMAKE_BINARY_DIR}/kit)
set(VX_KIT_IDL ${VX_KIT_DIR}/vxTypes32.idl)
set(VX_KIT_FILES ${VX_KIT_IDL} ${VX_KIT_DIR}/vxTypes32.h ${VX_KIT_DIR}/vxTypes32_i.c)
set(VX_KIT_TYPELIB_FILE ${VX_GENERATED_DIR}/kit/vxTypes32.tlb)
set(_vx_kit_imports ${VX_GENERATED_DIR}/kit/imports)

string(REGEX REPLACE "gcc[^/]*$" "widl" _vx_widl_name ${CMAKE_C_COMPILER})
find_program(VX_WIDL NAMES ${_vx_widl_name} widl REQUIRED)
# OLE Automation's library as Wine ships it, and the IDL files of the
# Windows headers (oaidl.idl, ocidl.idl), from Wine's development package.
find_path(VX_SYSTEM_TYPELIBS stdole2.tlb REQUIRED NO_CMAKE_FIND_ROOT_PATH PATHS
          /usr/lib/x86_64-linux-gnu/wine/x86_64-windows /usr/lib/i386-linux-gnu/wine/i386-windows
          /usr/lib/wine/x86_64-windows /usr/lib/wine/i386-windows)
find_path(VX_SYSTEM_IDL oaidl.idl REQUIRED NO_CMAKE_FIND_ROOT_PATH PATHS /usr/include/wine/wine/windows
          /usr/include/wine/windows)

add_custom_command(
    OUTPUT ${VX_KIT_IDL}
    COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/tools/gen_idl.py
            --imports ${_vx_kit_imports} ${VX_STANDIN_TYPELIB_FILE} ${VX_SYSTEM_TYPELIBS}
            ${VX_KIT_IDL} ${VX_LIBRARY_DESCRIPTION} ${VX_TYPE_DESCRIPTIONS}
    DEPENDS ${PROJECT_SOURCE_DIR}/tools/gen_idl.py ${PROJECT_SOURCE_DIR}/tools/gen_types.py
            ${VX_LIBRARY_DESCRIPTION} ${VX_TYPE_DESCRIPTIONS} ${VX_STANDIN_TYPELIB_FILE}
    COMMENT "Writing the kit's IDL"
    VERBATIM)

# Run in the kit's folder with relative names, so that what widl writes
# names no build tree. Records keep the library's 4-byte packing.
set(_vx_widl ${VX_WIDL} --${VX_PLATFORM} --win32-align 4 --win64-align 4 -I ${VX_SYSTEM_IDL} -L ${_vx_kit_imports})
add_custom_command(
    OUTPUT ${VX_KIT_DIR}/vxTypes32.h ${VX_KIT_DIR}/vxTypes32_i.c ${VX_KIT_TYPELIB_FILE}
    COMMAND ${_vx_widl} -h -o vxTypes32.h vxTypes32.idl
    COMMAND ${_vx_widl} -u -o vxTypes32_i.c vxTypes32.idl
    COMMAND ${_vx_widl} -t -o ${VX_KIT_TYPELIB_FILE} vxTypes32.idl
    DEPENDS ${VX_KIT_IDL}
    WORKING_DIRECTORY ${VX_KIT_DIR}
    COMMENT "Compiling the kit's IDL with widl"
    VERBATIM)

add_custom_target(vx_kit ALL DEPENDS ${VX_KIT_FILES} ${VX_KIT_TYPELIB_FILE})
# The stand-in library is vx_generated's output: waiting for that target,
# rather than naming its command twice, keeps a parallel build from writing
# it twice at once.
add_dependencies(vx_kit vx_generated)
