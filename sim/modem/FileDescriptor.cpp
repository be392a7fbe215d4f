#include "FileDescriptor.h"

#include <unistd.h>

#include <utility>

CFileDescriptor::~CFileDescriptor() { Reset(); }

CFileDescriptor::CFileDescriptor(CFileDescriptor&& other) noexcept
    : m_descriptor(std::exchange(other.m_descriptor, -1)) {}

CFileDescriptor& CFileDescriptor::operator=(CFileDescriptor&& other) noexcept {
    if (this != &other) {
        Reset(std::exchange(other.m_descriptor, -1));
    }
    return *this;
}

void CFileDescriptor::Reset(int descriptor) {
    if (m_descriptor >= 0) {
        ::close(m_descriptor);
    }
    m_descriptor = descriptor;
}
