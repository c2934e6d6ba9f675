// SPDX-License-Identifier: Apache-2.0
//
// The contract's shared pointers and numbers.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>

class Export;
class FSM;
class BkEndProc;

using ExportPtr = boost::shared_ptr<Export>;  // null: not resolved, or not found
using FSMPtr = boost::shared_ptr<FSM>;
using BkEndProcPtr = boost::shared_ptr<BkEndProc>;  // null: no such object

// The module type travels in every file handle as fsmType. Types are given out by bin/modules.cpp.
using FSModuleType = uint32_t;
inline constexpr FSModuleType kLocalModuleType = 1;
// Shares of this type can be mounted but are not shown by EXPORT.
inline constexpr FSModuleType kUnlistedModuleType = 2;
