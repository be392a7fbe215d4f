#pragma once
// A symbolic link that exists as long as its owner: "--link" names the pseudo-terminal's slave
// under a stable path, the one the image loader's "serial" property holds. An existing link at
// that path (left by an emulator that was killed) is replaced; any other file is not.

#include <string>

#include "Status.h"

class CSymbolicLink {
public:
    CSymbolicLink() = default;
    ~CSymbolicLink();
    CSymbolicLink(const CSymbolicLink&) = delete;
    CSymbolicLink& operator=(const CSymbolicLink&) = delete;

    [[nodiscard]] CStatus Create(const std::string& target, const std::string& path);

private:
    std::string m_path;
};
