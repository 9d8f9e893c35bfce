# A program that brings the C++ runtime along starts in half the time: loading libstdc++ takes longer than most
# of its small jobs. Not where the library is shared: both sides must use one runtime; nor under sanitizers, which
# replace parts of it.
include(CheckCXXSourceCompiles)
include(CMakePushCheckState)

cmake_push_check_state()
set(CMAKE_REQUIRED_LINK_OPTIONS -static-libstdc++ -static-libgcc)
check_cxx_source_compiles("#include <string>\nint main(int n, char** s) { return std::string(s[0]).size() == n; }"
  MORVANE_HAS_STATIC_CPP_RUNTIME)
cmake_pop_check_state()

function(morvane_bring_cpp_runtime target)
  if(MORVANE_HAS_STATIC_CPP_RUNTIME AND NOT BUILD_SHARED_LIBS AND NOT MORVANE_TAR_SANITIZE)
    target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc)
  endif()
endfunction()
