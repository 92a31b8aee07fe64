# What the library calls: FFmpeg, glog, OpenMP. One interface target carries them all.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(OpenMP REQUIRED COMPONENTS CXX)
pkg_check_modules(FFMPEG REQUIRED IMPORTED_TARGET libavformat libavcodec libavutil)
pkg_check_modules(GLOG REQUIRED IMPORTED_TARGET libglog)

add_library(qxtools_dependencies INTERFACE)
target_link_libraries(qxtools_dependencies INTERFACE
  PkgConfig::FFMPEG PkgConfig::GLOG OpenMP::OpenMP_CXX Threads::Threads)
