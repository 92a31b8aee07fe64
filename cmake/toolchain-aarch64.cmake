# Cross build for 64-bit Arm Linux with clang and lld, against the Debian root that
# scripts/setup-aarch64.sh unpacks. Programs run under user-mode emulation of the board's processor.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

# With a base directory ccache makes paths relative, and CMake misreads the compiler's include paths.
unset(ENV{CCACHE_BASEDIR})

# Try-compile projects read this file, too, and get the root from the environment.
if(NOT QXTOOLS_AARCH64_ROOT)
  set(QXTOOLS_AARCH64_ROOT "$ENV{QXTOOLS_AARCH64_ROOT}")
endif()
if(NOT QXTOOLS_AARCH64_ROOT)
  get_filename_component(QXTOOLS_AARCH64_ROOT "${CMAKE_CURRENT_LIST_DIR}/../build/roots/aarch64" ABSOLUTE)
endif()
set(ENV{QXTOOLS_AARCH64_ROOT} "${QXTOOLS_AARCH64_ROOT}")
set(CMAKE_SYSROOT "${QXTOOLS_AARCH64_ROOT}")

# QXTOOLS_AARCH64_COMPILER=gcc selects Debian's cross compiler, whose address sanitizer runs under
# emulation. It fits only the bookworm root.
foreach(language C CXX ASM)
  set(CMAKE_${language}_COMPILER_TARGET aarch64-linux-gnu)
  set(CMAKE_${language}_FLAGS_INIT "-mcpu=cortex-a53")
endforeach()
if(QXTOOLS_AARCH64_COMPILER STREQUAL gcc)
  set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
  set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
else()
  file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/../scripts/common.sh llvm REGEX "^llvm=")
  string(REGEX MATCH "[0-9]+" llvm "${llvm}")
  set(CMAKE_C_COMPILER clang-${llvm})
  set(CMAKE_CXX_COMPILER clang++-${llvm})
  file(GLOB openmp_folder "${QXTOOLS_AARCH64_ROOT}/usr/lib/llvm-*/lib")
  foreach(kind EXE SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT "-fuse-ld=lld -L${openmp_folder}")
  endforeach()
endif()

set(CMAKE_FIND_ROOT_PATH "${QXTOOLS_AARCH64_ROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(kind LIBRARY INCLUDE PACKAGE)
  set(CMAKE_FIND_ROOT_PATH_MODE_${kind} ONLY)
endforeach()
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${QXTOOLS_AARCH64_ROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
  "${QXTOOLS_AARCH64_ROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${QXTOOLS_AARCH64_ROOT}/usr/share/pkgconfig")

# The root's own include directories come after the standard library's; if named again, they would not.
set(ENV{PKG_CONFIG_SYSTEM_INCLUDE_PATH}
  "/usr/include:/usr/include/aarch64-linux-gnu:${QXTOOLS_AARCH64_ROOT}/usr/include:${QXTOOLS_AARCH64_ROOT}/usr/include/aarch64-linux-gnu")

# The environment variable QXTOOLS_EMULATED_CPU chooses the processor model of each run.
set(CMAKE_CROSSCOMPILING_EMULATOR
  "${CMAKE_CURRENT_LIST_DIR}/../scripts/run-aarch64.sh;${QXTOOLS_AARCH64_ROOT}")
