# Warnings for zel's own targets; third-party headers come in as system
# includes so that only our code is held to them.
function(zel_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wno-unused-parameter)
  if(ZEL_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
