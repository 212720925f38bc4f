# macOS's linker refuses an undefined symbol unless told.  -U names exactly
# VAS_Fail; a linker without -U (Zig's, in the cross-build) gets
# -undefined dynamic_lookup, and scripts/macos-cross.sh checks that VAS_Fail
# is still the only symbol the libraries leave to the dynamic linker.
if(APPLE)
  include(CheckLinkerFlag)
  check_linker_flag(CXX "LINKER:-U,_VAS_Fail" KOB_LINKER_HAS_U)
  if(KOB_LINKER_HAS_U)
    set(KOB_SHARED_VAS_FAIL_LINK LINKER:-U,_VAS_Fail)
  else()
    set(KOB_SHARED_VAS_FAIL_LINK LINKER:-undefined,dynamic_lookup)
  endif()
endif()

# kob_shared_variant(<target> [LIBS ...])
# A library's shared variant beside the static <target>, linked from the
# static library's own objects (so they are compiled once, position
# independent) as lib<target>.so.<version> with the major version as SONAME.
# VAS_Fail stays undefined in it on purpose: the dynamic linker binds it to
# the program's own handler.
function(kob_shared_variant target)
  cmake_parse_arguments(L "" "" "LIBS" ${ARGN})
  set_target_properties(${target} PROPERTIES
    POSITION_INDEPENDENT_CODE ON EXPORT_NAME ${target}_static)
  if(NOT KOB_BUILD_SHARED)
    return()
  endif()
  add_library(${target}_shared SHARED $<TARGET_OBJECTS:${target}>)
  target_include_directories(${target}_shared PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>)
  if(L_LIBS)
    target_link_libraries(${target}_shared PUBLIC ${L_LIBS})
  endif()
  set_target_properties(${target}_shared PROPERTIES
    OUTPUT_NAME ${target}
    LINKER_LANGUAGE CXX
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
  if(APPLE)
    target_link_options(${target}_shared PRIVATE ${KOB_SHARED_VAS_FAIL_LINK})
  endif()
endfunction()
