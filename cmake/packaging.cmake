# One Debian package (CPack's DEB generator) holding the library, its headers
# with the stb headers beside them, the CMake package, the pkg-config file and
# the vemoproc tool (and the Python package, when built). Built for the target architecture: the host's, or arm64
# from the aarch64 cross build.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vemoproc)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "Model-specific pre- and post-processing for on-device inference")
set(CPACK_PACKAGE_CONTACT "vemoproc developers <vemoproc@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
if(CMAKE_CROSSCOMPILING)
  # dpkg-shlibdeps cannot read the target's libraries here; the tool and the
  # library need the C and C++ runtimes and libjpeg only.
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
  else()
    message(FATAL_ERROR "no Debian architecture known for ${CMAKE_SYSTEM_PROCESSOR}")
  endif()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS 
    "libc6, libstdc++6, libgcc-s1, libjpeg62-turbo, libxtensor-dev")
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libxtensor-dev")
endif()
# The default install component only: the Python module (component python)
# has its own packaging.
set(CPACK_INSTALL_CMAKE_PROJECTS "${CMAKE_BINARY_DIR};${PROJECT_NAME};Unspecified;/")
include(CPack)
