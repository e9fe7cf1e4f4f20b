# Compiler settings shared by every target of the project.
#
# Two include roots: platform/ for the platform ("Qel/Core/Ptr.h", "Ledra/Cell.h") and the project's
# own for everything above it ("Orn/LogicalOp.h", "PassiveEntityManager/Mount.h", "apps/...",
# "tests/support/..."). A folder name present under both would let a header of one layer shadow a
# header of the other, so configuring stops on one.
set(LEDRA_INCLUDE_ROOTS ${PROJECT_SOURCE_DIR}/platform ${PROJECT_SOURCE_DIR})
function(ledra_check_include_roots)
  set(seen)
  foreach(root IN LISTS LEDRA_INCLUDE_ROOTS)
    file(GLOB entries LIST_DIRECTORIES true RELATIVE ${root} ${root}/*)
    foreach(entry IN LISTS entries)
      if(NOT IS_DIRECTORY ${root}/${entry} OR entry MATCHES "^(\\.|build)")
        continue()
      endif()
      file(GLOB_RECURSE headers ${root}/${entry}/*.h)
      if(NOT headers)
        continue()
      endif()
      if(entry IN_LIST seen)
        message(FATAL_ERROR "the folder '${entry}' stands under two include roots "
                            "(${LEDRA_INCLUDE_ROOTS}): a header of one could shadow the other's")
      endif()
      list(APPEND seen ${entry})
    endforeach()
  endforeach()
endfunction()
ledra_check_include_roots()
add_library(ledra_options INTERFACE)
target_include_directories(ledra_options INTERFACE ${LEDRA_INCLUDE_ROOTS})
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

# ledra_files(<var> <extension> <dir>...): every file ending in .<extension> below the given
# folders (relative to the calling list), as absolute paths.
function(ledra_files out extension)
  set(files)
  foreach(dir IN LISTS ARGN)
    file(GLOB_RECURSE found CONFIGURE_DEPENDS ${dir}/*.${extension})
    list(APPEND files ${found})
  endforeach()
  set(${out} ${files} PARENT_SCOPE)
endfunction()

# ledra_sources(<var> <dir>...): every .cpp below the given folders.
function(ledra_sources out)
  ledra_files(files cpp ${ARGN})
  set(${out} ${files} PARENT_SCOPE)
endfunction()

# ledra_public_headers(<target> ROOT <include root> DIRS <dir>... [PRIVATE <file name>...]):
# every .h below the given folders (relative to the calling list, like ledra_sources) is part of
# <target>'s public interface and is installed with it, at its path below <include root> (the
# folder its #include lines are written from). Headers named in PRIVATE stay in the source tree.
# The target is registered for installation and export (cmake/LedraPackage.cmake). Every library
# shares one installed include root, so two libraries may not publish the same include path.
function(ledra_public_headers target)
  cmake_parse_arguments(ARG "" "ROOT" "DIRS;PRIVATE" ${ARGN})
  ledra_files(files h ${ARG_DIRS})
  set(public)
  get_property(published GLOBAL PROPERTY LEDRA_PUBLISHED_HEADERS)
  foreach(file IN LISTS files)
    get_filename_component(name ${file} NAME)
    if(name IN_LIST ARG_PRIVATE)
      continue()
    endif()
    file(RELATIVE_PATH path ${ARG_ROOT} ${file})
    if(path IN_LIST published)
      message(FATAL_ERROR "${target}: the public header ${path} is published by another library")
    endif()
    list(APPEND published ${path})
    list(APPEND public ${file})
  endforeach()
  set_property(GLOBAL PROPERTY LEDRA_PUBLISHED_HEADERS ${published})
  get_target_property(type ${target} TYPE)
  set(scope PUBLIC)
  if(type STREQUAL "INTERFACE_LIBRARY")
    set(scope INTERFACE)
  endif()
  target_sources(${target} ${scope} FILE_SET HEADERS BASE_DIRS ${ARG_ROOT} FILES ${public})
  set_property(GLOBAL APPEND PROPERTY LEDRA_PACKAGED_LIBRARIES ${target})
endfunction()
