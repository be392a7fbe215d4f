#pragma once
// Makes pthread_create fail while an object of this class lives: for the executable that links
// the `libcfaults` library, whose pthread_create stands in for the C library's in every object of
// it, the plug-in's included (the sanitizers' interceptors stay underneath, reached as the next
// definition). Other calls, and every call while no object lives, go through unchanged.
//
//   CThreadCreateFault fault(EAGAIN);
//   power.Start();
//   EXPECT_EQ(fault.Calls(), 1u);

#include <cstddef>

class CThreadCreateFault {
public:
    explicit CThreadCreateFault(int error);
    ~CThreadCreateFault();
    CThreadCreateFault(const CThreadCreateFault&) = delete;
    CThreadCreateFault& operator=(const CThreadCreateFault&) = delete;

    std::size_t Calls() const;  // pthread_create calls failed so far
};
