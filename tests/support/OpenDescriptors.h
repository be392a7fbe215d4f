#pragma once
// The descriptors this process holds open, for tests that show a failure path leaks none: take
// them before and after, and compare.
//
//   const TDescriptors before = OpenDescriptors();
//   ...the failing call...
//   EXPECT_EQ(OpenDescriptors(), before);

#include <map>
#include <string>

// Descriptor number -> what it is open on (the /proc/self/fd link: a path, "pipe:[N]",
// "anon_inode:[eventfd]"...).
using TDescriptors = std::map<int, std::string>;

// Every descriptor open in this process now, without the one used to list them.
TDescriptors OpenDescriptors();

// The lowest-numbered descriptor open on `target`, or -1 when none is.
int DescriptorOpenOn(const std::string& target);
