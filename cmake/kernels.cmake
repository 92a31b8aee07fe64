# qxtools_add_kernel(processor source flags...): adds a kernel's source to the library when it is built
# for that processor (x86_64 or aarch64), compiled with the instruction set that the flags name.
#
# Kernels are optimised in every build type, because their tests compare many shapes. They never fuse a
# multiplication with an addition: every variant rounds where the definition rounds.
#
# The compiler uses every extension that a flag allows, so cpu_features.cc must check for each: a flag
# -mX without __builtin_cpu_supports("X") there is an error.
function(qxtools_add_kernel processor source)
  if(NOT CMAKE_SYSTEM_PROCESSOR STREQUAL processor)
    return()
  endif()
  file(READ ${PROJECT_SOURCE_DIR}/qx_utils/image/kernels/cpu_features.cc checks)
  foreach(flag ${ARGN})
    string(REGEX REPLACE "^-m" "" extension ${flag})
    string(FIND "${checks}" "__builtin_cpu_supports(\"${extension}\")" found)
    if(found EQUAL -1 AND processor STREQUAL x86_64)
      message(FATAL_ERROR "${source} needs ${extension}: cpu_features.cc must check for it")
    endif()
  endforeach()
  target_sources(qxtools_objects PRIVATE ${source})
  if(source MATCHES "[.]S$")
    return()
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    # GCC 12's own AVX-512 header trips the last two (its bug 105593); clang-tidy knows one.
    set(false_alarms -Wno-unknown-warning-option -Wno-uninitialized -Wno-maybe-uninitialized)
  else()
    # Sanitizers and coverage counters keep Clang from vectorising the loops that ask for it.
    set(false_alarms -Wno-pass-failed)
  endif()
  set_source_files_properties(${source} TARGET_DIRECTORY qxtools_objects PROPERTIES
    COMPILE_OPTIONS "-O3;-ffp-contract=off;${false_alarms};${ARGN}")
endfunction()
