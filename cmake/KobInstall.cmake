# What `cmake --install` and the Debian package ship: kobdiag and the programs
# beside it, libkob and libkobec (static and shared), their headers under
# include/kob/, pkg-config files, the CMake package kob and the manual pages.
# The lab build, koblab, the tests and the benchmarks stay in the build tree.
include(CMakePackageConfigHelpers)

set(KOB_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/kob)
set(KOB_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/kob)
set(KOB_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Programs and their pages, where this build makes them (kobreport and
# kobreportd come later).  The tests read these lists.
set(KOB_INSTALLED_PROGRAMS "")
set(KOB_INSTALLED_MANPAGES libkob.3)
foreach(entry kobdiag:1 koblog:1 kobstat:1 kobreport:1 kobreportd:8)
  string(REPLACE ":" ";" entry "${entry}")
  list(GET entry 0 program)
  list(GET entry 1 section)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    install(FILES ${PROJECT_SOURCE_DIR}/man/${program}.${section}
            DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
    list(APPEND KOB_INSTALLED_PROGRAMS ${program})
    list(APPEND KOB_INSTALLED_MANPAGES ${program}.${section})
  endif()
endforeach()
install(FILES ${PROJECT_SOURCE_DIR}/man/libkob.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)

# Libraries.  libkob.h includes its siblings with quotes, so one directory of
# its own keeps them together and away from the system's headers.
set(KOB_INSTALLED_LIBRARIES kob kobec)
if(KOB_BUILD_SHARED)
  list(APPEND KOB_INSTALLED_LIBRARIES kob_shared kobec_shared)
endif()
install(TARGETS ${KOB_INSTALLED_LIBRARIES} EXPORT kobTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${KOB_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${KOB_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")

# CMake package: find_package(kob) gives kob::kob and kob::kobec.
install(EXPORT kobTargets NAMESPACE kob:: DESTINATION ${KOB_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/kobConfig.cmake.in
  ${PROJECT_BINARY_DIR}/kobConfig.cmake INSTALL_DESTINATION ${KOB_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kobConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kobConfig.cmake ${PROJECT_BINARY_DIR}/kobConfigVersion.cmake
  DESTINATION ${KOB_INSTALL_CMAKEDIR})

# pkg-config files that find the prefix from their own place, so an installed
# tree still works after it has been moved or unpacked somewhere else.
if(IS_ABSOLUTE "${KOB_INSTALL_PKGCONFIGDIR}")
  message(FATAL_ERROR "kob: CMAKE_INSTALL_LIBDIR must be relative to the prefix")
endif()
file(RELATIVE_PATH KOB_PC_PREFIX_FROM_PCDIR /prefix/${KOB_INSTALL_PKGCONFIGDIR} /prefix)
string(REGEX REPLACE "/$" "" KOB_PC_PREFIX_FROM_PCDIR "${KOB_PC_PREFIX_FROM_PCDIR}")
foreach(pc libkob libkobec)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${KOB_INSTALL_PKGCONFIGDIR})
endforeach()

# The Debian package: `cpack -G DEB` in the build directory.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kobdiag)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Kobvane")
set(CPACK_PACKAGE_CONTACT "Kobvane client team <kobdiag@kobvane.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "network diagnostics of the Kobvane VPN client, with libkob")
set(CPACK_PACKAGE_DESCRIPTION
    "kobdiag probes the VPN operator's servers, captures the network status and the
client's logs, and uploads the report or writes it to a file.  koblog and kobstat
read the daemons' shared log ring and counters.  Includes libkob and libkobec,
static and shared, with headers, pkg-config files and a CMake package.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
find_program(KOB_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(KOB_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 12)")
endif()
include(CPack)
