#pragma once
// What a test does when the machine lacks something it needs (root, loop devices, a
// pseudo-terminal, a program): on a developer's machine it skips with the reason; where
// MODEMLOADER_REQUIRE_DEVICE=1 is set, as CI sets it, it fails with the same reason, so that a
// run cannot pass green without its device tests.
//
// A macro because GTEST_SKIP and GTEST_FAIL return from the calling function.

#include <gtest/gtest.h>

#include <string>

// True when MODEMLOADER_REQUIRE_DEVICE is set to 1.
bool PrerequisitesRequired();

#define MODEMLOADER_MISSING_PREREQUISITE(reason)                                            \
    do {                                                                                    \
        const std::string modemloaderMissing_ = (reason);                                   \
        if (PrerequisitesRequired()) {                                                      \
            GTEST_FAIL()                                                                    \
                << modemloaderMissing_                                                      \
                << " (MODEMLOADER_REQUIRE_DEVICE=1: a missing prerequisite fails the run)"; \
        }                                                                                   \
        GTEST_SKIP() << modemloaderMissing_;                                                \
    } while (false)
