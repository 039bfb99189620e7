# Every project target calls korv_set_warnings(); third-party code is never compiled here.
function(korv_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
                                           -Wold-style-cast -Wcast-align -Woverloaded-virtual
                                           -Wimplicit-fallthrough)
  if(KORV_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
