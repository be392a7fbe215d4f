#pragma once
// Bounded string copy into a fixed-size field.

#include <cstddef>

// Copies at most `count` bytes of `source` into `destination`, stopping after a NUL, and never
// writes more than `destinationSize` bytes: when the copy would not fit, the last byte of the
// field becomes the terminator (the text is truncated). Returns the bytes copied, terminator
// included.
std::size_t platSafecopy(char* destination, std::size_t destinationSize, const char* source,
                         std::size_t count);
