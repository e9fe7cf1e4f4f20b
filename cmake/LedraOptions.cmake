# Compiler settings shared by every target of the project.
add_library(ledra_options INTERFACE)
target_include_directories(ledra_options INTERFACE
  ${PROJECT_SOURCE_DIR}/platform
  ${PROJECT_SOURCE_DIR})
target_compile_options(ledra_options INTERFACE -Wall -Wextra -Wpedantic -Wno-unused-parameter)
# Calls inside a shared library may be inlined: nothing interposes the project's own symbols.
target_compile_options(ledra_options INTERFACE -fno-semantic-interposition)
if(LEDRA_WERROR)
  target_compile_options(ledra_options INTERFACE -Werror)
  # g++ 12 at -O3 reports -Wrestrict inside std::string's operator+ (a false positive of that
  # release, gone in 13): it stays a warning there, not an error.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(ledra_options INTERFACE -Wno-error=restrict)
  endif()
endif()
if(LEDRA_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "LEDRA_FUZZ needs clang (-DCMAKE_CXX_COMPILER=clang++)")
  endif()
  # Coverage feedback for libFuzzer in every library; the harnesses link libFuzzer itself.
  target_compile_options(ledra_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(LEDRA_SANITIZE)
  target_compile_options(ledra_options INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(ledra_options INTERFACE -fsanitize=address,undefined)
endif()

# ledra_sources(<var> <dir>...): every .cpp below the given folders.
function(ledra_sources out)
  set(files)
  foreach(dir IN LISTS ARGN)
    file(GLOB_RECURSE found CONFIGURE_DEPENDS ${dir}/*.cpp)
    list(APPEND files ${found})
  endforeach()
  set(${out} ${files} PARENT_SCOPE)
endfunction()
