# SPDX-License-Identifier: Apache-2.0
# oxel_test(name [HARDENED_TOO] [TIMEOUT seconds] [LABELS l...] SOURCES s... LIBRARIES l...): one
# GoogleTest program, one ctest entry. Extra arguments that the program needs go into ENVIRONMENT.
# HARDENED_TOO: a second entry, <name>_hardened, whose daemons are hardened; for programs whose tests
# do not have the mode as a parameter.

# Tests are compiled for quick building: without optimisation, with line numbers only, GoogleMock's
# headers and the contract's mocks compiled once.
set(OXEL_TEST_OPTIONS -O0 -g1)
file(CONFIGURE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/oxel_test_headers.cpp CONTENT "")
add_library(oxel_test_headers STATIC ${CMAKE_CURRENT_BINARY_DIR}/oxel_test_headers.cpp)
target_link_libraries(oxel_test_headers PUBLIC GTest::gmock GTest::gtest Threads::Threads)
target_compile_options(oxel_test_headers PRIVATE ${OXEL_TEST_OPTIONS})
target_precompile_headers(oxel_test_headers PRIVATE <gmock/gmock.h> <gtest/gtest.h> <string>
  <vector> <map> <memory> <functional> <thread> <mutex> <condition_variable> <atomic> <filesystem>
  <fstream> <sstream>)

add_library(oxel_contract_mocks STATIC ${PROJECT_SOURCE_DIR}/tests/support/contract_mocks.cpp)
target_compile_options(oxel_contract_mocks PRIVATE ${OXEL_TEST_OPTIONS})
target_link_libraries(oxel_contract_mocks PUBLIC oxel_backend GTest::gmock)

function(oxel_test name)
  cmake_parse_arguments(T "HARDENED_TOO" "TIMEOUT" "SOURCES;LIBRARIES;LABELS;ENVIRONMENT" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBRARIES} oxel_contract_mocks GTest::gmock GTest::gtest_main)
  target_compile_options(${name} PRIVATE ${OXEL_TEST_OPTIONS})
  target_precompile_headers(${name} REUSE_FROM oxel_test_headers)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  add_test(NAME ${name} COMMAND ${name})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 300)
  endif()
  set(environment "OXELNFSD=$<TARGET_FILE:oxelnfsd>;OXELCTL=$<TARGET_FILE:oxelctl>;OXEL_SOURCE_DIR=${PROJECT_SOURCE_DIR};${OXEL_TEST_ENVIRONMENT};${T_ENVIRONMENT}")
  set_tests_properties(${name} PROPERTIES TIMEOUT ${T_TIMEOUT} LABELS "${T_LABELS}"
    ENVIRONMENT "${environment}")
  if(T_HARDENED_TOO)
    add_test(NAME ${name}_hardened COMMAND ${name})
    set_tests_properties(${name}_hardened PROPERTIES TIMEOUT ${T_TIMEOUT} LABELS "${T_LABELS}"
      ENVIRONMENT "${environment};OXEL_TEST_HARDENED=1")
  endif()
endfunction()
