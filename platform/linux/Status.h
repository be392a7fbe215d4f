#pragma once
// The outcome of a fallible platform operation: success, or a message that says what failed.
//
// Every layer that passes a failure upwards adds what it was doing ("mounting /dev/loop3 on
// /mnt/x: ..."), so the message the user finally reads names the whole chain.

#include <string>
#include <utility>

class [[nodiscard]] CStatus {
public:
    static CStatus Ok() { return CStatus(true, std::string()); }
    static CStatus Failure(std::string message) { return CStatus(false, std::move(message)); }

    bool IsOk() const { return m_ok; }
    explicit operator bool() const { return m_ok; }
    const std::string& Message() const { return m_message; }

    // The same status, its message prefixed with "context: " when it is a failure.
    CStatus WithContext(const std::string& context) const {
        return m_ok ? *this : Failure(context + ": " + m_message);
    }

private:
    CStatus(bool ok, std::string message) : m_ok(ok), m_message(std::move(message)) {}

    bool m_ok;
    std::string m_message;
};
