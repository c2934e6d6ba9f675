# SPDX-License-Identifier: Apache-2.0
# Warnings and sanitizers for every target of the project.
add_compile_options(-Wall -Wextra -Wvla -Wcast-qual -Wnon-virtual-dtor -Woverloaded-virtual
                    -Wno-missing-field-initializers -fno-strict-aliasing -fstack-protector-strong)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  add_compile_options(-Wthread-safety -Wthread-safety-beta -Werror=thread-safety)
  # The RPC library calls every codec routine through one type, xdrproc_t.
  set(OXEL_NO_FUNCTION_CHECK -fno-sanitize=function)
endif()
# clang-tidy beside the compiler: what has not changed is not looked at again. The hash of its
# configuration stands in the command line, so that a change of that asks every file again.
if(OXEL_TIDY)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/.clang-tidy)
  file(SHA256 ${PROJECT_SOURCE_DIR}/.clang-tidy tidy)
  string(SUBSTRING ${tidy} 0 8 tidy)
  set(CMAKE_CXX_CLANG_TIDY clang-tidy --quiet --extra-arg=-DOXEL_TIDY=0x${tidy})
endif()
if(OXEL_SANITIZE)
  add_compile_options(-fsanitize=${OXEL_SANITIZE} -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${OXEL_SANITIZE})
  if(OXEL_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined ${OXEL_NO_FUNCTION_CHECK})
  endif()
endif()

# oxel_library(name sources...): a layer's static library; includes are written from the root.
function(oxel_library name)
  add_library(${name} STATIC ${ARGN})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
endfunction()
