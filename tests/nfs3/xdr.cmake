# SPDX-License-Identifier: Apache-2.0
# The codec's tests; included by this folder's CMakeLists.txt.
oxel_test(nfs3xdr_tests SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/nfs3xdr_basic_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/nfs3xdr_attributes_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/nfs3xdr_arguments_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/nfs3xdr_write_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/nfs3xdr_results_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/nfs3xdr_lists_test.cpp
  LIBRARIES oxel_nfs3 oxel_callinfo)
