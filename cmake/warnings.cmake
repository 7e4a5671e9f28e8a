# The warnings that every target of this project is compiled with.
function(vornfc_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
    -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wundef
    $<$<BOOL:${VORNFC_WERROR}>:-Werror>)
endfunction()
