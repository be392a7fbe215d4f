#include "TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <vector>

CTemporaryDirectory::CTemporaryDirectory() {
    std::string pattern = "/tmp/modemloader-test-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
        ADD_FAILURE() << "cannot make a temporary directory from " << pattern;
        return;
    }
    m_path = buffer.data();
}

CTemporaryDirectory::~CTemporaryDirectory() {
    if (!m_path.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
}

std::string CTemporaryDirectory::WriteFile(const std::string& name,
                                           const std::string& content) const {
    const std::string path = m_path + "/" + name;
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    if (!file) {
        ADD_FAILURE() << "cannot write " << path;
    }
    return path;
}
