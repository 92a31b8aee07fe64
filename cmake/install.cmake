# What `cmake --install` puts where, in three components: runtime, development, command.
include(CMakePackageConfigHelpers)

install(TARGETS qxtools EXPORT qxtoolsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          COMPONENT runtime NAMELINK_COMPONENT development)
install(TARGETS qxtools_command RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT command)
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

# The pkg-config file finds its prefix from where it lies, however deep the library folder is.
string(REGEX REPLACE "[^/]+" ".." QXTOOLS_PC_PREFIX "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
configure_file(cmake/qxtools.pc.in ${PROJECT_BINARY_DIR}/qxtools.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qxtools.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)

install(FILES tools/completion/qxtools DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        COMPONENT command)

option(QXTOOLS_MAN "Write man pages from the command's help texts (needs help2man)" OFF)
if(QXTOOLS_MAN)
  add_custom_target(man ALL
    COMMAND ${PROJECT_SOURCE_DIR}/scripts/make-man.sh $<TARGET_FILE:qxtools_command> ${PROJECT_BINARY_DIR}/man
    VERBATIM)
  add_dependencies(man qxtools_command)
  install(DIRECTORY ${PROJECT_BINARY_DIR}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT command)
endif()
