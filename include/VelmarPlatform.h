#pragma once
/// @file
/// Which hardware family the appliance is.

#include <cstdint>
#include <string>

/// Reads the key "Platform" of "/etc/platform.conf" once, at construction.
/// Immutable afterwards, so it may be read from any thread.
class KxPlatform {
 public:
  KxPlatform();

  /// Value of the key without its trailing newline; empty when it could not be read.
  const std::string& getPlatformName() const { return m_platformName; }
  /// Platform type, 1..17; 0 when the key could not be read.
  int32_t getPlatformType() const { return m_platformType; }
  /// 1 for the two ARM families with an on-chip transcoder, -1 otherwise.
  int32_t getArmFlag() const { return m_armFlag; }

 private:
  std::string m_platformName;
  int32_t m_platformType;
  int32_t m_armFlag;
};
