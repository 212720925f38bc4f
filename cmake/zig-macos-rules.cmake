# Read by zig-macos.cmake's build after CMake's platform files.

# The linker flag for rpaths, as CMake sets it when configuring on macOS itself.
set(CMAKE_SHARED_LIBRARY_RUNTIME_C_FLAG "-Wl,-rpath,")

# CMake's compiler check asks Apple's linker to be verbose (-Wl,-v), which
# Zig's linker refuses, and would then know nothing of the compiler's
# implicit directories and pointer size.
set(CMAKE_C_VERBOSE_FLAG "-v")
set(CMAKE_CXX_VERBOSE_FLAG "-v")
