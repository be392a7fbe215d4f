#pragma once
// The steps that make a change to a file or a folder survive a power cut: a file's data and
// size reach the storage with fsync of the file, and the entry that names it (its creation,
// removal or rename) with fsync of the folder that holds it. The file handler takes these steps
// before it reports a write as done, so that a file that says "done" (a flag, a revision) can
// only be on the storage after what it vouches for.

#include <string>

#include "Status.h"

// The folder that holds `path`: "a/b" for "a/b/c", "." for "c", "/" for "/c". Trailing slashes
// of `path` are ignored ("a" for "a/b/").
std::string FolderOf(const std::string& path);

// The last part of `path` ("c" for "a/b/c" and for "a/b/c/").
std::string LastPathPart(const std::string& path);

// fsync of an open descriptor; `name` names it in the failure ("syncing NAME: ..."). A
// descriptor the kernel cannot sync (a pipe, a character device) has nothing to make durable and
// succeeds.
[[nodiscard]] CStatus SyncDescriptor(int descriptor, const std::string& name);

// fsync of `folder` itself, so that the entries created, removed or renamed in it are durable.
[[nodiscard]] CStatus SyncFolder(const std::string& folder);
