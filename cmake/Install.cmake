# Install.cmake -- what `cmake --install` puts where, and the Debian packages
# CPack makes of it: lus-host (the programs, their host library, lus and the
# sample clients, the scenarios) and lus-dev (headers, the CMake package, the
# documentation, the client template).
#
#   PREFIX/bin/{hyksim,lusctl}
#   PREFIX/lib/lus/private/libhyksim.so    the programs' own host (a private library)
#   PREFIX/lib/lus/modules/b<build>/lus.so, PREFIX/lib/lus/modules/clients/*.so
#   PREFIX/share/lus/scenarios/*.hyk
#   PREFIX/include/{hyk,hyksim}/..., PREFIX/include/{lus.h,lus_ioctl.h,tarn_hash_common.h}
#   PREFIX/lib/cmake/Lus/                  find_package(Lus)
#   PREFIX/share/doc/lus-{host,dev}/, PREFIX/share/man/man1/, PREFIX/share/lus/examples/client-template/
#
# Everything is found relative to the programs, so the tree can move.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# A private directory two levels below lib/: no ldconfig run is asked for it.
set(LUS_INSTALL_PRIVATE_LIBDIR ${CMAKE_INSTALL_LIBDIR}/lus/private)
set(LUS_INSTALL_MODULEDIR ${CMAKE_INSTALL_LIBDIR}/lus/modules)

set_target_properties(hyksim_program lusctl PROPERTIES INSTALL_RPATH "$ORIGIN/../${LUS_INSTALL_PRIVATE_LIBDIR}")
install(TARGETS hyksim_program lusctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT host)
install(TARGETS hyksim LIBRARY DESTINATION ${LUS_INSTALL_PRIVATE_LIBDIR} COMPONENT host)
install(TARGETS lus LIBRARY DESTINATION ${LUS_INSTALL_MODULEDIR}/b${LUS_DEFAULT_BUILD_NUMBER} COMPONENT host)
install(TARGETS ${TARNQ_CLIENT_TARGETS} LIBRARY DESTINATION ${LUS_INSTALL_MODULEDIR}/clients COMPONENT host)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/scenarios/ DESTINATION ${CMAKE_INSTALL_DATADIR}/lus/scenarios
        COMPONENT host FILES_MATCHING PATTERN "*.hyk")

install(DIRECTORY ${CMAKE_SOURCE_DIR}/hyk/include/hyk DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/hyk/sim/include/hyksim DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(FILES ${CMAKE_SOURCE_DIR}/datapath/hvs/modules/include/lus.h
              ${CMAKE_SOURCE_DIR}/datapath/hvs/modules/include/lus_ioctl.h
              ${CMAKE_SOURCE_DIR}/datapath/hvs/modules/include/tarn_hash_common.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

set(LUS_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Lus)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/LusConfig.cmake.in
  ${CMAKE_BINARY_DIR}/LusConfig.cmake
  INSTALL_DESTINATION ${LUS_INSTALL_CMAKEDIR}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_BINDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/LusConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/LusConfig.cmake ${CMAKE_BINARY_DIR}/LusConfigVersion.cmake
              ${CMAKE_SOURCE_DIR}/cmake/LusModule.cmake
        DESTINATION ${LUS_INSTALL_CMAKEDIR} COMPONENT dev)
install(PROGRAMS ${CMAKE_SOURCE_DIR}/tests/module/check_module_symbols.sh
        DESTINATION ${LUS_INSTALL_CMAKEDIR} COMPONENT dev)

install(FILES ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/docs/USER_GUIDE.md
              ${CMAKE_SOURCE_DIR}/docs/WRITING_A_CLIENT.md ${CMAKE_SOURCE_DIR}/docs/ARCHITECTURE.md
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/lus-dev COMPONENT dev)

# What Debian wants of every package: copyright and changelog (compressed,
# without a time stamp, so that two builds give the same bytes), man pages.
set(LUS_PACKAGING_DIR ${CMAKE_BINARY_DIR}/packaging)
file(MAKE_DIRECTORY ${LUS_PACKAGING_DIR})
foreach(f changelog hyksim.1 lusctl.1)
  execute_process(COMMAND gzip -9nc ${CMAKE_SOURCE_DIR}/packaging/${f}
                  OUTPUT_FILE ${LUS_PACKAGING_DIR}/${f}.gz)
endforeach()
foreach(component host dev)
  install(FILES ${CMAKE_SOURCE_DIR}/packaging/copyright ${LUS_PACKAGING_DIR}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/lus-${component} COMPONENT ${component})
endforeach()
install(FILES ${LUS_PACKAGING_DIR}/hyksim.1.gz ${LUS_PACKAGING_DIR}/lusctl.1.gz
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT host)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/lus-host.lintian-overrides
        DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME lus-host COMPONENT host)
if(EXISTS ${CMAKE_SOURCE_DIR}/examples/client-template/CMakeLists.txt)
  install(DIRECTORY ${CMAKE_SOURCE_DIR}/examples/client-template DESTINATION ${CMAKE_INSTALL_DATADIR}/lus/examples
          COMPONENT dev PATTERN "build*" EXCLUDE)
endif()

# ---- Debian packages -----------------------------------------------------------------
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME lus)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "lus maintainers <lus-maintainers@example.org>")
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "live upgrade of a hypervisor host's network datapath")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL host dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_HOST_PACKAGE_NAME lus-host)
set(CPACK_DEBIAN_HOST_PACKAGE_SECTION net)
set(CPACK_DEBIAN_HOST_DESCRIPTION "live upgrade of a host's network datapath: programs
 hyksim (the host kernel in user space, its scenario language and socket
 server), lusctl (the upgrade tool), the lus module and the sample datapath
 clients.")
set(CPACK_DEBIAN_HOST_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME lus-dev)
set(CPACK_DEBIAN_DEV_DESCRIPTION "live upgrade of a host's network datapath: SDK
 Headers of the host-kernel interface and of lus's client interface, the
 CMake package (find_package(Lus), lus_add_module), the documentation and a
 client template.")
set(CPACK_DEBIAN_DEV_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS lus-host)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "cmake (>= 3.25), g++")
include(CPack)
