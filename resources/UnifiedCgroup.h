#pragma once

#include <cstdint>
#include <string>

// Names and texts of the unified hierarchy (cgroup v2), where one folder serves every
// controller and a controller has to be enabled in the folder above first.
class UnifiedCgroup {
 public:
  // True when only the unified hierarchy is mounted at this place.
  static bool isMountedAt(const std::string& mountRoot);

  UnifiedCgroup(const std::string& mountRoot, const std::string& name);

  const std::string& folder() const { return m_folder; }
  std::string cpuLimitFile() const { return m_folder + "/cpu.max"; }
  std::string memLimitFile() const { return m_folder + "/memory.max"; }
  std::string procsFile() const { return m_folder + "/cgroup.procs"; }

  // Makes a controller ("cpu", "memory") usable in the group. Where that is not possible the
  // group has no limit file of this controller.
  void enable(const std::string& controller) const;

 private:
  std::string m_parent;
  std::string m_folder;
};
