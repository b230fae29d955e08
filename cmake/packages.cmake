# SPDX-License-Identifier: MIT
#
# Debian packages by CPack, one for each install component. packaging/build-packages.sh makes them.

option(VKA_DEBIAN_PACKAGES "Let CPack make Debian packages (see packaging/build-packages.sh)" OFF)
if(NOT VKA_DEBIAN_PACKAGES)
  return()
endif()
if(NOT "${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_LIBDIR}" STREQUAL
    "/usr lib/${CMAKE_LIBRARY_ARCHITECTURE}")
  message(FATAL_ERROR "Debian packages need -DCMAKE_INSTALL_PREFIX=/usr"
    " -DCMAKE_INSTALL_LIBDIR=lib/${CMAKE_LIBRARY_ARCHITECTURE}")
endif()

# The changelog decides the version, as for all of Debian's tools.
set(vka_debian ${PROJECT_SOURCE_DIR}/packaging/debian)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${vka_debian}/changelog)
file(STRINGS ${vka_debian}/changelog vka_head LIMIT_COUNT 1)
if(NOT vka_head MATCHES "^vka \\((${PROJECT_VERSION})-([0-9]+)\\) ")
  message(FATAL_ERROR "packaging/debian/changelog does not begin with version ${PROJECT_VERSION}")
endif()
set(CPACK_PACKAGE_VERSION ${CMAKE_MATCH_1})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_2})
set(vka_version ${CMAKE_MATCH_1}-${CMAKE_MATCH_2})

execute_process(COMMAND dpkg-architecture -q DEB_HOST_ARCH -t ${CMAKE_LIBRARY_ARCHITECTURE}
  OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE
  COMMAND_ERROR_IS_FATAL ANY)

# Compressed without name and date, so that the same sources give the same packages.
set(vka_changelog ${PROJECT_BINARY_DIR}/changelog.Debian.gz)
add_custom_command(OUTPUT ${vka_changelog} DEPENDS ${vka_debian}/changelog VERBATIM
  COMMAND sh -c "exec gzip -9nc <\"$0\" >\"$1\"" ${vka_debian}/changelog ${vka_changelog})
add_custom_target(packages_changelog ALL DEPENDS ${vka_changelog})
install(CODE "
  foreach(page man1/vkahost.1 man7/vka.7)
    execute_process(COMMAND_ERROR_IS_FATAL ANY
      COMMAND gzip -9nf \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_MANDIR}/\${page}\")
  endforeach()"
  COMPONENT host)

# vka_package(<component> <package>): what every package has.
function(vka_package component package)
  set(share ${CMAKE_INSTALL_DATAROOTDIR})
  install(FILES ${PROJECT_SOURCE_DIR}/LICENSE
    DESTINATION ${share}/doc/${package} RENAME copyright COMPONENT ${component})
  install(FILES ${vka_changelog} DESTINATION ${share}/doc/${package} COMPONENT ${component})
  install(FILES ${vka_debian}/${package}.lintian-overrides
    DESTINATION ${share}/lintian/overrides RENAME ${package} COMPONENT ${component})
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package} PARENT_SCOPE)
endfunction()

set(vka_runtime_package libvka${PROJECT_VERSION_MAJOR})
vka_package(runtime ${vka_runtime_package})
vka_package(development libvka-dev)
vka_package(host vkahost)

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development host)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_CONTACT "The vka authors <vka@vka.example>" CACHE STRING "Packages' maintainer")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # would stand before that of each package
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SOURCE vka)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/packaging/cpack.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/cpack-finish.cmake)

set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "library that builds and runs C and C++ programs (runtime)
libvka takes a zip of C and C++ sources, unpacks and builds it, starts the
program on a pseudo-terminal and relays that to a TCP client.
.
This package holds the shared libraries.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS vkahost) # has the Makefile, and what that calls
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${vka_debian}/triggers)
# libvka needs the other three; dpkg-shlibdeps does not know where cross compilers' libraries are.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
if(CMAKE_CROSSCOMPILING)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS /usr/${CMAKE_LIBRARY_ARCHITECTURE}/lib)
endif()

set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "library that builds and runs C and C++ programs (development)
libvka takes a zip of C and C++ sources, unpacks and builds it, starts the
program on a pseudo-terminal and relays that to a TCP client.
.
This package holds headers, static libraries and what CMake and pkg-config
need to find them.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${vka_runtime_package} (= ${vka_version})")

set(CPACK_DEBIAN_HOST_DESCRIPTION "builds a zip of C and C++ sources, runs it and serves its console
vkahost unpacks and builds an archive of sources on the device it runs on,
starts the program on a pseudo-terminal and serves that console to one TCP
client at a time.
.
The port is open without any authentication. The service that comes with it
is reachable from the machine itself only; it is not enabled by itself.")
set(CPACK_DEBIAN_HOST_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_HOST_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_HOST_PACKAGE_DEPENDS "make, gcc, g++, unzip")
set(CPACK_DEBIAN_HOST_PACKAGE_RECOMMENDS zip) # for --export
set(CPACK_DEBIAN_HOST_PACKAGE_SUGGESTS "ccache, distcc")
set(CPACK_DEBIAN_HOST_PACKAGE_CONTROL_EXTRA
  ${vka_debian}/postinst ${vka_debian}/prerm ${vka_debian}/postrm)

include(CPack)
