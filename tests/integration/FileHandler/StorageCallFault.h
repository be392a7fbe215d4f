#pragma once
// Failures of the storage that a test cannot make happen for real, made by standing in for the C
// library's ioctl, open, fstat, fchmod, fdopen, read, write, copy_file_range, close and fclose
// in the executable that links the `storagecallfault` library (the loop device and the file
// handler included). While an object lives:
// - every ioctl with the request given to FailIoctl fails with its errno (LOOP_CTL_GET_FREE with
//   ENODEV: no free loop device; LOOP_CONFIGURE with EBUSY: another process took each device);
// - after the first call that reads from a descriptor open on the path given to FailReadsOf,
//   every later copy_file_range or read from it fails with its errno (a source whose medium
//   went away mid-copy);
// - the calls given to Fail fail with its errno, as often as it says: open of a path that is
//   missing or may not be opened, EINTR of a read or write interrupted by a signal, EIO of a
//   close whose write-back failed. A close or fclose so failed still releases its descriptor,
//   as the kernel does.
// Every other call, and every call while no object lives, goes through unchanged.

#include <cstddef>
#include <limits>
#include <string>

class CStorageCallFault {
public:
    static constexpr std::size_t kEveryCall = std::numeric_limits<std::size_t>::max();

    CStorageCallFault();
    ~CStorageCallFault();
    CStorageCallFault(const CStorageCallFault&) = delete;
    CStorageCallFault& operator=(const CStorageCallFault&) = delete;

    void FailIoctl(unsigned long request, int error);
    void FailReadsOf(const std::string& path, int error);
    // The next `times` calls named `call` ("open", "fstat", "fchmod", "fdopen", "read",
    // "write", "copy_file_range", "close", "fclose") whose path matches the regular expression
    // `pathPattern` fail with `error`. The path of a call on a descriptor or a stream is the one
    // it is open on; that of copy_file_range is its source's.
    void Fail(const std::string& call, const std::string& pathPattern, int error,
              std::size_t times = kEveryCall);

    std::size_t FailedCalls() const;  // calls failed so far
};
