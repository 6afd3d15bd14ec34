# One Windows check (see windows_checks.cmake): the compile of one driver
# source, or the code-placement check over the WDK build's objects.
# Skipped when the check's tools are not on this machine (for the WDK build:
# neither clang-19 nor the KMDF headers; for the placement check: neither
# clang-19 nor LLVM's object tools); scripts/setup.sh installs them.
#
# A skip is exit 77 where CMake (3.29 on) lets a script set its exit code;
# before that, the tests' SKIP_REGULAR_EXPRESSION reads the "skipped:" line
# and return() ends the script (from a macro, so it leaves the script).
macro(skip why)
  message("skipped: ${why}")
  if(CMAKE_VERSION VERSION_GREATER_EQUAL 3.29)
    cmake_language(EXIT 77)
  endif()
  return()
endmacro()

function(compile)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${out}${err}")
  endif()
endfunction()

set(no_compiler "clang++-19 is not installed (apt-get install clang-19)")
set(windows_defines -D__INTRINSIC_DEFINED_InterlockedBitTestAndSet -D__INTRINSIC_DEFINED_InterlockedBitTestAndReset)

if(MODE STREQUAL "mingw")
  if(NOT MINGW_CXX OR NOT DDK_DIR)
    skip("x86_64-w64-mingw32-g++ or its DDK headers are not installed (apt-get install g++-mingw-w64-x86-64 mingw-w64-x86-64-dev)")
  endif()
  compile(${MINGW_CXX} -std=c++20 -fsyntax-only -fno-exceptions -fno-rtti -Wall -Wextra -Werror
          -DKORVANEL_CROSS_CHECK -I${DDK_DIR} -I${SOURCE_DIR} ${SOURCE})
elseif(MODE STREQUAL "wdk")
  # Skipped on a machine that has neither; half of it is a setup to fix.
  set(no_headers "no KMDF 1.15 headers at ${KMDF_DIR}: point the KMDF_INCLUDE_DIR cache variable at a WDK's kmdf/1.15 folder")
  if(NOT MS_CLANG AND NOT EXISTS ${KMDF_DIR}/wdf.h)
    skip("${no_compiler}, and ${no_headers}")
  elseif(NOT MS_CLANG)
    message(FATAL_ERROR "${no_compiler}")
  elseif(NOT EXISTS ${KMDF_DIR}/wdf.h)
    message(FATAL_ERROR "${no_headers}")
  endif()
  if(NOT DDK_DIR OR NOT WDK_READY)
    skip("mingw-w64's DDK headers are not installed (apt-get install mingw-w64-x86-64-dev)")
  endif()
  # The WDK's KMDF project defines the framework version; the two intrinsic
  # markers keep mingw's wdm.h compiling as C++; mingw's intrin.h pulls in a
  # clang header that warns of its own deprecation unless told not to.
  # The object is kept for the placement check, which reads the sections the
  # code-section pragmas put each routine in; a failed compile leaves none.
  get_filename_component(object_dir ${OBJECT} DIRECTORY)
  file(MAKE_DIRECTORY ${object_dir})
  file(REMOVE ${OBJECT})
  compile(${MS_CLANG} --target=x86_64-w64-mingw32 -std=c++20 -fms-extensions -c -o ${OBJECT}
          -fno-exceptions -fno-rtti -Wall -Wextra -Werror
          -DKORVANEL_WDK -DALLOC_PRAGMA -DKMDF_VERSION_MAJOR=1 -DKMDF_VERSION_MINOR=15 ${windows_defines}
          -D_CLANG_DISABLE_CRT_DEPRECATION_WARNINGS
          -isystem ${WDK_HEADERS}/ddk -isystem ${DDK_DIR} -isystem ${WDK_HEADERS}/kmdf
          -I${SOURCE_DIR} ${SOURCE})
elseif(MODE STREQUAL "placement")
  # Reads the objects the windows_wdk tests leave; like that check, skipped
  # only when neither tool is there.
  set(no_llvm "llvm-readobj-19 or llvm-cxxfilt-19 is not installed (apt-get install llvm-19)")
  if(NOT MS_CLANG AND NOT (LLVM_READOBJ AND LLVM_CXXFILT))
    skip("${no_compiler}, and ${no_llvm}")
  elseif(NOT MS_CLANG)
    message(FATAL_ERROR "${no_compiler}: there are no Windows objects to read")
  elseif(NOT LLVM_READOBJ OR NOT LLVM_CXXFILT)
    message(FATAL_ERROR "${no_llvm}")
  endif()
  if(NOT DDK_DIR OR NOT WDK_READY)
    skip("the WDK build did not run: mingw-w64's DDK headers are not installed (apt-get install mingw-w64-x86-64-dev)")
  endif()
  if(NOT PYTHON3)
    message(FATAL_ERROR "python3 is not installed (apt-get install python3)")
  endif()
  execute_process(COMMAND ${PYTHON3} ${SOURCE_DIR}/cmake/windows_placement.py
                          --readobj ${LLVM_READOBJ} --cxxfilt ${LLVM_CXXFILT}
                          --source-dir ${SOURCE_DIR} --object-dir ${OBJECT_DIR} ${SOURCES}
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  string(STRIP "${out}${err}" report)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${report}")
  endif()
  message("${report}")
elseif(MODE STREQUAL "interface_as_c")
  if(NOT MINGW_CC OR NOT DDK_DIR)
    skip("x86_64-w64-mingw32-gcc or its DDK headers are not installed")
  endif()
  file(WRITE ${WORK_DIR}/interface_as_c.c
       "#include <ntddk.h>\n#include \"sensor/sensor_interface.h\"\nint korvanel_interface_size = sizeof(SENSOR_INTERFACE);\n")
  compile(${MINGW_CC} -std=c11 -fsyntax-only -Wall -Wextra -Werror -I${DDK_DIR} -I${SOURCE_DIR}
          ${WORK_DIR}/interface_as_c.c)
else()
  message(FATAL_ERROR "unknown check ${MODE}")
endif()
