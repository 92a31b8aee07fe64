# The library's dependencies, FFmpeg, libjpeg-turbo, glog, OpenMP and yaml-cpp, as one interface target.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(OpenMP REQUIRED COMPONENTS CXX)
# FFmpeg 4.0 or later.
pkg_check_modules(FFMPEG REQUIRED IMPORTED_TARGET
  libavformat>=58.12 libavcodec>=58.18 libavutil>=56.14 libswscale>=5.1)
pkg_check_modules(GLOG REQUIRED IMPORTED_TARGET libglog)
pkg_check_modules(TURBOJPEG REQUIRED IMPORTED_TARGET libturbojpeg)
pkg_check_modules(YAML_CPP REQUIRED IMPORTED_TARGET yaml-cpp)

add_library(qxtools_dependencies INTERFACE)
target_link_libraries(qxtools_dependencies INTERFACE
  PkgConfig::FFMPEG PkgConfig::TURBOJPEG PkgConfig::GLOG PkgConfig::YAML_CPP
  OpenMP::OpenMP_CXX Threads::Threads)
