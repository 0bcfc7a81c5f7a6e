# wxWidgets base library, found through wx-config: Debian's on Linux, the
# static mingw build of scripts/build-wx-mingw in the Windows lane (its
# wx-config is a shell script that runs on the build machine).
#
# The result is the interface target zel_wxbase (exported as zel::zel_wxbase),
# which the library links publicly because String holds a wxString.
set(ZEL_WX_CONFIG "" CACHE FILEPATH "wx-config of the wxWidgets 3.2 base library to use")
if(NOT ZEL_WX_CONFIG)
  find_program(ZEL_WX_CONFIG_FOUND NAMES wx-config REQUIRED)
  set(ZEL_WX_CONFIG ${ZEL_WX_CONFIG_FOUND} CACHE FILEPATH "" FORCE)
endif()

function(_zel_wx_config out)
  execute_process(COMMAND ${ZEL_WX_CONFIG} ${ARGN}
                  OUTPUT_VARIABLE value OUTPUT_STRIP_TRAILING_WHITESPACE
                  RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${ZEL_WX_CONFIG} ${ARGN} failed (${result})")
  endif()
  set(${out} "${value}" PARENT_SCOPE)
endfunction()

_zel_wx_config(ZEL_WX_VERSION --version)
_zel_wx_config(_wx_cxxflags --cxxflags base)
_zel_wx_config(_wx_libs --libs base)
separate_arguments(_wx_cxxflags UNIX_COMMAND "${_wx_cxxflags}")
separate_arguments(_wx_libs UNIX_COMMAND "${_wx_libs}")

set(_wx_includes "")
set(_wx_options "")
foreach(flag IN LISTS _wx_cxxflags)
  if(flag MATCHES "^-I(.+)$")
    list(APPEND _wx_includes "${CMAKE_MATCH_1}")
  else()
    list(APPEND _wx_options "${flag}")
  endif()
endforeach()

if(ZEL_WX_VERSION VERSION_LESS 3.2)
  message(FATAL_ERROR "zel needs wxWidgets 3.2 or newer; ${ZEL_WX_CONFIG} reports ${ZEL_WX_VERSION}")
endif()
message(STATUS "wxWidgets ${ZEL_WX_VERSION} base from ${ZEL_WX_CONFIG}")

add_library(zel_wxbase INTERFACE)
target_include_directories(zel_wxbase SYSTEM INTERFACE ${_wx_includes})
target_compile_options(zel_wxbase INTERFACE ${_wx_options})
target_link_libraries(zel_wxbase INTERFACE ${_wx_libs})
