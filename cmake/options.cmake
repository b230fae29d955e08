# SPDX-License-Identifier: MIT
#
# Compile options of everything built here. They reach nobody who links the libraries.

find_package(Threads REQUIRED)

add_library(vka_options INTERFACE)
if(vka_top_level)
  target_compile_options(vka_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wcast-qual -Wformat=2
    -Wnon-virtual-dtor -Woverloaded-virtual -Wundef)
endif()
target_compile_options(vka_options INTERFACE
  $<$<BOOL:${VKA_WERROR}>:-Werror>
  -Wno-psabi) # GCC's remarks about what GCC before 7 did on ARM

# What is set for everything here from outside: on the command line or by a project around.
string(TOUPPER "CMAKE_CXX_FLAGS_${CMAKE_BUILD_TYPE}" flags)
get_directory_property(options COMPILE_OPTIONS)
get_directory_property(definitions COMPILE_DEFINITIONS)
set(given "${CMAKE_CXX_FLAGS};${${flags}};${options};${definitions}")

# The C library's checks need optimisation, and the sanitizers do not see through the checking
# functions. FdSet does not rely on them. Whoever chose another level keeps it.
if(NOT given MATCHES "-fsanitize|_FORTIFY_SOURCE")
  set(optimized $<OR:$<CONFIG:Release>,$<CONFIG:RelWithDebInfo>,$<CONFIG:MinSizeRel>>)
  target_compile_options(vka_options INTERFACE
    $<${optimized}:-U_FORTIFY_SOURCE> $<${optimized}:-D_FORTIFY_SOURCE=2>)
endif()
# Without these a 32-bit program cannot examine large files, nor anything dated beyond 2038. The
# second matters from glibc 2.34 on; no time_t crosses the libraries' interfaces. As options, they
# stand behind what a project around may have chosen for its own files.
target_compile_options(vka_options INTERFACE
  -U_FILE_OFFSET_BITS -D_FILE_OFFSET_BITS=64 -U_TIME_BITS -D_TIME_BITS=64)
target_link_libraries(vka_options INTERFACE Threads::Threads)

# Sanitizers leave symbols to be found in the program.
set(vka_shared_link_options LINKER:-z,relro LINKER:-z,now)
if(NOT given MATCHES "-fsanitize")
  list(APPEND vka_shared_link_options LINKER:--no-undefined)
endif()
