#pragma once
// The outcome of a fallible emulator operation: empty on success, otherwise a message that names
// what was being done ("opening the control file /tmp/x/control: No such file or directory").

#include <string>
#include <utility>

struct [[nodiscard]] TStatus {
    std::string error;

    static TStatus Success() { return {}; }
    static TStatus Failure(std::string message) { return TStatus{std::move(message)}; }

    bool Ok() const { return error.empty(); }

    // Adds what the caller was doing in front of the message, on the way up.
    TStatus Context(const std::string& doing) const {
        return Ok() ? TStatus{} : TStatus{doing + ": " + error};
    }
};
