#pragma once
// A fresh directory under /tmp for files the plug-in reads with plain stdio (the modem's ready
// input), removed with its contents when the object goes.

#include <string>

class CTemporaryDirectory {
public:
    CTemporaryDirectory();
    ~CTemporaryDirectory();
    CTemporaryDirectory(const CTemporaryDirectory&) = delete;
    CTemporaryDirectory& operator=(const CTemporaryDirectory&) = delete;

    const std::string& Path() const { return m_path; }
    // Writes `content` to Path()/name (replacing it) and returns the file's path.
    std::string WriteFile(const std::string& name, const std::string& content) const;

private:
    std::string m_path;
};
