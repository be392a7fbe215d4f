#pragma once
// Makes malloc fail for one request size while an object of this class lives: for the
// executable that links the `mallocfaults` library, whose malloc stands in for the C library's in
// every object of it, the plug-in's included. Every other request, and every request while no
// object lives, goes to the C library's allocator unchanged.
//
//   CMallocFault fault(25600);   // the next malloc(25600) returns null
//   loader.Write();
//   EXPECT_EQ(fault.Failed(), 1u);
//
// Not for the sanitizer builds, whose allocator must own malloc and free alike (see
// tests/unit/ModemLoader/CMakeLists.txt).

#include <cstddef>

class CMallocFault {
public:
    // Fails the next `times` requests of exactly `size` bytes.
    explicit CMallocFault(std::size_t size, std::size_t times = 1);
    ~CMallocFault();
    CMallocFault(const CMallocFault&) = delete;
    CMallocFault& operator=(const CMallocFault&) = delete;

    std::size_t Failed() const;  // requests failed so far
};
