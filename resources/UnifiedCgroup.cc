#include "resources/UnifiedCgroup.h"

#include <unistd.h>

#include "resources/CgroupFiles.h"

bool UnifiedCgroup::isMountedAt(const std::string& mountRoot) {
  return access((mountRoot + "/cgroup.controllers").c_str(), F_OK) == 0;
}

UnifiedCgroup::UnifiedCgroup(const std::string& mountRoot, const std::string& name)
    : m_folder(mountRoot + "/" + name) {
  m_parent = m_folder.substr(0, m_folder.find_last_of('/'));
}

void UnifiedCgroup::enable(const std::string& controller) const {
  cgroupfiles::write(m_parent + "/cgroup.subtree_control", "+" + controller);
}
