// SPDX-License-Identifier: Apache-2.0
//
// The file-system module for local directories (module types 1 and 2). Only bin/modules.cpp uses
// this header; everything else sees the contract.
#pragma once

#include <string>

#include "backend/exports_file.h"
#include "backend/types.h"

namespace oxel {

// Reads the key that signs file handles, or makes it at the first start (16 random bytes, mode
// 0600). Must run before a module or share is made. False with a reason for people in *error.
bool InitializeHandleKey(const std::string& keyFile, std::string* error);

// Where it is remembered over a restart what file handles made of inode numbers stand for: a
// directory of this process's own, made when it is needed. Without it the shares are searched after
// a restart. To be called before shares are made.
void KeepPlacesIn(const std::string& directory);
// To be called at the end of the process: brings that to the disk, so that it outlives a power cut
// too. Calls that are still under way go on.
void SettlePlaces();

// The module itself, for one of its two types. Sets the process's umask to 0: what clients make has
// the mode that they ask for.
FSMPtr MakeLocalModule(FSModuleType type);

// One share. Null, with a reason for people in *error, when its directory cannot be opened.
ExportPtr MakeLocalExport(const ShareConfig& share, std::string* error);

// Whether the share's directory is still what share.directory leads to: another file system may
// have been mounted there, or a symbolic link may lead elsewhere now. `served` was made from an
// equal line. True, so that the share stays, when the path cannot be looked at.
bool LocalExportIsCurrent(const ExportPtr& served, const ShareConfig& share);

// Whether files are accessed with the callers' rights, or always with the process's own.
bool LocalModuleActsForCallers();

// One line for the log at start: whose rights files are accessed with, and what kind of handles.
std::string DescribeLocalModule();

// Closes what is kept open to save time and no call has used for that long. Until then the blocks
// of a file that somebody removed on this machine stay allocated, and a program that a client has
// just written cannot be started on this machine. Also tries again what the disk refused. To be
// called every few seconds, from any thread.
void DropIdleLocalFiles(unsigned idleMs);

// Gives the calling thread the process's own rights in the file system. A worker thread keeps those
// of the caller it last worked for; code that opens files of the daemon's own on such a thread
// calls this first.
void RestoreOwnRights();

}  // namespace oxel
