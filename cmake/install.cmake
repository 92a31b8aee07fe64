# What `cmake --install` installs, in three components: runtime, development, command.
include(CMakePackageConfigHelpers)
option(QXTOOLS_DEBIAN "Install in the layout of the Debian packages (set by packaging/build-packages.sh)" OFF)

install(TARGETS qxtools EXPORT qxtoolsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          COMPONENT runtime NAMELINK_COMPONENT development)
install(DIRECTORY include/qxtools DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
        FILES_MATCHING PATTERN "*.h")

set(QXTOOLS_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qxtools)
install(EXPORT qxtoolsTargets NAMESPACE qxtools:: DESTINATION ${QXTOOLS_CMAKE_DIR}
        COMPONENT development)
configure_package_config_file(cmake/qxtoolsConfig.cmake.in ${PROJECT_BINARY_DIR}/qxtoolsConfig.cmake
  INSTALL_DESTINATION ${QXTOOLS_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qxtoolsConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qxtoolsConfig.cmake
              ${PROJECT_BINARY_DIR}/qxtoolsConfigVersion.cmake
  DESTINATION ${QXTOOLS_CMAKE_DIR} COMPONENT development)

# The pkg-config file computes its prefix from its own place, however deep the library directory is.
string(REGEX REPLACE "[^/]+" ".." QXTOOLS_PC_PREFIX "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
configure_file(cmake/qxtools.pc.in ${PROJECT_BINARY_DIR}/qxtools.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qxtools.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)

# The documents that headers refer to, and the examples.
set(QXTOOLS_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/qxtools)
if(QXTOOLS_DEBIAN)
  set(QXTOOLS_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/libqxtools-dev)
endif()
install(DIRECTORY examples docs DESTINATION ${QXTOOLS_DOC_DIR} COMPONENT development
        FILES_MATCHING PATTERN "*.cc" PATTERN "CMakeLists.txt" PATTERN "*.md" PATTERN "*.jpg")

if(NOT QXTOOLS_BUILD_TOOLS)
  return()
endif()

# The command finds the library relative to itself, so that a prefix can be moved. The Debian packages
# install both in the system's directories.
if(NOT QXTOOLS_DEBIAN AND NOT DEFINED CMAKE_INSTALL_RPATH)
  file(RELATIVE_PATH libraries_from_programs
       ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(qxtools_command PROPERTIES INSTALL_RPATH "$ORIGIN/${libraries_from_programs}")
endif()
install(TARGETS qxtools_command RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT command)
install(FILES tools/completion/qxtools DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        COMPONENT command)

# The pages are made from the command's help texts, so it has to run here.
find_package(Python3 COMPONENTS Interpreter QUIET)
set(can_make_pages ${Python3_FOUND})
if(CMAKE_CROSSCOMPILING OR QXTOOLS_SANITIZE OR QXTOOLS_COVERAGE)
  set(can_make_pages OFF)
endif()
option(QXTOOLS_MAN_PAGES "Create man pages from the command's help texts (needs Python 3)" ${can_make_pages})
if(QXTOOLS_MAN_PAGES)
  set(QXTOOLS_MAN_DIR ${PROJECT_BINARY_DIR}/man)
  set(make_man ${PROJECT_SOURCE_DIR}/packaging/make_man.py)
  add_custom_command(OUTPUT ${QXTOOLS_MAN_DIR}/qxtools.1.gz
    COMMAND ${Python3_EXECUTABLE} ${make_man} $<TARGET_FILE:qxtools_command> ${QXTOOLS_MAN_DIR}
    DEPENDS qxtools_command ${make_man} VERBATIM)
  add_custom_target(qxtools_man ALL DEPENDS ${QXTOOLS_MAN_DIR}/qxtools.1.gz)
  install(DIRECTORY ${QXTOOLS_MAN_DIR}/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT command)
endif()
