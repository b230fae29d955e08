# SPDX-License-Identifier: MIT
#
# Tests of libqvutil, libqvio and libqvproc.

# All names that a build may call these functions by; the wrappers are in tests/support/variants.h.
set(wrap_open open open64 __open_2 __open64_2)
set(wrap_openat openat openat64 __openat_2 __openat64_2)
set(wrap_stat stat stat64 __stat64_time64)
set(wrap_fstat fstat fstat64 __fstat64_time64)
set(wrap_read read __read_chk)

# For tests in which memory runs out.
set(memory_faults ${PROJECT_SOURCE_DIR}/tests/support/memory.cc)

vka_test(QVException SOURCES QVException_test.cc ${memory_faults})
vka_test(IOException SOURCES IOException_test.cc)
vka_test(LogUtil SOURCES LogUtil_test.cc)
vka_test(hexdump SOURCES hexdump_test.cc)
vka_test(getTotalRam SOURCES getTotalRam_test.cc WRAP sysinfo)

# The descriptor check must not depend on how a file using FdSet is compiled, nor on whose copy of
# an inline function the linker picks.
set_source_files_properties(FdSetUnchecked_test.cc PROPERTIES
  COMPILE_OPTIONS "-O0;-U_FORTIFY_SOURCE" SKIP_PRECOMPILE_HEADERS ON)
vka_test(FdSet SOURCES FdSet_test.cc FdSetDeath_test.cc)
vka_test(FdSetUnchecked SOURCES FdSetUnchecked_test.cc)
vka_test(FdSetMixed SOURCES FdSetUnchecked_test.cc FdSetDeath_test.cc)

vka_test(fileutils SOURCES fileutils_test.cc WRAP mkdir ${wrap_stat})
vka_test(rmDir SOURCES rmDir_test.cc
  WRAP ${wrap_open} ${wrap_openat} ${wrap_fstat} getdents64 unlinkat)
vka_test(rmDirAttack SOURCES rmDirAttack_test.cc WRAP ${wrap_openat})
vka_test(getCmdCallOutput SOURCES getCmdCallOutput_test.cc ${memory_faults}
  WRAP pipe2 posix_spawn posix_spawn_file_actions_init posix_spawnattr_init
       posix_spawn_file_actions_adddup2 ${wrap_read} waitpid)
vka_test(sockaddr SOURCES sockaddr_test.cc WRAP accept listen getaddrinfo inet_ntop)
vka_test(ptypair SOURCES ptypair_test.cc
  WRAP posix_openpt grantpt unlockpt ptsname_r __ptsname_r_chk ${wrap_open})

# Looks into and fills the private set of children.
set_source_files_properties(ProcPrivate_test.cc PROPERTIES
  COMPILE_OPTIONS -fno-access-control SKIP_PRECOMPILE_HEADERS ON)
vka_test(Proc SOURCES Proc_test.cc ${memory_faults} WRAP fork kill waitpid syscall)
vka_test(ProcPrivate SOURCES ProcPrivate_test.cc WRAP kill waitpid)
vka_test(ProcLookup SOURCES ProcLookup_test.cc
  WRAP opendir readdir readdir64 readlink __readlink_chk ${wrap_open} ${wrap_read})

include(layers.cmake)
