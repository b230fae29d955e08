# SPDX-License-Identifier: MIT
#
# vka_library(<name> <directory> DESCRIPTION <text> HEADERS ... SOURCES ... [DEPENDS ...])
#
# Builds lib<name>.a (target <name>) and lib<name>.so (target <name>_shared) from one set of objects
# and installs both with the headers. Other projects call them vka::<name> and vka::<name>_shared,
# installed or not.
function(vka_library name dir)
  cmake_parse_arguments(ARG "" "DESCRIPTION" "HEADERS;SOURCES;DEPENDS" ${ARGN})
  list(TRANSFORM ARG_SOURCES PREPEND ${dir}/)
  list(TRANSFORM ARG_HEADERS PREPEND ${dir}/)
  set(unless_used)
  if(NOT vka_top_level AND NOT VKA_INSTALL)
    set(unless_used EXCLUDE_FROM_ALL)
  endif()

  # All set here, as a project around may have chosen something else for its own.
  add_library(${name}_objects OBJECT ${unless_used} ${ARG_SOURCES})
  set_target_properties(${name}_objects PROPERTIES
    POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET default
    CXX_STANDARD ${VKA_CXX_STANDARD} CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF)
  target_include_directories(${name}_objects PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name}_objects PRIVATE vka_options)

  # Everything is visible: helpers lie in anonymous namespaces, exceptions must be one type for all.
  # What that exports is kept in packaging/symbols; packaging/check-symbols.sh compares.
  add_library(${name} STATIC ${unless_used} $<TARGET_OBJECTS:${name}_objects>)
  add_library(${name}_shared SHARED ${unless_used} $<TARGET_OBJECTS:${name}_objects>)
  set_target_properties(${name}_shared PROPERTIES
    OUTPUT_NAME ${name} VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  target_link_options(${name}_shared PRIVATE ${vka_shared_link_options})
  foreach(target ${name} ${name}_shared)
    add_library(vka::${target} ALIAS ${target})
    target_compile_features(${target} INTERFACE cxx_std_11)
    target_include_directories(${target} INTERFACE
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/cmake/include>)
    target_link_libraries(${target} PUBLIC Threads::Threads)
    # Users get fortification from a header that looks at their own compiler call: as a definition
    # it would warn without optimisation, blind sanitizers and clash with, or lower, another level.
    # Programs in here have theirs from vka_options, or for some tests deliberately none.
    set(fortify "SHELL:$<$<COMPILE_LANGUAGE:CXX>:-include libvka/fortify.h>")
    if(vka_top_level)
      set(fortify $<INSTALL_INTERFACE:${fortify}>)
    endif()
    target_compile_options(${target} INTERFACE ${fortify})
  endforeach()
  foreach(dependency ${ARG_DEPENDS})
    target_link_libraries(${name} PUBLIC ${dependency})
    target_link_libraries(${name}_shared PUBLIC ${dependency}_shared)
  endforeach()

  if(VKA_INSTALL)
    vka_install_library(${name} ${dir})
  endif()
endfunction()

# For vka_library, whose arguments it sees.
function(vka_install_library name dir)
  install(TARGETS ${name} ${name}_shared EXPORT vka
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
            NAMELINK_COMPONENT development
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(FILES ${ARG_HEADERS}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${dir} COMPONENT development)
  # Where the loader does not look by itself, the libraries find each other by standing together.
  if(NOT DEFINED CMAKE_INSTALL_RPATH AND
     NOT CMAKE_INSTALL_FULL_LIBDIR IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
    set_target_properties(${name}_shared PROPERTIES INSTALL_RPATH $ORIGIN)
  endif()

  # The file tells its place from its own, so that the tree may be installed, or moved, elsewhere.
  set(pc_dir ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
  file(RELATIVE_PATH up ${pc_dir} ${CMAKE_INSTALL_PREFIX})
  string(REGEX REPLACE "/$" "" up ${up})
  set(pc_prefix \${pcfiledir}/${up})
  set(pc_libdir \${prefix}/${CMAKE_INSTALL_LIBDIR})
  set(pc_includedir \${prefix}/${CMAKE_INSTALL_INCLUDEDIR})
  if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
    set(pc_prefix ${CMAKE_INSTALL_PREFIX})
    set(pc_libdir ${CMAKE_INSTALL_LIBDIR})
  endif()
  if(IS_ABSOLUTE ${CMAKE_INSTALL_INCLUDEDIR})
    set(pc_includedir ${CMAKE_INSTALL_INCLUDEDIR})
  endif()
  list(TRANSFORM ARG_DEPENDS APPEND " = ${PROJECT_VERSION}" OUTPUT_VARIABLE requires)
  string(REPLACE ";" ", " requires "${requires}")
  configure_file(cmake/library.pc.in ${name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()
