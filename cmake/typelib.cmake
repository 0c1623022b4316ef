# The type library and everything else made from the .types descriptions.
#
#   gen_types.py   descriptions and VERSION -> C++ declarations, the
#                  library's identity, the class table's rows, the
#                  writer's tables, the version and _IID_/_SRCIID_ resources
#   typelib_writer (run under Wine) tables -> the stand-in VB runtime
#                  library, then vxTypes32.tlb, read back and compared with
#                  the tables; a file that differs fails the build
#
# Provides the target vx_generated and the variables VX_GENERATED_DIR,
# VX_TYPELIB_FILE, VX_STANDIN_TYPELIB_FILE, VX_IID_RC, VX_VERSION_RC,
# VX_CLASS_TABLE_SOURCE and VX_CLASS_NAMES.

find_package(Python3 REQUIRED COMPONENTS Interpreter)

set(VX_GENERATED_DIR ${CMAKE_BINARY_DIR}/generated)
set(VX_TYPELIB_FILE ${VX_GENERATED_DIR}/vxTypes32.tlb)
set(VX_STANDIN_TYPELIB_FILE ${VX_GENERATED_DIR}/vbrun_standin.tlb)
set(VX_IID_RC ${VX_GENERATED_DIR}/iid_resources.rc)
set(VX_TYPES_HEADER ${VX_GENERATED_DIR}/vxTypes32_types.h)
set(VX_IDENTITY_HEADER ${VX_GENERATED_DIR}/library_identity.h)
set(VX_VERSION_RC ${VX_GENERATED_DIR}/version.rc)
set(VX_CLASS_TABLE_SOURCE ${VX_GENERATED_DIR}/class_table.cpp)
set(VX_CLASS_NAMES ${VX_GENERATED_DIR}/class_names.txt)
# The product and file version, the one place it is written.
set(VX_VERSION_FILE ${PROJECT_SOURCE_DIR}/VERSION)

# The library's own description places the types; each subsystem describes
# its own beside its code, and the classes are read in the subsystems' order.
set(VX_LIBRARY_DESCRIPTION ${PROJECT_SOURCE_DIR}/component/vxTypes32.types)
set(VX_TYPE_DESCRIPTIONS "")
foreach(subsystem IN LISTS VX_SUBSYSTEMS)
    file(GLOB descriptions CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${subsystem}/*.types)
    list(APPEND VX_TYPE_DESCRIPTIONS ${descriptions})
endforeach()

set(_vx_tables ${VX_GENERATED_DIR}/typelib_tables.inc)
set(_vx_generated_sources ${VX_TYPES_HEADER} ${VX_IDENTITY_HEADER} ${VX_CLASS_TABLE_SOURCE} ${VX_CLASS_NAMES}
    ${VX_VERSION_RC} ${_vx_tables} ${VX_IID_RC})
add_custom_command(
    OUTPUT ${_vx_generated_sources}
    COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/tools/gen_types.py
            --platform ${VX_PLATFORM} --version-file ${VX_VERSION_FILE}
            ${VX_GENERATED_DIR} ${VX_LIBRARY_DESCRIPTION} ${VX_TYPE_DESCRIPTIONS}
    DEPENDS ${PROJECT_SOURCE_DIR}/tools/gen_types.py ${VX_VERSION_FILE} ${VX_LIBRARY_DESCRIPTION}
            ${VX_TYPE_DESCRIPTIONS}
    COMMENT "Generating type declarations from the .types descriptions"
    VERBATIM)

add_executable(typelib_writer
    ${PROJECT_SOURCE_DIR}/tools/typelib_writer.cpp
    ${PROJECT_SOURCE_DIR}/tools/msft_patch.cpp
    ${PROJECT_SOURCE_DIR}/tools/msft_patch.h
    ${PROJECT_SOURCE_DIR}/tools/typelib_model.h
    ${_vx_tables})
target_include_directories(typelib_writer PRIVATE ${PROJECT_SOURCE_DIR} ${VX_GENERATED_DIR})
# wmain: the paths arrive as wide strings.
target_link_options(typelib_writer PRIVATE -municode -static)
target_link_libraries(typelib_writer PRIVATE oleaut32 ole32 uuid)

add_custom_command(
    OUTPUT ${VX_STANDIN_TYPELIB_FILE}
    COMMAND ${VX_WINE_RUN} $<TARGET_FILE:typelib_writer> standin ${VX_STANDIN_TYPELIB_FILE}
    DEPENDS typelib_writer
    WORKING_DIRECTORY ${VX_GENERATED_DIR}
    COMMENT "Writing the stand-in VB runtime type library"
    VERBATIM)

add_custom_command(
    OUTPUT ${VX_TYPELIB_FILE}
    COMMAND ${VX_WINE_RUN} $<TARGET_FILE:typelib_writer> library ${VX_TYPELIB_FILE} ${VX_STANDIN_TYPELIB_FILE}
    DEPENDS typelib_writer ${VX_STANDIN_TYPELIB_FILE}
    WORKING_DIRECTORY ${VX_GENERATED_DIR}
    COMMENT "Writing vxTypes32.tlb and comparing it with its description"
    VERBATIM)

# A second, independent reading of the finished file.
set(_vx_verified ${VX_GENERATED_DIR}/vxTypes32.tlb.verified)
add_custom_command(
    OUTPUT ${_vx_verified}
    COMMAND ${VX_WINE_RUN} $<TARGET_FILE:typelib_writer> verify ${VX_TYPELIB_FILE} ${VX_STANDIN_TYPELIB_FILE}
    COMMAND ${CMAKE_COMMAND} -E touch ${_vx_verified}
    DEPENDS typelib_writer ${VX_TYPELIB_FILE} ${VX_STANDIN_TYPELIB_FILE}
    WORKING_DIRECTORY ${VX_GENERATED_DIR}
    COMMENT "Verifying vxTypes32.tlb"
    VERBATIM)

add_custom_target(vx_generated
    DEPENDS ${_vx_generated_sources} ${VX_TYPELIB_FILE} ${VX_STANDIN_TYPELIB_FILE} ${_vx_verified})
