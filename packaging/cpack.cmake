# SPDX-License-Identifier: MIT
#
# Read by each run of cpack.

# For dpkg-shlibdeps, to choose the objdump that knows the processor.
set(ENV{DEB_HOST_ARCH} ${CPACK_DEBIAN_PACKAGE_ARCHITECTURE})
set(SHLIBDEPS_EXECUTABLE ${CMAKE_CURRENT_LIST_DIR}/shlibdeps.sh)
