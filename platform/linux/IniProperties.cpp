#include "IniProperties.h"

#include <ini.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

int CIniProperties::OnEntry(void* user, const char* section, const char* key, const char* value) {
    auto* self = static_cast<CIniProperties*>(user);
    const std::string sectionName(section);
    if (self->m_parsing.find(sectionName) == self->m_parsing.end()) {
        self->m_parsingNames.push_back(sectionName);
    }
    // inih also reports a section header on its own (key null) when so built; it names a section.
    if (key == nullptr) {
        self->m_parsing[sectionName];
        return 1;
    }
    self->m_parsing[sectionName][key] = value != nullptr ? value : "";
    return 1;
}

CStatus CIniProperties::Load(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        return CStatus::Failure(path + ": cannot read: is a directory");
    }
    m_parsing.clear();
    m_parsingNames.clear();
    errno = 0;
    const int result = ini_parse(path.c_str(), &CIniProperties::OnEntry, this);
    if (result == -1) {
        const int error = errno;
        return CStatus::Failure(
            path + ": cannot open: " + (error != 0 ? std::strerror(error) : "unknown error"));
    }
    return Adopt(result, path);
}

CStatus CIniProperties::LoadText(const std::string& text, const std::string& origin) {
    m_parsing.clear();
    m_parsingNames.clear();
    return Adopt(ini_parse_string(text.c_str(), &CIniProperties::OnEntry, this), origin);
}

CStatus CIniProperties::Adopt(int parseResult, const std::string& origin) {
    if (parseResult == -2) {
        return CStatus::Failure(origin + ": out of memory while reading");
    }
    if (parseResult != 0) {
        m_parsing.clear();
        m_parsingNames.clear();
        return CStatus::Failure(origin + ": line " + std::to_string(parseResult) +
                                ": not a section header or key = value line");
    }
    m_sections = std::move(m_parsing);
    m_sectionNames = std::move(m_parsingNames);
    m_parsing.clear();
    m_parsingNames.clear();
    return CStatus::Ok();
}

bool CIniProperties::GetProperty(const std::string& feature, const std::string& key,
                                 std::string& value) const {
    const auto section = m_sections.find(feature);
    if (section == m_sections.end()) {
        return false;
    }
    const auto entry = section->second.find(key);
    if (entry == section->second.end()) {
        return false;
    }
    value = entry->second;
    return true;
}

CIniProperties::TSection CIniProperties::Section(const std::string& name) const {
    const auto section = m_sections.find(name);
    return section != m_sections.end() ? section->second : TSection();
}
