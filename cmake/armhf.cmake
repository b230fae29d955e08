# SPDX-License-Identifier: MIT
#
# Toolchain: Debian's cross compiler for ARMv7 with hard-float, the processor of the device.
#
#   cmake --preset armhf                                or
#   cmake -S . -B build -DCMAKE_TOOLCHAIN_FILE=cmake/armhf.cmake [-DVKA_ARMHF_ROOT=DIR]
#
# Other libraries than the compiler's own (the tests need GTest) come from DIR, the root directory of
# an armhf system.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

set(VKA_ARMHF_ROOT "" CACHE PATH "Root directory of an armhf system, for libraries")
set(CMAKE_FIND_ROOT_PATH ${VKA_ARMHF_ROOT} /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
