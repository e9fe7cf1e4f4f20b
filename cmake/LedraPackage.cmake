# Installation, the CMake package, the pkg-config file and the Debian packages.
#
# Components (one Debian package each):
#   runtime  the shared libraries: lib/libLedra<Name>.so.<version>, named by their SONAME
#            libLedra<Name>.so.<major>.<minor>
#   dev      the public headers under one include root, include/ledra, so that
#            -I<prefix>/include/ledra resolves the same #include paths as inside this tree
#            ("Qel/Core/Ptr.h", "PassiveEntityManager/PassiveEntityManager.h"); the libLedra<Name>.so
#            links; the exported targets Ledra::<Name> with LedraConfig.cmake and
#            LedraConfigVersion.cmake under lib/cmake/Ledra; lib/pkgconfig/ledra.pc
#   tools    every program defined under apps/, in bin/, and the example profiles and state in
#            share/ledra/examples (ledrad --profiles ... --state ...)
# The libraries are those that publish headers (ledra_public_headers); their export name is the
# target's name without "Ledra" (LedraPassiveEntityMgr: Ledra::PassiveEntityMgr), and the same
# name is an alias inside this build.
#
# Versions: while the major version is 0 a minor release may change the interface and the binary
# interface, so the SONAME carries major.minor and find_package(Ledra 0.1) accepts 0.1.x only
# (SameMinorVersion); SameMajorVersion would let 0.2 stand in for 0.1.
include(CMakePackageConfigHelpers)

set(LEDRA_SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
set(LEDRA_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/ledra)
set(LEDRA_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Ledra)
set(LEDRA_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

get_property(libraries GLOBAL PROPERTY LEDRA_PACKAGED_LIBRARIES)
set(pc_libs)
foreach(lib IN LISTS libraries)
  string(REGEX REPLACE "^Ledra" "" name ${lib})
  set_target_properties(${lib} PROPERTIES EXPORT_NAME ${name})
  add_library(Ledra::${name} ALIAS ${lib})
  get_target_property(type ${lib} TYPE)
  if(type STREQUAL "INTERFACE_LIBRARY")
    target_compile_features(${lib} INTERFACE cxx_std_20)
    continue()
  endif()
  target_compile_features(${lib} PUBLIC cxx_std_20)
  set_target_properties(${lib} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${LEDRA_SOVERSION})
  # Libraries register before those that use them; the linker wants users first.
  list(PREPEND pc_libs -l${lib})
endforeach()

set(programs)
get_property(app_dirs DIRECTORY ${PROJECT_SOURCE_DIR}/apps PROPERTY SUBDIRECTORIES)
foreach(dir IN LISTS app_dirs)
  get_property(targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "EXECUTABLE")
      list(APPEND programs ${target})
    endif()
  endforeach()
endforeach()

install(TARGETS ${libraries} EXPORT LedraTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  FILE_SET HEADERS DESTINATION ${LEDRA_INCLUDEDIR} COMPONENT dev)
install(EXPORT LedraTargets NAMESPACE Ledra:: DESTINATION ${LEDRA_CMAKEDIR} COMPONENT dev)
install(TARGETS ${programs} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/profiles ${PROJECT_SOURCE_DIR}/examples/state
  ${PROJECT_SOURCE_DIR}/examples/hotplug
  DESTINATION ${CMAKE_INSTALL_DATADIR}/ledra/examples COMPONENT tools)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/LedraConfig.cmake.in
  ${PROJECT_BINARY_DIR}/LedraConfig.cmake INSTALL_DESTINATION ${LEDRA_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/LedraConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/LedraConfig.cmake ${PROJECT_BINARY_DIR}/LedraConfigVersion.cmake
  DESTINATION ${LEDRA_CMAKEDIR} COMPONENT dev)

# ledra.pc finds the prefix from its own place, so the installed tree may be moved.
file(RELATIVE_PATH LEDRA_PC_PREFIX /prefix/${LEDRA_PKGCONFIGDIR} /prefix)
string(REGEX REPLACE "/$" "" LEDRA_PC_PREFIX ${LEDRA_PC_PREFIX})
list(JOIN pc_libs " " LEDRA_PC_LIBS)
configure_file(${CMAKE_CURRENT_LIST_DIR}/ledra.pc.in ${PROJECT_BINARY_DIR}/ledra.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ledra.pc DESTINATION ${LEDRA_PKGCONFIGDIR} COMPONENT dev)

# cpack -G DEB: libledra<major>.<minor> (runtime), libledra-dev (dev), ledra-tools (tools).
set(CPACK_PACKAGE_NAME ledra)
set(CPACK_PACKAGE_VENDOR "Ledra")
set(CPACK_PACKAGE_CONTACT "Ledra developers <ledra@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Ledra passive entity manager")
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libledra${LEDRA_SOVERSION})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libledra-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ledra-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
# The runtime package declares its libraries (shlibs), so that packages built against them
# depend on it at this version or a later one of the same SONAME.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The packages carry stripped binaries; the build tree keeps the debug information.
set(CPACK_STRIP_FILES ON)
find_program(LEDRA_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(LEDRA_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # dpkg-shlibdeps runs in the staged folder of the package it examines: the programs find the
  # project's libraries in the runtime package's staged folder beside it (their package
  # dependency comes from the component dependency below).
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ../runtime/usr/${CMAKE_INSTALL_LIBDIR})
else()
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6, libstdc++6, libgcc-s1")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libc6, libstdc++6, libgcc-s1")
endif()
include(CPack)
cpack_add_component(runtime DISPLAY_NAME "Libraries"
  DESCRIPTION "The shared libraries of the Ledra passive entity manager and its platform")
cpack_add_component(dev DISPLAY_NAME "Development files" DEPENDS runtime
  DESCRIPTION "Headers, CMake package and pkg-config file to build a database process on Ledra")
cpack_add_component(tools DISPLAY_NAME "Programs" DEPENDS runtime
  DESCRIPTION "ledrad, ledra-agent, ledra-ctl and ringlog-decode")
