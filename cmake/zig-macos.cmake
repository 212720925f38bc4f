# Cross-compiles for macOS with Zig, which carries the macOS C headers and
# libSystem's stubs and links Mach-O itself, so no Apple SDK is needed.
#
#   cmake -S . -B build/macos-arm64 --toolchain cmake/zig-macos.cmake \
#     -DKOB_ZIG=/path/to/zig -DKOB_MACOS_ARCH=aarch64   # or x86_64
#
# scripts/macos-cross.sh installs Zig and drives both architectures.  A Mac
# builds natively and needs none of this.

set(KOB_ZIG "" CACHE FILEPATH "The zig executable")
set(KOB_MACOS_ARCH "x86_64" CACHE STRING "Zig's name of the architecture: x86_64 or aarch64")
set(KOB_MACOS_MIN "11.0" CACHE STRING "Oldest macOS the build runs on")
# try_compile projects read this file again and need the same answers.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KOB_ZIG KOB_MACOS_ARCH KOB_MACOS_MIN)

if(NOT KOB_ZIG)
  message(FATAL_ERROR "zig-macos.cmake: set KOB_ZIG to the zig executable")
endif()
if(KOB_MACOS_ARCH STREQUAL "x86_64")
  set(CMAKE_SYSTEM_PROCESSOR x86_64)
elseif(KOB_MACOS_ARCH STREQUAL "aarch64")
  set(CMAKE_SYSTEM_PROCESSOR arm64)
else()
  message(FATAL_ERROR "zig-macos.cmake: KOB_MACOS_ARCH is x86_64 or aarch64, not '${KOB_MACOS_ARCH}'")
endif()

set(CMAKE_SYSTEM_NAME Darwin)
# Darwin 20 is macOS 11.
set(CMAKE_SYSTEM_VERSION 20)

# The target goes with the compiler so that every compile and link, CMake's
# own checks included, is for macOS.  Zig defines NDEBUG above -O0; -UNDEBUG
# after it keeps the library's and the tool's assertions on.  Zig builds its
# C++ runtime once for each optimisation level it links at: -O2 gives
# CMake's checks, which pass no level, the one of the default build type
# (RelWithDebInfo); a build type's own flags come later and win.
set(kob_zig_flags -target ${KOB_MACOS_ARCH}-macos.${KOB_MACOS_MIN}-none -UNDEBUG -O2)
set(CMAKE_C_COMPILER "${KOB_ZIG}" cc ${kob_zig_flags})
set(CMAKE_CXX_COMPILER "${KOB_ZIG}" c++ ${kob_zig_flags})
unset(kob_zig_flags)

# Debian's LLVM writes and indexes Mach-O archives and edits install names.
find_program(CMAKE_AR NAMES llvm-ar llvm-ar-14 REQUIRED)
find_program(CMAKE_RANLIB NAMES llvm-ranlib llvm-ranlib-14 REQUIRED)
find_program(CMAKE_INSTALL_NAME_TOOL NAMES llvm-install-name-tool llvm-install-name-tool-14
  PATHS /usr/lib/llvm-14/bin)

# Nothing of the build host's own libraries, headers or CMake packages may
# end up in a Mac program: look only under CMAKE_FIND_ROOT_PATH, where
# macos-cross.sh stages what the build needs (GoogleTest built for the
# target, header-only packages).
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# CMake enables rpaths, and so @rpath install names, only after asking the
# running macOS its version; the build host has none to ask.  The rules file
# says it after CMake's generic defaults, which would reset it here, and
# keeps CMake's compiler check to what Zig's linker understands.
set(CMAKE_USER_MAKE_RULES_OVERRIDE ${CMAKE_CURRENT_LIST_DIR}/zig-macos-rules.cmake)

# pkg-config, too, sees only the staged packages.
set(kob_pc_dirs "")
foreach(kob_root IN LISTS CMAKE_FIND_ROOT_PATH)
  list(APPEND kob_pc_dirs ${kob_root}/lib/pkgconfig ${kob_root}/share/pkgconfig)
endforeach()
unset(kob_root)
string(REPLACE ";" ":" kob_pc_dirs "${kob_pc_dirs}")
set(ENV{PKG_CONFIG_LIBDIR} "${kob_pc_dirs}")
set(ENV{PKG_CONFIG_PATH} "")
unset(kob_pc_dirs)
