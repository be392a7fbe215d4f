#pragma once
// The harness's file operations as a test uses them: a failure is a test failure with the
// harness's message, and the test goes on with the path it asked for.

#include <string>

#include "TemporaryDirectory.h"

// Writes `content` to `directory`/name and returns that path.
std::string WriteTestFile(const CTemporaryDirectory& directory, const std::string& name,
                          const std::string& content);

// The whole content of `path`; empty when it cannot be read (a file the test expects absent).
std::string ReadTestFile(const std::string& path);
