#include "MapProperties.h"

CMapProperties::CMapProperties(const std::string& feature,
                               const std::map<std::string, std::string>& values) {
    for (const auto& [key, value] : values) {
        Set(feature, key, value);
    }
}

void CMapProperties::Set(const std::string& feature, const std::string& key,
                         const std::string& value) {
    m_values[{feature, key}] = value;
}

void CMapProperties::Remove(const std::string& feature, const std::string& key) {
    m_values.erase({feature, key});
}

bool CMapProperties::GetProperty(const std::string& feature, const std::string& key,
                                 std::string& value) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lookups.emplace_back(feature, key);
    const auto found = m_values.find({feature, key});
    if (found == m_values.end()) {
        return false;
    }
    value = found->second;
    return true;
}

std::vector<std::string> CMapProperties::LookedUpKeys() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> keys;
    for (const auto& lookup : m_lookups) {
        keys.push_back(lookup.second);
    }
    return keys;
}

std::vector<std::pair<std::string, std::string>> CMapProperties::Lookups() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lookups;
}
