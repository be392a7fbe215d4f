#pragma once
// A test whose serial line is a pseudo-terminal: the port under test opens the terminal side
// (Device()), and the test plays the modem on the master side. Skips, or fails in CI, where no
// pseudo-terminal can be made.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "Descriptors.h"
#include "Prerequisite.h"
#include "UniqueFd.h"

class CPseudoTerminalTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_master.Reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
        if (!m_master.IsValid() || ::grantpt(m_master.Get()) != 0 ||
            ::unlockpt(m_master.Get()) != 0) {
            MODEMLOADER_MISSING_PREREQUISITE("no pseudo-terminal available here");
        }
        char name[128];
        ASSERT_EQ(::ptsname_r(m_master.Get(), name, sizeof name), 0);
        m_device = name;
        m_masterDescriptor = m_master.Get();
    }

    // Reads from the modem's side until `count` bytes arrived or 5 s passed.
    std::string ReadFromModem(std::size_t count) {
        std::string received;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (received.size() < count && std::chrono::steady_clock::now() < deadline) {
            pollfd descriptor{m_master.Get(), POLLIN, 0};
            if (::poll(&descriptor, 1, 100) == 1) {
                char buffer[4096];
                const ssize_t got = ::read(m_master.Get(), buffer, sizeof buffer);
                if (got > 0) {
                    received.append(buffer, static_cast<std::size_t>(got));
                }
            }
        }
        return received;
    }

    void WriteFromModem(const std::string& bytes) {
        ASSERT_EQ(::write(m_master.Get(), bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
    }

    // The descriptor this process has open on the terminal side (the port's), or -1.
    int TerminalDescriptor() const {
        for (const int descriptor : OpenDescriptors()) {
            if (DescriptorPath(descriptor) == m_device) {
                return descriptor;
            }
        }
        return -1;
    }

    CUniqueFd m_master;           // the modem's side; Reset() hangs the line up
    int m_masterDescriptor = -1;  // its number, still known once it was closed
    std::string m_device;         // the terminal side, for the port
};
