# vka_library(<name> <directory> HEADERS ... SOURCES ... [DEPENDS ...])
#
# Builds lib<name>.a (target <name>) and lib<name>.so (target <name>_shared) from one set of objects
# and installs both with the headers.
function(vka_library name dir)
  cmake_parse_arguments(ARG "" "" "HEADERS;SOURCES;DEPENDS" ${ARGN})
  list(TRANSFORM ARG_SOURCES PREPEND ${dir}/)
  list(TRANSFORM ARG_HEADERS PREPEND ${dir}/)

  add_library(${name}_objects OBJECT ${ARG_SOURCES})
  set_target_properties(${name}_objects PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    CXX_STANDARD ${VKA_CXX_STANDARD} CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF)
  target_include_directories(${name}_objects PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name}_objects PRIVATE vka_options)

  add_library(${name} STATIC $<TARGET_OBJECTS:${name}_objects>)
  add_library(${name}_shared SHARED $<TARGET_OBJECTS:${name}_objects>)
  set_target_properties(${name}_shared PROPERTIES
    OUTPUT_NAME ${name} VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  foreach(target ${name} ${name}_shared)
    target_include_directories(${target} PUBLIC
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_link_libraries(${target} PUBLIC Threads::Threads)
  endforeach()
  foreach(dependency ${ARG_DEPENDS})
    target_link_libraries(${name} PUBLIC ${dependency})
    target_link_libraries(${name}_shared PUBLIC ${dependency}_shared)
  endforeach()

  install(TARGETS ${name} ${name}_shared
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
            NAMELINK_COMPONENT development)
  install(FILES ${ARG_HEADERS}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${dir} COMPONENT development)
endfunction()
