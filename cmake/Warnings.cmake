# Warnings are errors while this project is the one being built, never for those who build it as a part of theirs.
function(morvane_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wnon-virtual-dtor
    -Woverloaded-virtual -Wundef)
  # What the sanitizers add to the code makes GCC warn of faults that are none.
  if(PROJECT_IS_TOP_LEVEL AND NOT MORVANE_TAR_SANITIZE)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
