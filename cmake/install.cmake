# SPDX-License-Identifier: MIT
#
# What is installed besides libraries and headers. Components: runtime (shared libraries),
# development (all that compiling and linking takes), host (vkahost and what belongs to a device).

include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vka)
install(EXPORT vka NAMESPACE vka:: FILE vkaTargets.cmake
  DESTINATION ${package_dir} COMPONENT development)
configure_package_config_file(cmake/vkaConfig.cmake.in vkaConfig.cmake
  INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/vkaConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vkaConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/vkaConfigVersion.cmake
  DESTINATION ${package_dir} COMPONENT development)

install(FILES cmake/include/libvka/fortify.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/libvka COMPONENT development)

# The agent needs its Makefile whoever the host is.
install(FILES share/vka/Makefile DESTINATION ${VKA_DEVICE_ROOT}/share/vka COMPONENT host)
install(DIRECTORY DESTINATION ${VKA_DEVICE_ROOT}/include COMPONENT host)
install(DIRECTORY DESTINATION ${VKA_DEVICE_ROOT}/lib COMPONENT host)

install(FILES doc/man/vkahost.1
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT host OPTIONAL)
install(FILES doc/man/vka.7
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man7 COMPONENT host OPTIONAL)

if(VKA_BUILD_HOST)
  install(TARGETS vkahost RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT host)
  # The prefix may be another one when it comes to installing.
  set(service ${CMAKE_CURRENT_BINARY_DIR}/vkahost.service)
  install(CODE "
    set(program \"${CMAKE_INSTALL_BINDIR}/vkahost\")
    if(NOT IS_ABSOLUTE \"\${program}\")
      set(program \"\${CMAKE_INSTALL_PREFIX}/\${program}\")
    endif()
    file(READ \"${CMAKE_CURRENT_SOURCE_DIR}/packaging/vkahost.service\" unit)
    string(REPLACE /usr/local/bin/vkahost \"\${program}\" unit \"\${unit}\")
    file(WRITE \"${service}\" \"\${unit}\")"
    COMPONENT host)
  install(FILES ${service} DESTINATION lib/systemd/system COMPONENT host)
endif()
