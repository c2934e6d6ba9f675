// SPDX-License-Identifier: Apache-2.0
//
// Registers the file-system modules and the shares of the exports file.
#pragma once

// False when no share can be served at all because the modules themselves cannot work (the reason
// is in the log); broken lines of the exports file are logged and skipped.
bool InitializeFileSystemModules();

// At the end of the process: brings what the modules remember to the disk.
void SettleFileSystemModules();
