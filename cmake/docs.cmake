# The target `docs` builds the reference site from the public headers, README and docs/, into docs/html
# of the build directory. A warning is an error.
find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
  configure_file(docs/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
  add_custom_target(docs COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/Doxyfile VERBATIM
                    WORKING_DIRECTORY ${PROJECT_BINARY_DIR})
endif()
