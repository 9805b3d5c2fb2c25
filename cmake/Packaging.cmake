# What `cmake --install` puts where, and the two Debian packages scripts/package makes of it:
#   runtime (kpframeworkcorelogic): the shared libraries under their versioned names, kpcore,
#     its manual page and bash completion, and the changelog;
#   dev (kpframeworkcorelogic-dev): the public headers, the link-time names of the libraries,
#     the CMake package, the pkg-config files and the examples.

# The SONAME names the ABI a host was linked against. Before 1.0 any minor release may change
# it, so the SONAME carries major.minor (libKPFrameworkCoreLogic.so.0.1); from 1.0 on only a
# major release may, and it carries the major version alone. CHANGELOG.md states the rule.
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(KP_SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
else()
  set(KP_SOVERSION ${PROJECT_VERSION_MAJOR})
endif()
set_target_properties(KPFrameworkCoreLogic TarvixContracts PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION ${KP_SOVERSION})

install(TARGETS KPFrameworkCoreLogic TarvixContracts EXPORT KPFrameworkCoreLogicTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(DIRECTORY include/kp contracts/include/tarvix DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(FILES ${PROJECT_BINARY_DIR}/generated/kp/version.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kp
        COMPONENT dev)

set(KP_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KPFrameworkCoreLogic)
install(EXPORT KPFrameworkCoreLogicTargets NAMESPACE KPFrameworkCoreLogic:: DESTINATION ${KP_CMAKE_DIR}
        COMPONENT dev)
configure_package_config_file(cmake/KPFrameworkCoreLogicConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KPFrameworkCoreLogicConfig.cmake INSTALL_DESTINATION ${KP_CMAKE_DIR})
# Same major.minor: before 1.0 a minor release may break what a host built against.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KPFrameworkCoreLogicConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KPFrameworkCoreLogicConfig.cmake
              ${PROJECT_BINARY_DIR}/KPFrameworkCoreLogicConfigVersion.cmake
        DESTINATION ${KP_CMAKE_DIR} COMPONENT dev)
# The .pc files locate the prefix from their own folder, so the install tree can be moved.
file(RELATIVE_PATH KP_PC_RELATIVE_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
foreach(pc kpframeworkcorelogic tarvixcontracts)
  configure_file(cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endforeach()

set(KP_RUNTIME_PACKAGE kpframeworkcorelogic)
set(KP_DEV_PACKAGE kpframeworkcorelogic-dev)
install(FILES CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${KP_RUNTIME_PACKAGE} COMPONENT runtime)
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${KP_DEV_PACKAGE}/examples COMPONENT dev)
if(TARGET kpcore)
  install(TARGETS kpcore RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
  get_target_property(kp_kpcore_dir kpcore BINARY_DIR)
  install(FILES ${kp_kpcore_dir}/kpcore.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
  install(FILES ${kp_kpcore_dir}/kpcore.bash-completion RENAME kpcore
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT runtime)
endif()

# Debian packages. The runtime package's dependencies are what dpkg-shlibdeps finds the
# binaries linked against; a host building against the dev package needs only what the public
# headers use (Boost's header-only libraries) and, for the .pc route, pkg-config.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${KP_RUNTIME_PACKAGE})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "KPFrameworkCoreLogic maintainers <maintainers@kpframeworkcorelogic.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://kpframeworkcorelogic.invalid")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${KP_RUNTIME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "core client library of the weather application
 Requests and their queues, the sealed service protocol, the response cache,
 services, logging, storage, connectivity, dates and units, as two shared
 libraries, with the kpcore command-line tool, its manual page and its bash
 completion.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${KP_DEV_PACKAGE})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${KP_RUNTIME_PACKAGE} (= ${PROJECT_VERSION}), libboost1.81-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_RECOMMENDS "pkg-config | pkgconf, cmake")
set(CPACK_COMPONENT_DEV_DESCRIPTION "core client library of the weather application (development files)
 Public headers, the CMake package (find_package(KPFrameworkCoreLogic)), the
 pkg-config files and example programs for hosts built against the library.")

include(CPack)
