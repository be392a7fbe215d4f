#pragma once
// Sole owner of a file descriptor: closes it when destroyed. Movable, not copyable.

#include <unistd.h>

#include <utility>

class CUniqueFd {
public:
    CUniqueFd() = default;
    explicit CUniqueFd(int descriptor) : m_descriptor(descriptor) {}
    ~CUniqueFd() { Reset(); }
    CUniqueFd(CUniqueFd&& other) noexcept : m_descriptor(other.Release()) {}
    CUniqueFd& operator=(CUniqueFd&& other) noexcept {
        if (this != &other) {
            Reset(other.Release());
        }
        return *this;
    }
    CUniqueFd(const CUniqueFd&) = delete;
    CUniqueFd& operator=(const CUniqueFd&) = delete;

    int Get() const { return m_descriptor; }
    bool IsValid() const { return m_descriptor >= 0; }

    // Gives up ownership without closing.
    int Release() { return std::exchange(m_descriptor, -1); }

    void Reset(int descriptor = -1) {
        if (m_descriptor >= 0) {
            ::close(m_descriptor);
        }
        m_descriptor = descriptor;
    }

private:
    int m_descriptor = -1;
};
