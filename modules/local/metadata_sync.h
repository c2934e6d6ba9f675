// SPDX-License-Identifier: Apache-2.0
//
// Bringing names and attributes to the disk. RFC 1813 section 3.3 wants CREATE, MKDIR, SYMLINK,
// LINK, REMOVE, RMDIR, RENAME and SETATTR to survive a crash of the server once they are answered;
// a local file system alone writes such changes some seconds later.
#pragma once

namespace oxel::local {

class FileNode;
class ShareRoot;

// Any thread, which may get the process's own rights. Each answers 0, or -1 with errno: a change
// that did not reach the disk fails the call that made it, although it can be seen.

// The entries of a directory, and its attributes.
int SyncDirectory(ShareRoot& share, const FileNode& directory);
// The attributes of any object. With a file's attributes go its contents; clients that wait for
// them to be committed are told of an error with that.
int SyncAttributes(ShareRoot& share, const FileNode& node);
// The same of a regular file that is open as `fd`.
int SyncFile(const FileNode& node, int fd);

}  // namespace oxel::local
