# Warnings, sanitizers and coverage counters for our own code. Link qxtools_warnings to each of our
# targets.
add_library(qxtools_warnings INTERFACE)
target_compile_options(qxtools_warnings INTERFACE -Wall -Wextra -Wpedantic -Wconversion)
if(QXTOOLS_WERROR)
  target_compile_options(qxtools_warnings INTERFACE -Werror)
endif()

set(QXTOOLS_SANITIZE "" CACHE STRING "Sanitizers for -fsanitize=, for example address,undefined")
if(QXTOOLS_SANITIZE)
  add_compile_options(-fsanitize=${QXTOOLS_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${QXTOOLS_SANITIZE})
endif()

option(QXTOOLS_COVERAGE "Count which source lines and branches run (Clang)" OFF)
if(QXTOOLS_COVERAGE)
  add_compile_options(-fprofile-instr-generate -fcoverage-mapping)
  add_link_options(-fprofile-instr-generate)
endif()
