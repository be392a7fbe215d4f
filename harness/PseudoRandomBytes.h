#pragma once
// Deterministic contents for update files: the same count and seed always give the same bytes,
// so a failing run can be repeated exactly, and no two files of one device look alike.

#include <cstddef>
#include <cstdint>
#include <string>

std::string PseudoRandomBytes(std::size_t count, uint64_t seed);
