#pragma once

#include <string>

// The files of control groups. Failures go to standard error, as the operator's tools expect;
// nothing is written to the service log.
namespace cgroupfiles {

// Makes a folder with every missing folder above it. False when one cannot be made.
bool makeFolder(const std::string& path);

// Replaces the content of a file. False when it cannot be opened; a value that the kernel
// refuses is not noticed.
bool write(const std::string& path, const std::string& text);

// The same, reporting a file that cannot be opened.
bool writeOrReport(const std::string& path, const std::string& text);

}  // namespace cgroupfiles
