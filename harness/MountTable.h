#pragma once
// What the kernel says is mounted and attached: this process's mount table
// (/proc/self/mountinfo) and the loop devices' backing files (/sys/block/loop*/loop/backing_file).
// The simulated device, the demo and the tests use it to prove that an update left nothing
// behind.

#include <string>
#include <vector>

// The canonical form of `path` (symbolic links resolved), or `path` itself when it does not exist.
std::string ResolvedPath(const std::string& path);

// Whether something is mounted exactly on `path`.
bool IsMountPoint(const std::string& path);

// Whether something is mounted on a path below `folder`.
bool IsAnythingMountedUnder(const std::string& folder);

// The loop devices ("/dev/loop3", ...) backed by `file`, also after the file was removed.
std::vector<std::string> LoopDevicesBackedBy(const std::string& file);

// The loop devices backed by a file below `folder`.
std::vector<std::string> LoopDevicesBackedUnder(const std::string& folder);
