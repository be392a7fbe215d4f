#pragma once
// The features' string properties, looked up by feature name and key.

#include <string>

class IFeatureProperties {
public:
    virtual ~IFeatureProperties() {}
    // Stores the value of `key` of feature `feature` in `value` and returns true; returns false
    // when the feature has no such key (what `value` then holds is unspecified).
    virtual bool GetProperty(const std::string& feature, const std::string& key,
                             std::string& value) const = 0;
};
