# Installs a zel build into a scratch prefix, then builds and runs the
# consumer project against it (and, on Linux, compiles it once more with the
# flags from pkg-config), and runs the installed `zel info` from the prefix
# moved elsewhere.
#   cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DWORK_DIR=... -DLIBDIR=lib [-DTOOLCHAIN=...]
#         [-DEMULATOR=...] [-DCXX_FLAGS=...] [-DLINKER_FLAGS=...] -P check.cmake
foreach(var BUILD_DIR SOURCE_DIR WORK_DIR LIBDIR)
  if(NOT ${var})
    message(FATAL_ERROR "${var} is required")
  endif()
endforeach()

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "failed (${result}): ${command}")
  endif()
endfunction()

set(prefix ${WORK_DIR}/prefix)
set(build ${WORK_DIR}/build)
file(REMOVE_RECURSE ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

set(args -S ${SOURCE_DIR} -B ${build} -G Ninja -DCMAKE_PREFIX_PATH=${prefix}
    -Dzel_DIR=${prefix}/${LIBDIR}/cmake/zel
    -DCMAKE_RUNTIME_OUTPUT_DIRECTORY=${prefix}/bin)
if(TOOLCHAIN)
  list(APPEND args -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN})
endif()
if(CXX_FLAGS)
  list(APPEND args "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}")
endif()
if(LINKER_FLAGS)
  list(APPEND args "-DCMAKE_EXE_LINKER_FLAGS=${LINKER_FLAGS}")
endif()
run(${CMAKE_COMMAND} ${args})
run(${CMAKE_COMMAND} --build ${build})
if(EMULATOR)
  run(${EMULATOR} ${prefix}/bin/zel_consumer.exe)
else()
  run(${prefix}/bin/zel_consumer)
endif()

if(NOT TOOLCHAIN)
  # The pkg-config file alone must be enough to build against the library.
  set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
  execute_process(COMMAND pkg-config --cflags --libs zel OUTPUT_VARIABLE flags
                  OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "pkg-config does not know zel")
  endif()
  separate_arguments(flags UNIX_COMMAND "${flags}")
  separate_arguments(extra UNIX_COMMAND "${CXX_FLAGS} ${LINKER_FLAGS}")
  # No -std here: the .pc file's flags carry the standard the headers need.
  run(c++ ${extra} ${SOURCE_DIR}/main.cpp -o ${WORK_DIR}/pkgconfig_consumer ${flags}
      -Wl,-rpath,${prefix}/${LIBDIR})
  run(${WORK_DIR}/pkgconfig_consumer)
endif()

# The installed tool finds its library relative to itself: it runs from the
# prefix even after the prefix has been moved.
set(moved ${WORK_DIR}/moved-prefix)
file(RENAME ${prefix} ${moved})
if(EMULATOR AND EXISTS ${moved}/bin/zel.exe)
  run(${EMULATOR} ${moved}/bin/zel.exe info)
elseif(EXISTS ${moved}/bin/zel)
  run(${moved}/bin/zel info)
else()
  message(STATUS "no tool installed (a lane without ZEL_BUILD_TOOLS)")
endif()
message(STATUS "consumer check passed")
