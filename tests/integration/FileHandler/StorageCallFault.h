#pragma once
// Failures of the storage that a test cannot make happen for real, made by standing in for the C
// library's ioctl, copy_file_range and read in the executable that links the `storagecallfault`
// library (the loop device and the file handler included). While an object lives:
// - every ioctl with the request given to FailIoctl fails with its errno (LOOP_CTL_GET_FREE with
//   ENODEV: no free loop device; LOOP_CONFIGURE with EBUSY: another process took each device);
// - after the first call that reads from a descriptor open on the path given to FailReadsOf,
//   every later copy_file_range or read from it fails with its errno (a source whose medium
//   went away mid-copy).
// Every other call, and every call while no object lives, goes through unchanged.

#include <cstddef>
#include <string>

class CStorageCallFault {
public:
    CStorageCallFault();
    ~CStorageCallFault();
    CStorageCallFault(const CStorageCallFault&) = delete;
    CStorageCallFault& operator=(const CStorageCallFault&) = delete;

    void FailIoctl(unsigned long request, int error);
    void FailReadsOf(const std::string& path, int error);

    std::size_t FailedCalls() const;  // calls failed so far
};
