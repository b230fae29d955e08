# SPDX-License-Identifier: MIT
#
# libvka stands on libqvproc, that on libqvio, that on libqvutil; never the other way round.
#
# Each public header is compiled alone, in the libraries' own language standard and twice over, where
# only its own library and those below can be included. Each library is linked whole with only those
# below. What breaks the order breaks the build of the tests.

function(vka_layer name dir)
  cmake_parse_arguments(ARG "" "" "BELOW" ${ARGN})

  set(visible ${CMAKE_CURRENT_BINARY_DIR}/layers/${name})
  file(REMOVE_RECURSE ${visible})
  file(MAKE_DIRECTORY ${visible}/include)
  set(libraries $<TARGET_FILE:${name}>)
  string(REGEX REPLACE "/.*" "" top ${dir})
  file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${top} ${visible}/include/${top} SYMBOLIC)
  foreach(below ${ARG_BELOW})
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/lib${below} ${visible}/include/lib${below} SYMBOLIC)
    list(APPEND libraries $<TARGET_FILE:${below}>)
  endforeach()

  file(GLOB files RELATIVE ${PROJECT_SOURCE_DIR}/${dir} CONFIGURE_DEPENDS
    ${PROJECT_SOURCE_DIR}/${dir}/*)
  set(units ${visible}/main.cc)
  file(WRITE ${visible}/main.cc "int main() {}\n")
  foreach(header ${files})
    if(NOT header MATCHES "\\.") # sources and private headers have an extension
      file(WRITE ${visible}/${header}.cc
        "#include <${dir}/${header}>\n#include <${dir}/${header}>\n")
      list(APPEND units ${visible}/${header}.cc)
    endif()
  endforeach()

  add_executable(${name}_layer_test ${units})
  set_target_properties(${name}_layer_test PROPERTIES
    CXX_STANDARD ${VKA_CXX_STANDARD} CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF)
  target_include_directories(${name}_layer_test PRIVATE ${visible}/include)
  target_link_libraries(${name}_layer_test PRIVATE
    -Wl,--whole-archive ${libraries} -Wl,--no-whole-archive vka_options)
  add_dependencies(${name}_layer_test ${name} ${ARG_BELOW})
  add_test(NAME ${name}Layer COMMAND ${name}_layer_test)
endfunction()

vka_layer(qvutil libqvutil)
vka_layer(qvio libqvio BELOW qvutil)
vka_layer(qvproc libqvproc BELOW qvio qvutil)
vka_layer(vka libvka/client BELOW qvproc qvio qvutil)

# The exceptions' virtual tables and type information have one home: defined there, not in a user.
function(vka_virtual_table class home user)
  add_test(NAME ${class}VirtualTable COMMAND sh -c "
    defined() { '${CMAKE_NM}' -C \"$1\" | grep -c ' [DRV] v*t[^ ]* for ${class}$'; }
    test \"$(defined \"$0\")\" = 2 && test \"$(defined \"$1\")\" = 0"
    $<TARGET_FILE:${home}> $<TARGET_FILE:${user}>)
endfunction()

vka_virtual_table(QVException qvutil qvio)
vka_virtual_table(IOException qvio vka)
