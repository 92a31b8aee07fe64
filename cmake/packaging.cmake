# The Debian packages: with QXTOOLS_DEBIAN and the prefix /usr, `cpack` creates libqxtools1,
# libqxtools-dev and qxtools. packaging/build-packages.sh does all of it.
if(NOT QXTOOLS_DEBIAN)
  return()
endif()
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qxtools)
set(CPACK_PACKAGE_CONTACT "qxtools maintainers <maintainers@qxtools.invalid>")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development command)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE "")
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGE_HOMEPAGE_URL "")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libqxtools${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/triggers)
file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
"camera-based vision for robots - shared library
Frames and row-wise copies, the stereo cost volume of int8 feature maps on the
processor and in programmable logic, H.264/H.265 demuxing without copies,
parameter-set readers and a threaded H.264 decoder.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libqxtools-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "libqxtools${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
"camera-based vision for robots - development files
Headers, the linker's symbolic link, and the files with which CMake and
pkg-config find the library.")

set(CPACK_DEBIAN_COMMAND_PACKAGE_NAME qxtools)
set(CPACK_DEBIAN_COMMAND_PACKAGE_SECTION video)
# Dependencies on other packages are found automatically; the one on our own library is not.
set(CPACK_DEBIAN_COMMAND_PACKAGE_DEPENDS
  "libqxtools${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_COMMAND_DESCRIPTION
"camera-based vision for robots - command-line tool
Probes and decodes camera streams, and computes disparity maps from stereo
pairs.")

foreach(package libqxtools${PROJECT_VERSION_MAJOR}:runtime libqxtools-dev:development qxtools:command)
  string(REPLACE ":" ";" pair ${package})
  list(GET pair 0 name)
  list(GET pair 1 component)
  install(FILES packaging/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name}
          COMPONENT ${component})
  if(QXTOOLS_CHANGELOG)
    install(FILES ${QXTOOLS_CHANGELOG} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name}
            RENAME changelog.gz COMPONENT ${component})
  endif()
endforeach()
install(FILES packaging/libqxtools1.lintian-overrides
        DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT runtime
        RENAME libqxtools${PROJECT_VERSION_MAJOR})
include(CPack)
