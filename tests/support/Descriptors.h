#pragma once
// This process's open file descriptors, as the kernel lists them in /proc/self/fd: for a test
// that proves a failure leaks none, and for a stand-in of a C library call that names the file
// a descriptor is open on. Uses only opendir and readlink, so a stand-in for read may call it.

#include <set>
#include <string>

// The numbers of the open descriptors (the one used to list them left out).
std::set<int> OpenDescriptors();

// The path `descriptor` is open on ("/tmp/x/revision", "pipe:[1234]"); empty when it is not open.
std::string DescriptorPath(int descriptor);

// Every process with a descriptor, working folder or root under `folder`, one line each
// ("pid 123 (sh): fd 4 -> /mnt/revision"): what keeps a mount point busy. Empty when none.
std::string HoldersOf(const std::string& folder);
