# Warnings for the project's own code; VLOAD_WERROR makes them errors (CI).
function(vload_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wconversion-null
                         $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>)
  if(VLOAD_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
