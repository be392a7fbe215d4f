#pragma once
// Faults of the C library calls a serial port makes, for the executable that links the
// `seriallinefaults` library: its poll, read, write and tcsetattr stand in for the C library's
// in every object of it (the sanitizers' interceptors stay underneath, reached as the next
// definition). Only calls on the one descriptor given are touched, and only while an object of
// these classes lives; every other call goes through unchanged.
//
// These are the conditions a pseudo-terminal cannot be made to show on request: a wait or read
// interrupted at a known moment, a driver buffer that is full for one call, a driver that takes
// part of a write, a terminal that refuses its settings.
//
//   CSerialCallFault interrupted(TSerialCall::eWrite, descriptor, EINTR, 2);
//   port->Write(data, length, written);   // carries on after the two interrupted calls
//   EXPECT_EQ(interrupted.Calls(), 2u);

#include <cstddef>

enum class TSerialCall { ePoll, eRead, eWrite, eTcsetattr };

class CSerialCallFault {
public:
    // The next `times` calls of `call` on `descriptor` (-1: on any descriptor) fail with `error`
    // without reaching the kernel; with `error` 0 a write returns 0 (took no bytes).
    CSerialCallFault(TSerialCall call, int descriptor, int error, std::size_t times);
    ~CSerialCallFault();
    CSerialCallFault(const CSerialCallFault&) = delete;
    CSerialCallFault& operator=(const CSerialCallFault&) = delete;

    std::size_t Calls() const;  // calls failed so far

private:
    TSerialCall m_call;
};

class CShortWrites {
public:
    // Every write on `descriptor` hands at most `bytes` bytes to the kernel.
    CShortWrites(int descriptor, std::size_t bytes);
    ~CShortWrites();
    CShortWrites(const CShortWrites&) = delete;
    CShortWrites& operator=(const CShortWrites&) = delete;

    std::size_t Calls() const;  // writes shortened so far
};
