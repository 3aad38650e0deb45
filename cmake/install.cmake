# Installation: the shared library with its SONAME links, the two public headers, a pkg-config
# file and a CMake package that gives consumers the imported target Zel::zel.
#
# Only `zel` is installed. `zel_static` serves the tests, and `zel_flags` carries the project's
# warning and sanitizer flags: it is linked privately, so it never reaches an installed interface.

include(CMakePackageConfigHelpers)

set(ZEL_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/Zel"
    CACHE STRING "Where the CMake package files are installed, relative to the prefix")

install(TARGETS zel
  EXPORT ZelTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    COMPONENT Runtime
    NAMELINK_COMPONENT Development)

install(FILES
  "${PROJECT_SOURCE_DIR}/include/zel.h"
  "${PROJECT_SOURCE_DIR}/include/zel_enum.h"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
  COMPONENT Development)

# CMake package.
install(EXPORT ZelTargets
  NAMESPACE Zel::
  FILE ZelTargets.cmake
  DESTINATION "${ZEL_INSTALL_CMAKEDIR}"
  COMPONENT Development)

configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/cmake/ZelConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/ZelConfig.cmake"
  INSTALL_DESTINATION "${ZEL_INSTALL_CMAKEDIR}")
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/ZelConfigVersion.cmake"
  VERSION "${PROJECT_VERSION}"
  COMPATIBILITY SameMajorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/ZelConfig.cmake"
  "${PROJECT_BINARY_DIR}/ZelConfigVersion.cmake"
  DESTINATION "${ZEL_INSTALL_CMAKEDIR}"
  COMPONENT Development)

# pkg-config. Directories are filled in at configuration, the prefix at install time, when it
# is final (`cmake --install --prefix` may change it after configuration).
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(ZEL_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(ZEL_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
set(ZEL_PC_PREFIX "@ZEL_PC_PREFIX@")  # kept for the install step
configure_file("${PROJECT_SOURCE_DIR}/cmake/zel.pc.in" "${PROJECT_BINARY_DIR}/pkgconfig/zel.pc.in"
               @ONLY)
install(CODE "
  set(ZEL_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${PROJECT_BINARY_DIR}/pkgconfig/zel.pc.in\"
                 \"${PROJECT_BINARY_DIR}/pkgconfig/zel.pc\" @ONLY)
" COMPONENT Development)
install(FILES "${PROJECT_BINARY_DIR}/pkgconfig/zel.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
  COMPONENT Development)
