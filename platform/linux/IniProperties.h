#pragma once
// Feature properties read from an INI file: one section per feature name, one key per property.
//
//   [modemloader]
//   mountpoint = /mnt/movinand
//
// Keys and section names are taken exactly as written (case matters, as the features look their
// keys up byte for byte); surrounding blanks are trimmed, ";" and "#" start comments (";" also
// after a value, following a blank). A line that begins with blanks continues the value above. A
// key that appears twice in a section keeps its last value. Loaded once, then read-only:
// GetProperty may be called from any thread.

#include <map>
#include <string>
#include <vector>

#include "FeatureProperties.h"
#include "Status.h"

class CIniProperties : public IFeatureProperties {
public:
    using TSection = std::map<std::string, std::string>;

    // Reads `path`; a missing or unreadable file or a line that is not INI fails with the path
    // and the line number in the message. On failure the properties stay as they were.
    [[nodiscard]] CStatus Load(const std::string& path);
    // The same from text in memory (`origin` names it in messages).
    [[nodiscard]] CStatus LoadText(const std::string& text, const std::string& origin);

    bool GetProperty(const std::string& feature, const std::string& key,
                     std::string& value) const override;

    // The keys and values of section `name`, empty when there is none.
    TSection Section(const std::string& name) const;
    // Section names in the order they first appear.
    const std::vector<std::string>& SectionNames() const { return m_sectionNames; }

private:
    static int OnEntry(void* user, const char* section, const char* key, const char* value);
    [[nodiscard]] CStatus Adopt(int parseResult, const std::string& origin);

    std::map<std::string, TSection> m_sections;
    std::vector<std::string> m_sectionNames;
    // Filled by the parser, adopted only when the whole file parsed.
    std::map<std::string, TSection> m_parsing;
    std::vector<std::string> m_parsingNames;
};
