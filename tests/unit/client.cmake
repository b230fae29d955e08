# SPDX-License-Identifier: MIT
#
# vka_client_test(<subject> [WRAP <function>...]): VKAClient<subject>_test.cc, with allocations that
# change errno.
function(vka_client_test subject)
  vka_test(VKAClient${subject}
    SOURCES VKAClient${subject}_test.cc ${PROJECT_SOURCE_DIR}/tests/support/client_errno.cc ${ARGN})
endfunction()

vka_client_test(Interface)
vka_client_test(Layout)
set_source_files_properties(VKAClientLayout_test.cc PROPERTIES
  COMPILE_OPTIONS -fno-access-control SKIP_PRECOMPILE_HEADERS ON)
vka_client_test(Construction
  WRAP socket setsockopt __setsockopt64 bind listen posix_openpt sysinfo)
vka_client_test(Destruction WRAP close kill)
vka_client_test(Run WRAP execv fork tcgetattr tcsetattr close)
vka_client_test(Child WRAP execv fork dup2 close strdup open open64 __open_2 __open64_2)
vka_client_test(Program WRAP fork)
vka_client_test(AddConsole)
vka_client_test(HandleData WRAP read write close accept abort)
vka_client_test(RelayLimit WRAP read write close accept)
vka_client_test(RelayLog WRAP read write close accept)
vka_client_test(RelayModel LIBRARIES rapidcheck WRAP read write close accept abort)
vka_client_test(Relay WRAP write)
set_tests_properties(VKAClientProgram VKAClientRelay PROPERTIES RESOURCE_LOCK vkabin)
vka_client_test(Make WRAP pipe2 posix_spawn waitpid)
vka_client_test(Build WRAP mkdir unlinkat chdir posix_spawn sysinfo)
vka_client_test(Sources WRAP chdir unlink symlink posix_spawn)
