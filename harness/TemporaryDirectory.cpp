#include "TemporaryDirectory.h"

#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

namespace {
CStatus MakeDirectory(const std::string& prefix, std::string& path) {
    std::vector<char> pattern(prefix.begin(), prefix.end());
    pattern.insert(pattern.end(), 6, 'X');
    pattern.push_back('\0');
    if (::mkdtemp(pattern.data()) == nullptr) {
        return CStatus::Failure("making a directory from " + prefix +
                                "XXXXXX: " + std::strerror(errno));
    }
    path = pattern.data();
    return CStatus::Ok();
}
}  // namespace

CTemporaryDirectory::CTemporaryDirectory(const std::string& prefix)
    : m_made(MakeDirectory(prefix, m_path)) {}

CTemporaryDirectory::~CTemporaryDirectory() {
    if (!m_path.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
}

CStatus CTemporaryDirectory::WriteFile(const std::string& name, const std::string& content) const {
    if (!m_made) {
        return m_made.WithContext("writing " + name);
    }
    const std::string path = Join(name);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    if (!file) {
        return CStatus::Failure("writing " + path);
    }
    return CStatus::Ok();
}

CStatus ReadWholeFile(const std::string& path, std::string& content) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return CStatus::Failure("reading " + path + ": " + std::strerror(errno));
    }
    std::ostringstream text;
    text << file.rdbuf();
    content = text.str();
    return CStatus::Ok();
}
