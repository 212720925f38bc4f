# What `cmake --install` ships, and what debian/ splits into its packages:
# kobdiag and the programs beside it, libkob and libkobec (static and
# shared), their headers under include/kob/, pkg-config files, the CMake
# package kob and the manual pages.  The lab build, koblab, the tests and the
# benchmarks stay in the build tree.
include(CMakePackageConfigHelpers)

set(KOB_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/kob)
set(KOB_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/kob)
set(KOB_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Programs and their pages, where this build makes them (kobreport and
# kobreportd only with KOB_BUILD_SERVER).  kobreportd is a system daemon:
# sbin, beside its section 8 page.  The tests read these lists.
set(KOB_INSTALLED_PROGRAMS "")
set(KOB_INSTALLED_DAEMONS "")
set(KOB_INSTALLED_MANPAGES libkob.3)
foreach(entry kobdiag:1 koblog:1 kobstat:1 kobreport:1 kobreportd:8)
  string(REPLACE ":" ";" entry "${entry}")
  list(GET entry 0 program)
  list(GET entry 1 section)
  if(TARGET ${program})
    if(section EQUAL 8)
      install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
      list(APPEND KOB_INSTALLED_DAEMONS ${program})
    else()
      install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
      list(APPEND KOB_INSTALLED_PROGRAMS ${program})
    endif()
    install(FILES ${PROJECT_SOURCE_DIR}/man/${program}.${section}
            DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
    list(APPEND KOB_INSTALLED_MANPAGES ${program}.${section})
  endif()
endforeach()
install(FILES ${PROJECT_SOURCE_DIR}/man/libkob.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)
if(TARGET kobreportd)
  install(FILES ${PROJECT_SOURCE_DIR}/server/kobreportd/data/common-passwords.txt
          DESTINATION ${CMAKE_INSTALL_DATADIR}/kobreportd)
endif()

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
# A static link from C names the C++ runtime that the library was built
# against: libstdc++ on Linux, libc++ on macOS (and wherever else it is used).
include(CheckCXXSymbolExists)
check_cxx_symbol_exists(_LIBCPP_VERSION version KOB_USES_LIBCXX)
if(KOB_USES_LIBCXX)
  set(KOB_PC_CXX_RUNTIME -lc++)
else()
  set(KOB_PC_CXX_RUNTIME -lstdc++)
endif()
file(RELATIVE_PATH KOB_PC_PREFIX_FROM_PCDIR /prefix/${KOB_INSTALL_PKGCONFIGDIR} /prefix)
string(REGEX REPLACE "/$" "" KOB_PC_PREFIX_FROM_PCDIR "${KOB_PC_PREFIX_FROM_PCDIR}")
foreach(pc libkob libkobec)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${KOB_INSTALL_PKGCONFIGDIR})
endforeach()

# Everything the install takes, and nothing else: `cmake --build <dir>
# --target shipped` builds what a package needs without the lab and the
# test programs (debian/rules builds only this).
add_custom_target(shipped)
add_dependencies(shipped ${KOB_INSTALLED_PROGRAMS} ${KOB_INSTALLED_DAEMONS}
  ${KOB_INSTALLED_LIBRARIES})
