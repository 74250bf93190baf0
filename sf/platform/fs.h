// File-system facts the library needs beyond <cstdio>.
#pragma once

#include <string>

namespace sf {
namespace platform {

// Full path of the running executable, or "" when unknown.
std::string executable_path();

// The current working directory, or "" when unknown.
std::string current_directory();

// True when path names an existing directory.
bool is_directory(const std::string& path);

// True when this process may create files in the directory path.
bool is_writable(const std::string& path);

}  // namespace platform
}  // namespace sf
