# SPDX-License-Identifier: Apache-2.0
# The call record and its pool; included by this folder's CMakeLists.txt.
oxel_test(callinfo_tests SOURCES ${CMAKE_CURRENT_LIST_DIR}/callinfo_test.cpp
  LIBRARIES oxel_callinfo)
