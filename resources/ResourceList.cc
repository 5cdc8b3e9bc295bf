#include "resources/ResourceList.h"

#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <utility>

#include "KxResMgr2.h"
#include "frame/Log.h"

static constexpr const char* kLogSource = "KxResMgr2";

namespace {

bool isBuiltIn(const KxResource2& resource) {
  return resource.resType == RES2_SW_CPU || resource.resType == RES2_ARM_RTK ||
         resource.resType == RES2_ARM_RK;
}

// One comparison, so that a type after the last hardware type does not count as hardware.
bool isHardware(const KxResource2& resource) {
  constexpr auto kFirst = static_cast<uint32_t>(RES2_GPU_INTERNAL);
  constexpr auto kLast = static_cast<uint32_t>(RES2_ARM_RK);
  return static_cast<uint32_t>(resource.resType) - kFirst <= kLast - kFirst;
}

bool hasId(const std::vector<KxResource2>& resources, const std::string& id) {
  return std::any_of(resources.begin(), resources.end(),
                     [&id](const KxResource2& one) { return one.id == id; });
}

bool isFolder(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

bool ResourceList::addBuiltIn(const std::string& id, KxRes2_e type) {
  KxResource2 resource;
  if (resource.init(id, type, "", "", 0, "") != 0) return false;
  m_entries.push_back(std::move(resource));
  return true;
}

void ResourceList::reconcile(const std::vector<KxResource2>& cards) {
  std::erase_if(m_entries, [&cards](const KxResource2& known) {
    if (isBuiltIn(known) || hasId(cards, known.id)) return false;
    KX_LOG_AS("checkRes", "remove non-existed device from resource vector\n");
    return true;
  });
  for (const KxResource2& card : cards) {
    if (hasId(m_entries, card.id)) continue;
    KX_LOG_AS("checkRes", "detect new dev, add it to resource vector\n");
    m_entries.push_back(card);
  }
}

KxResource2* ResourceList::find(const std::string& id) {
  const auto found = std::find_if(m_entries.begin(), m_entries.end(),
                                  [&id](const KxResource2& one) { return one.id == id; });
  return found == m_entries.end() ? nullptr : &*found;
}

void ResourceList::removeJob(KxDBTask& task) {
  for (KxResource2& resource : m_entries) resource.rmRegInfo(task);
}

void ResourceList::removeDeadProcesses() {
  for (KxResource2& resource : m_entries) {
    for (size_t i = 0; i < resource.reg.size();) {
      const int pid = resource.reg[i].m_pid;
      const std::string folder = "/proc/" + std::to_string(pid) + "/";
      if (pid <= 0 || isFolder(folder)) {
        ++i;
        continue;
      }
      KX_LOG_AS("checkRegInfo", "%s is not exist, so we remove it from RegInfo\n", folder.c_str());
      resource.rmRegInfo(pid);  // this one and those of the same process; the next moves up
    }
  }
}

void ResourceList::dump() {
  for (KxResource2& resource : m_entries) resource.dump();
}

std::vector<KxResource2> getPriorityResVec(std::vector<KxResource2> resources) {
  std::sort(resources.begin(), resources.end(), [](const KxResource2& a, const KxResource2& b) {
    if (isHardware(a) != isHardware(b)) return isHardware(a);
    return a.reg.size() < b.reg.size();
  });
  return resources;
}
