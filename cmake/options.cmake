# Compile options of everything built here.

find_package(Threads REQUIRED)

add_library(vka_options INTERFACE)
target_compile_options(vka_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wcast-qual -Wformat=2
  -Wnon-virtual-dtor -Woverloaded-virtual -Wundef
  $<$<BOOL:${VKA_WERROR}>:-Werror>
  -Wno-psabi) # GCC's remarks about what GCC before 7 did on ARM
# The C library's checks need optimisation, and the sanitizers do not see through the checking
# functions. FdSet does not rely on them.
if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  target_compile_options(vka_options INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
endif()
# Without these a 32-bit program cannot examine large files, nor anything dated beyond 2038. The
# second matters from glibc 2.34 on; no time_t crosses the libraries' interfaces.
target_compile_definitions(vka_options INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
target_link_libraries(vka_options INTERFACE Threads::Threads)
