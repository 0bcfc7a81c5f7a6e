# GoogleTest and the test registration helper.
#
# Linux uses Debian's GoogleTest; the Windows lane builds it from
# /usr/src/googletest with the cross toolchain. Each test executable is one
# ctest entry: under Wine a process start costs about a second, so cases are
# not registered one by one.
if(WIN32 AND CMAKE_CROSSCOMPILING)
  set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  add_subdirectory(/usr/src/googletest ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
  set(ZEL_GTEST_LIBS gtest gmock)
else()
  find_package(GTest REQUIRED)
  set(ZEL_GTEST_LIBS GTest::gtest GTest::gmock)
endif()

# Time-outs, innermost first: a test case that runs longer than 60 s ends its
# executable with a message naming it (the watchdog of
# tests/support/test_main.cpp, ZEL_TEST_CASE_TIMEOUT); under Wine, wine-run
# ends the program and the Windows processes it started 30 s before the
# entry's TIMEOUT (ZEL_WINE_TIMEOUT); ctest's TIMEOUT is the backstop.
set(ZEL_TEST_TIMEOUT 300 CACHE STRING "Default ctest TIMEOUT of a test entry, in seconds")
set(ZEL_WINE_TIMEOUT_MARGIN 30)

# Sets the TIMEOUT of test name, and under Wine the time wine-run allows.
function(zel_set_test_timeout name seconds)
  set_tests_properties(${name} PROPERTIES TIMEOUT ${seconds})
  if(CMAKE_CROSSCOMPILING)
    math(EXPR wine_seconds "${seconds} - ${ZEL_WINE_TIMEOUT_MARGIN}")
    math(EXPR half "${seconds} / 2")
    if(wine_seconds LESS half)
      set(wine_seconds ${half})
    endif()
    set_property(TEST ${name} APPEND PROPERTY ENVIRONMENT "ZEL_WINE_TIMEOUT=${wine_seconds}")
  endif()
endfunction()

# zel_add_test(name SOURCES a_test.cpp ... [LIBS ...] [XVFB] [TIMEOUT s])
function(zel_add_test name)
  cmake_parse_arguments(ARG "XVFB" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE zel zel_test_support ${ZEL_GTEST_LIBS} ${ARG_LIBS})
  zel_set_warnings(${name})
  set(emulator "")
  if(ARG_XVFB AND CMAKE_CROSSCOMPILING)
    set(emulator ${CMAKE_CROSSCOMPILING_EMULATOR} --xvfb)
  endif()
  if(emulator)
    add_test(NAME ${name} COMMAND ${emulator} $<TARGET_FILE:${name}>)
  else()
    add_test(NAME ${name} COMMAND ${name})
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT ${ZEL_TEST_TIMEOUT})
  endif()
  zel_set_test_timeout(${name} ${ARG_TIMEOUT})
endfunction()

# One test executable for the *_test.cpp files of a library directory.
function(zel_add_directory_tests dir)
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/zel/${dir}/*_test.cpp)
  zel_filter_platform_sources(sources)
  # fs/proxy -> fs_proxy_tests
  string(REPLACE "/" "_" name ${dir})
  if(sources)
    zel_add_test(${name}_tests SOURCES ${sources} ${ARGN})
  endif()
endfunction()
