# The Windows checks: two compiles, one CTest test per driver source so that
# `ctest -j` spreads them, and a check of where the WDK build placed each
# routine:
#
#   windows_mingw.<source>  mingw-w64 g++ against its DDK headers and our own
#                           KMDF 1.15 and SPB declarations (wdk/kmdf.h,
#                           wdk/spb.h): the driver is written against the real
#                           WDM names, types and signatures.
#   windows_wdk.<source>    a WDK build (KORVANEL_WDK) against the published
#                           KMDF 1.15 headers and mingw-w64's DDK, with clang-19
#                           in MS-extensions mode and ALLOC_PRAGMA defined, so
#                           the code-section pragmas are compiled and what only
#                           the Microsoft compiler enforces (alloc_text names
#                           routines with C linkage) is enforced here too.
#                           The COFF object is kept in wdk-objects/.
#   windows_placement       reads those objects (llvm-readobj-19) and checks
#                           that each routine lies in the section it must
#                           (INIT, PAGE, resident .text) and that no resident
#                           code refers to pageable or discardable code
#                           (cmake/windows_placement.py).
#
# What the published headers and mingw's DDK need to compile together with a
# non-Microsoft compiler is arranged in the build tree here, never in the
# driver sources and never in the headers' own folder.

# The published headers sit in the shared folder beside the checkout (or the
# workplace's one, for a checkout made elsewhere); -DKMDF_INCLUDE_DIR=<a WDK's
# Include/wdf/kmdf/1.15> points the check at another copy.
find_path(KMDF_INCLUDE_DIR wdf.h
          PATHS ${CMAKE_CURRENT_SOURCE_DIR}/../shared/kmdf-1.15/include /work/shared/kmdf-1.15/include
          DOC "KMDF 1.15 include folder (a WDK's Include/wdf/kmdf/1.15) for the WDK-build check"
          NO_DEFAULT_PATH)
get_filename_component(KMDF_INCLUDE_DIR_REAL "${KMDF_INCLUDE_DIR}" ABSOLUTE)

find_program(KORVANEL_MINGW_CXX x86_64-w64-mingw32-g++)
find_program(KORVANEL_MINGW_CC x86_64-w64-mingw32-gcc)
find_program(KORVANEL_MS_CLANG NAMES clang++-19)
find_program(KORVANEL_LLVM_READOBJ NAMES llvm-readobj-19)
find_program(KORVANEL_LLVM_CXXFILT NAMES llvm-cxxfilt-19)
find_program(KORVANEL_PYTHON3 NAMES python3)
set(KORVANEL_DDK_DIR "")
foreach(dir /usr/share/mingw-w64/include/ddk /usr/x86_64-w64-mingw32/include/ddk)
  if(EXISTS ${dir}/ntddk.h)
    set(KORVANEL_DDK_DIR ${dir})
    break()
  endif()
endforeach()

