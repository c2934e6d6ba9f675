// SPDX-License-Identifier: Apache-2.0
//
// A module, its shares and its objects that hand every call on to another module's, but for those
// that the plan in the shared file picks.
#pragma once

#include <string>

#include "backend/exports_file.h"
#include "backend/types.h"

namespace oxel::test {

// Maps the plan's file. False, with a reason for people in *error, when it is not there.
bool MapFaults(const std::string& file, std::string* error);

FSMPtr WithFaults(FSMPtr module);
ExportPtr WithFaults(ExportPtr share, const ShareConfig& config);
// What the share hands its calls on to.
ExportPtr WithoutFaults(const ExportPtr& share);

}  // namespace oxel::test
