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
// is recorded all the same). Calls while no object lives go through unchanged, unrecorded.

#include <string>
#include <vector>

class CSyncCallLog {
public:
    CSyncCallLog();
    ~CSyncCallLog();
    CSyncCallLog(const CSyncCallLog&) = delete;
    CSyncCallLog& operator=(const CSyncCallLog&) = delete;

    // Every later call recorded as `call` fails with `error`.
    void Fail(const std::string& call, int error);
    std::vector<std::string> Calls() const;
};
