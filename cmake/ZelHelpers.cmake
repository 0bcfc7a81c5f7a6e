# Source selection by file name: foo.cpp is portable, foo_win.cpp is built
# only for Windows, foo_posix.cpp and foo_linux.cpp only for Linux, and
# foo_test.cpp is a unit test of the directory's test executable.
function(zel_filter_platform_sources var)
  set(result ${${var}})
  if(WIN32)
    list(FILTER result EXCLUDE REGEX "_(posix|linux)(_test)?\\.cpp$")
  else()
    list(FILTER result EXCLUDE REGEX "_win(_test)?\\.cpp$")
  endif()
  set(${var} ${result} PARENT_SCOPE)
endfunction()

# Copies the mingw runtime DLLs next to the executables so that Wine (and a
# Windows machine) finds them.
function(zel_copy_mingw_runtime)
  if(NOT (WIN32 AND CMAKE_CROSSCOMPILING))
    return()
  endif()
  # zlib1.dll: the static wxBase links the sysroot's zlib dynamically.
  foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll zlib1.dll)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
                    OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT EXISTS "${path}")
      message(FATAL_ERROR "mingw runtime ${dll} not found")
    endif()
    file(COPY "${path}" DESTINATION ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
    install(FILES "${path}" DESTINATION ${CMAKE_INSTALL_BINDIR})
  endforeach()
endfunction()
