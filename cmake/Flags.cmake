# SPDX-License-Identifier: Apache-2.0
# Warnings and sanitizers for every target of the project.
add_compile_options(-Wall -Wextra -Wvla -Wcast-qual -Wnon-virtual-dtor -Woverloaded-virtual
                    -Wno-missing-field-initializers -fno-strict-aliasing -fstack-protector-strong)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  add_compile_options(-Wthread-safety -Wthread-safety-beta -Werror=thread-safety)
  # The RPC library calls every codec routine through one type, xdrproc_t.
  set(OXEL_NO_FUNCTION_CHECK -fno-sanitize=function)
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
