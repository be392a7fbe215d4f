#include "TemporaryDirectory.h"

#include <stdlib.h>

#include <filesystem>
#include <system_error>

CTemporaryDirectory::CTemporaryDirectory() {
    char pattern[] = "/tmp/modem-sim-test.XXXXXX";
    if (::mkdtemp(pattern) != nullptr) {
        m_path = pattern;
    }
}

CTemporaryDirectory::~CTemporaryDirectory() {
    if (!m_path.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
}
