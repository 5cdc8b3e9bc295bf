#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "KxHostPlatform.h"

namespace kxhost {

/// Bounds of one run; a program that exceeds them is ended and counts as failed.
struct RunLimits {
  std::chrono::milliseconds time = std::chrono::seconds(30);
  size_t outputBytes = 8 << 20;
  /// Ends the program also when the calling thread's StopSignal is set.
  bool endsWithWork = false;
};

/// Runs a program to its end, without a shell, and captures its standard output. Standard
/// input is empty, standard error is inherited; the program dies with this process.
ExecResult runProgram(const std::vector<std::string>& argv, const RunLimits& limits = {});

/// True when the program ran and exited with 0.
bool succeeded(const ExecResult& result);

}  // namespace kxhost
