# Compiles every driver source for Windows x64 with the mingw-w64 cross
# compiler against its DDK headers and our KMDF/SPB declarations, warnings as
# errors; and the published interface header as C. Exit 77 (skipped) only when
# the cross compiler is missing.
if(NOT WORK_DIR)
  set(WORK_DIR ${CMAKE_CURRENT_BINARY_DIR})
endif()
find_program(MINGW_CXX x86_64-w64-mingw32-g++)
find_program(MINGW_CC x86_64-w64-mingw32-gcc)
if(NOT MINGW_CXX OR NOT MINGW_CC)
  message("windows cross-check skipped: x86_64-w64-mingw32-g++ is not installed (apt-get install g++-mingw-w64-x86-64)")
  cmake_language(EXIT 77)
endif()
execute_process(COMMAND ${MINGW_CXX} -print-sysroot OUTPUT_VARIABLE sysroot OUTPUT_STRIP_TRAILING_WHITESPACE)
set(ddk "")
foreach(dir /usr/share/mingw-w64/include/ddk /usr/x86_64-w64-mingw32/include/ddk)
  if(EXISTS ${dir}/ntddk.h)
    set(ddk ${dir})
    break()
  endif()
endforeach()
if(NOT ddk)
  message(FATAL_ERROR "mingw-w64 DDK headers not found (apt-get install mingw-w64-x86-64-dev)")
endif()

set(failed 0)
set(count 0)
foreach(src ${SOURCES})
  execute_process(
    COMMAND ${MINGW_CXX} -std=c++20 -fsyntax-only -fno-exceptions -fno-rtti -Wall -Wextra -Werror
            -DKORVANEL_CROSS_CHECK -I${ddk} -I${SOURCE_DIR} ${src}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  math(EXPR count "${count} + 1")
  if(NOT rc EQUAL 0)
    message("FAILED: ${src}\n${out}${err}")
    set(failed 1)
  endif()
endforeach()

# The camera driver's view of the interface, compiled as C.
file(WRITE ${WORK_DIR}/interface_as_c.c
  "#include <ntddk.h>\n#include \"sensor/sensor_interface.h\"\nint korvanel_interface_size = sizeof(SENSOR_INTERFACE);\n")
execute_process(
  COMMAND ${MINGW_CC} -std=c11 -fsyntax-only -Wall -Wextra -Werror -I${ddk} -I${SOURCE_DIR}
          ${WORK_DIR}/interface_as_c.c
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message("FAILED: sensor/sensor_interface.h as C\n${out}${err}")
  set(failed 1)
endif()

if(failed)
  message(FATAL_ERROR "windows cross-check failed")
endif()
message("windows cross-check: ${count} driver sources and the interface header compile cleanly")
