#pragma once
// Records the calls that make writes durable, and fails chosen ones, while an object of this
// class lives: for the executable that links the `synccalllog` library, whose fsync, fdatasync,
// syncfs and rename stand in for the C library's in every object of it (the file handler's
// included). Each call is recorded as text, the descriptor named by the path it is open on:
//
//   "fsync /tmp/x/update/boot.bin", "fsync /tmp/x/update", "syncfs /tmp/x/mnt",
//   "rename /tmp/x/.revision.partial /tmp/x/revision"
//
// A call whose record equals a text given to Fail fails with that errno instead of running (and
// is recorded all the same), as often as Fail says: EIO every time for a write-back error, EINTR
// once for a call interrupted by a signal. Calls while no object lives go through unchanged,
// unrecorded.

#include <cstddef>
#include <limits>
#include <string>
#include <vector>

class CSyncCallLog {
public:
    static constexpr std::size_t kEveryCall = std::numeric_limits<std::size_t>::max();

    CSyncCallLog();
    ~CSyncCallLog();
    CSyncCallLog(const CSyncCallLog&) = delete;
    CSyncCallLog& operator=(const CSyncCallLog&) = delete;

    // The next `times` calls recorded as `call` fail with `error` (every later one by default).
    void Fail(const std::string& call, int error, std::size_t times = kEveryCall);
    std::vector<std::string> Calls() const;
};
