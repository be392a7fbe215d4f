#pragma once
// Feature properties held in a map, recording every lookup (feature and key) in order.

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "FeatureProperties.h"

class CMapProperties : public IFeatureProperties {
public:
    CMapProperties() = default;
    // All `values` under `feature`.
    CMapProperties(const std::string& feature, const std::map<std::string, std::string>& values);

    void Set(const std::string& feature, const std::string& key, const std::string& value);
    void Remove(const std::string& feature, const std::string& key);

    bool GetProperty(const std::string& feature, const std::string& key,
                     std::string& value) const override;

    // The keys looked up, in order (whatever the feature).
    std::vector<std::string> LookedUpKeys() const;
    std::vector<std::pair<std::string, std::string>> Lookups() const;  // {feature, key}

private:
    std::map<std::pair<std::string, std::string>, std::string> m_values;
    mutable std::mutex m_mutex;
    mutable std::vector<std::pair<std::string, std::string>> m_lookups;
};
