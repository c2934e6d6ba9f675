// SPDX-License-Identifier: Apache-2.0
//
// placeholder
#include <gtest/gtest.h>

#include "tests/wire/hostile_fixture.h"