# ---- The header set of the WDK-build check ---------------------------------
# kmdf/: the published headers as links, with
#   - a link under every differently-cased name their #include lines use
#     (the files are lower case; Windows file systems ignore case);
#   - wdfdevice.h and wdfrequest.h as copies in which the definition of
#     enum _WDF_REQUEST_TYPE moves ahead of wdfdevice.h's forward reference
#     (only the Microsoft compiler accepts forward references to enums);
#   - wdfobject.h as a copy whose context-type macro is quiet about what only
#     its own expansion does.
# ddk/: what mingw-w64's DDK lacks against a current WDK, found before it:
#   the no-fence accessors, TRACE_ENABLE_CONTEXT, spb.h and reshub.h.
set(KORVANEL_WDK_HEADERS ${CMAKE_CURRENT_BINARY_DIR}/wdk-check)
set(KORVANEL_WDK_CHECK_READY OFF)
if(KORVANEL_MS_CLANG AND KORVANEL_DDK_DIR AND EXISTS ${KMDF_INCLUDE_DIR_REAL}/wdf.h)
  file(REMOVE_RECURSE ${KORVANEL_WDK_HEADERS})
  file(MAKE_DIRECTORY ${KORVANEL_WDK_HEADERS}/kmdf ${KORVANEL_WDK_HEADERS}/ddk)
  file(GLOB kmdf_headers RELATIVE ${KMDF_INCLUDE_DIR_REAL} ${KMDF_INCLUDE_DIR_REAL}/*.h)
  set(included_names "")
  foreach(header ${kmdf_headers})
    file(CREATE_LINK ${KMDF_INCLUDE_DIR_REAL}/${header} ${KORVANEL_WDK_HEADERS}/kmdf/${header} SYMBOLIC)
    file(STRINGS ${KMDF_INCLUDE_DIR_REAL}/${header} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"[^\"]+\"")
    foreach(line ${lines})
      string(REGEX REPLACE ".*\"([^\"]+)\".*" "\\1" name "${line}")
      list(APPEND included_names ${name})
    endforeach()
  endforeach()
  list(REMOVE_DUPLICATES included_names)
  foreach(name ${included_names})
    string(TOLOWER ${name} lower)
    if(NOT name STREQUAL lower AND EXISTS ${KMDF_INCLUDE_DIR_REAL}/${lower})
      file(CREATE_LINK ${KMDF_INCLUDE_DIR_REAL}/${lower} ${KORVANEL_WDK_HEADERS}/kmdf/${name} SYMBOLIC)
    endif()
  endforeach()

  file(READ ${KMDF_INCLUDE_DIR_REAL}/wdfrequest.h request_h)
  file(READ ${KMDF_INCLUDE_DIR_REAL}/wdfdevice.h device_h)
  string(REGEX MATCH "typedef enum _WDF_REQUEST_TYPE {[^}]*} WDF_REQUEST_TYPE[^;]*;" request_type "${request_h}")
  set(forward "typedef enum _WDF_REQUEST_TYPE WDF_REQUEST_TYPE;")
  string(FIND "${device_h}" "${forward}" at)
  if(request_type STREQUAL "" OR at EQUAL -1)
    message(FATAL_ERROR "${KMDF_INCLUDE_DIR_REAL}: WDF_REQUEST_TYPE is not where KMDF 1.15 has it")
  endif()
  string(REPLACE "${forward}" "${request_type}" device_h "${device_h}")
  string(REPLACE "${request_type}" "/* defined ahead, in wdfdevice.h */" request_h "${request_h}")
  # The context-type macro expands, in the driver's own header, to a string
  # literal stored through PCHAR and an extern declared extern again: both
  # fine for the Microsoft compiler, both diagnosed by clang. Silence them for
  # that macro's expansion only.
  file(READ ${KMDF_INCLUDE_DIR_REAL}/wdfobject.h object_h)
  set(declare "#define WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(_contexttype, _castingfunction)")
  string(FIND "${object_h}" "${declare}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "${KMDF_INCLUDE_DIR_REAL}: WDF_DECLARE_CONTEXT_TYPE_WITH_NAME is not where KMDF 1.15 has it")
  endif()
  string(REPLACE "${declare}" "#define KORVANEL_WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(_contexttype, _castingfunction)"
         object_h "${object_h}")
  string(APPEND object_h [=[

#define WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(_contexttype, _castingfunction)  \
    _Pragma("clang diagnostic push")                                        \
    _Pragma("clang diagnostic ignored \"-Wwritable-strings\"")              \
    _Pragma("clang diagnostic ignored \"-Wduplicate-decl-specifier\"")      \
    KORVANEL_WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(_contexttype, _castingfunction) \
    _Pragma("clang diagnostic pop")
]=])
  foreach(header wdfdevice.h wdfrequest.h wdfobject.h)
    file(REMOVE ${KORVANEL_WDK_HEADERS}/kmdf/${header})
  endforeach()
  file(WRITE ${KORVANEL_WDK_HEADERS}/kmdf/wdfdevice.h "${device_h}")
  file(WRITE ${KORVANEL_WDK_HEADERS}/kmdf/wdfrequest.h "${request_h}")
  file(WRITE ${KORVANEL_WDK_HEADERS}/kmdf/wdfobject.h "${object_h}")

  file(WRITE ${KORVANEL_WDK_HEADERS}/ddk/ntddk.h [=[
/* mingw-w64's ntddk.h, then what a current WDK's wdm.h has beyond it. */
#pragma once
#include_next <ntddk.h>
#ifndef KORVANEL_NO_FENCE_ACCESSORS
#define KORVANEL_NO_FENCE_ACCESSORS
FORCEINLINE LONG ReadNoFence(LONG const volatile* Source) { return *Source; }
FORCEINLINE VOID WriteNoFence(LONG volatile* Destination, LONG Value) { *Destination = Value; }
FORCEINLINE SHORT ReadNoFence16(SHORT const volatile* Source) { return *Source; }
FORCEINLINE VOID WriteNoFence16(SHORT volatile* Destination, SHORT Value) { *Destination = Value; }
FORCEINLINE LONG64 ReadNoFence64(LONG64 const volatile* Source) { return *Source; }
FORCEINLINE VOID WriteNoFence64(LONG64 volatile* Destination, LONG64 Value) { *Destination = Value; }
FORCEINLINE ULONG ReadULongNoFence(ULONG const volatile* Source) { return *Source; }
FORCEINLINE VOID WriteULongNoFence(ULONG volatile* Destination, ULONG Value) { *Destination = Value; }
#endif
]=])
  file(WRITE ${KORVANEL_WDK_HEADERS}/ddk/evntrace.h [=[
/* mingw-w64's evntrace.h, then the logger record a classic provider's enable
 * callback receives, which a current WDK's evntrace.h declares. */
#pragma once
#include_next <evntrace.h>
#ifndef KORVANEL_TRACE_ENABLE_CONTEXT
#define KORVANEL_TRACE_ENABLE_CONTEXT
typedef struct _TRACE_ENABLE_CONTEXT {
    USHORT LoggerId;
    UCHAR Level;
    UCHAR InternalFlag;
    ULONG EnableFlags;
} TRACE_ENABLE_CONTEXT, *PTRACE_ENABLE_CONTEXT;
#endif
]=])
  file(WRITE ${KORVANEL_WDK_HEADERS}/ddk/spb.h
       "/* mingw-w64 has no spb.h: the published request layout, as the host declares it. */\n"
       "#pragma once\n#include \"${CMAKE_CURRENT_SOURCE_DIR}/wdk/spb.h\"\n")
  file(WRITE ${KORVANEL_WDK_HEADERS}/ddk/reshub.h
       "/* mingw-w64 has no reshub.h; the driver forms resource-hub paths itself. */\n#pragma once\n")
  set(KORVANEL_WDK_CHECK_READY ON)
endif()

# ---- One test per source and check ------------------------------------------
set(check_args
    -DSOURCE_DIR=${CMAKE_CURRENT_SOURCE_DIR}
    -DMINGW_CXX=${KORVANEL_MINGW_CXX}
    -DMS_CLANG=${KORVANEL_MS_CLANG}
    -DDDK_DIR=${KORVANEL_DDK_DIR}
    -DKMDF_DIR=${KMDF_INCLUDE_DIR_REAL}
    -DWDK_HEADERS=${KORVANEL_WDK_HEADERS}
    -DWDK_READY=${KORVANEL_WDK_CHECK_READY})
# How windows_check.cmake says it skipped where CMake has no script exit code.
set(skipped "(^|\n)skipped: ")
set(KORVANEL_WDK_OBJECTS ${CMAKE_CURRENT_BINARY_DIR}/wdk-objects)
set(KORVANEL_WINDOWS_CHECKED 0)
set(driver_sources_rel "")
foreach(src ${KORVANEL_DRIVER_SOURCES})
  file(RELATIVE_PATH rel ${CMAKE_CURRENT_SOURCE_DIR} ${src})
  list(APPEND driver_sources_rel ${rel})
  foreach(mode mingw wdk)
    add_test(NAME windows_${mode}.${rel}
             COMMAND ${CMAKE_COMMAND} ${check_args} -DMODE=${mode} -DSOURCE=${src}
                     -DOBJECT=${KORVANEL_WDK_OBJECTS}/${rel}.obj
                     -P ${CMAKE_CURRENT_SOURCE_DIR}/cmake/windows_check.cmake)
    set_tests_properties(windows_${mode}.${rel} PROPERTIES LABELS windows_${mode}
                         SKIP_RETURN_CODE 77 SKIP_REGULAR_EXPRESSION "${skipped}")
  endforeach()
  set_tests_properties(windows_wdk.${rel} PROPERTIES FIXTURES_SETUP wdk_objects)
  math(EXPR KORVANEL_WINDOWS_CHECKED "${KORVANEL_WINDOWS_CHECKED} + 1")
endforeach()
# Code placement, over every object of the WDK build: the compiles above are
# its fixture, so it runs after them (and `ctest -R windows_placement` runs
# them first).
add_test(NAME windows_placement
         COMMAND ${CMAKE_COMMAND} ${check_args} -DMODE=placement
                 -DLLVM_READOBJ=${KORVANEL_LLVM_READOBJ} -DLLVM_CXXFILT=${KORVANEL_LLVM_CXXFILT}
                 -DPYTHON3=${KORVANEL_PYTHON3} -DOBJECT_DIR=${KORVANEL_WDK_OBJECTS}
                 "-DSOURCES=${driver_sources_rel}"
                 -P ${CMAKE_CURRENT_SOURCE_DIR}/cmake/windows_check.cmake)
set_tests_properties(windows_placement PROPERTIES LABELS windows_placement FIXTURES_REQUIRED wdk_objects
                     SKIP_RETURN_CODE 77 SKIP_REGULAR_EXPRESSION "${skipped}")
# What the sources promise about each routine, read from the sources: the
# level and parameter annotations the WDK's code analysis reads, the levels
# of README's operation table, and PAGED_CODE() first in exactly the routines
# placed in PAGE (cmake/lint_driver.py). The second test plants one fault of
# each kind in a copy of the sources and expects the lint to name it.
if(KORVANEL_PYTHON3)
  set(lint_python ${KORVANEL_PYTHON3})
else()
  set(lint_python python3)
endif()
add_test(NAME lint_driver
         COMMAND ${lint_python} ${CMAKE_CURRENT_SOURCE_DIR}/cmake/lint_driver.py
                 --source-dir ${CMAKE_CURRENT_SOURCE_DIR})
add_test(NAME lint_driver_planted_faults
         COMMAND ${lint_python} ${CMAKE_CURRENT_SOURCE_DIR}/cmake/lint_driver.py
                 --source-dir ${CMAKE_CURRENT_SOURCE_DIR} --planted-faults)
# Every text the driver traces is pinned by a trace contract case
# (cmake/lint_trace_texts.py).
add_test(NAME lint_trace_texts
         COMMAND ${lint_python} ${CMAKE_CURRENT_SOURCE_DIR}/cmake/lint_trace_texts.py
                 --source-dir ${CMAKE_CURRENT_SOURCE_DIR})
set_tests_properties(lint_driver lint_driver_planted_faults lint_trace_texts PROPERTIES LABELS lint)

# The camera driver's view of the interface, compiled as C.
add_test(NAME windows_mingw.interface_as_c
         COMMAND ${CMAKE_COMMAND} ${check_args} -DMODE=interface_as_c -DWORK_DIR=${CMAKE_CURRENT_BINARY_DIR}
                 -DMINGW_CC=${KORVANEL_MINGW_CC} -P ${CMAKE_CURRENT_SOURCE_DIR}/cmake/windows_check.cmake)
set_tests_properties(windows_mingw.interface_as_c PROPERTIES LABELS windows_mingw
                     SKIP_RETURN_CODE 77 SKIP_REGULAR_EXPRESSION "${skipped}")

# The Windows project file cannot fall behind the sources.
add_test(NAME windows_project_lists_every_source
         COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${CMAKE_CURRENT_SOURCE_DIR}
                 -DPROJECT_FILE=${CMAKE_CURRENT_SOURCE_DIR}/windows/korvanel.vcxproj
                 "-DSOURCES=${KORVANEL_DRIVER_SOURCES}"
                 -P ${CMAKE_CURRENT_SOURCE_DIR}/cmake/windows_project_check.cmake)
set_tests_properties(windows_project_lists_every_source PROPERTIES LABELS windows_project)
