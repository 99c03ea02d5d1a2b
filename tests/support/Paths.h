#pragma once

#include <string>

// The full path of a file in the build tree, such as "bin/zprun".
std::string InBuild(const std::string& path);

// The full path of a file of the checkout, such as "config/zeph.toml".
std::string InSource(const std::string& path);
