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
    set(ARG_TIMEOUT 300)
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT})
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
