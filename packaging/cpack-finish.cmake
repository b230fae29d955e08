# SPDX-License-Identifier: MIT
#
# Read by cpack once the packages are made: what it cannot be told before.

foreach(file IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name ${file} NAME)
  if(name MATCHES "^libvka")
    set(unpacked ${CPACK_TEMPORARY_DIRECTORY}/unpacked)
    execute_process(COMMAND dpkg-deb --raw-extract ${file} ${unpacked} COMMAND_ERROR_IS_FATAL ANY)
    # Scripts that call ldconfig, for which Debian has a trigger; the package has that, too.
    file(REMOVE ${unpacked}/DEBIAN/postinst ${unpacked}/DEBIAN/postrm)
    # Libraries of several architectures, for cross compilers, may stand beside each other.
    file(READ ${unpacked}/DEBIAN/control control)
    string(STRIP "${control}" control)
    file(WRITE ${unpacked}/DEBIAN/control "${control}\nMulti-Arch: same\n")
    execute_process(COMMAND dpkg-deb --root-owner-group --build ${unpacked} ${file}
      OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE_RECURSE ${unpacked})
  endif()
endforeach()
