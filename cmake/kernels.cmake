# qxtools_add_kernel(processor source flags...): adds a kernel's source to the library when it is built
# for that processor (x86_64 or aarch64), compiled with the instruction set that the flags name.
#
# Kernels are optimised in every build type, since their tests compare many shapes, and never fuse
# a multiplication with an addition: every variant rounds where the definition rounds.
function(qxtools_add_kernel processor source)
  if(NOT CMAKE_SYSTEM_PROCESSOR STREQUAL processor)
    return()
  endif()
  # GCC 12's own AVX-512 header trips these two (its bug 105593); clang-tidy knows one.
  set(header_bug $<$<CXX_COMPILER_ID:GNU>:-Wno-unknown-warning-option> $<$<CXX_COMPILER_ID:GNU>:-Wno-uninitialized> $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_sources(qxtools_objects PRIVATE ${source})
  set_source_files_properties(${source} TARGET_DIRECTORY qxtools_objects PROPERTIES
    COMPILE_OPTIONS "-O3;-ffp-contract=off;${header_bug};${ARGN}")
endfunction()
