# Shared warning flags for every target the project builds.
function(xferfm_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(XFERFM_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
