#include "KxResource2.h"

#include <utility>

#include "frame/Log.h"

static constexpr const char* kLogSource = "KxResource2";

KxResource2::KxResource2() {
  clear();
}

int KxResource2::init(std::string newId, KxRes2_e type, std::string vendor, std::string device,
                      int mode, std::string number) {
  if (newId.empty() || type == RES2_NONE) {
    KX_LOG("KxResource2 init fail\n");
    return 1;
  }
  isEmpty = false;
  id = std::move(newId);
  resType = type;
  vendorName = std::move(vendor);
  devName = std::move(device);
  modeSupport = mode;
  devNumber = std::move(number);
  return 0;
}

void KxResource2::clear() {
  isEmpty = true;
  id.clear();
  resType = RES2_NONE;
  vendorName.clear();
  devName.clear();
  modeSupport = 0;
  devNumber.clear();
  reg.clear();
}

bool KxResource2::operator==(const KxResource2& other) const {
  return isEmpty == other.isEmpty && id == other.id && resType == other.resType &&
         vendorName == other.vendorName && devName == other.devName &&
         modeSupport == other.modeSupport && devNumber == other.devNumber;
}

int KxResource2::addRegInfo(KxRegister& entry) {
  if (entry.isEmpty) {
    KX_LOG("regInfo is empty\n");
    return 1;
  }
  reg.push_back(entry);
  return 0;
}

// The removals compare with a copy: the argument may be one of the entries that go.

int KxResource2::rmRegInfo(KxRegister& entry) {
  const KxRegister gone = entry;
  // The job type is left out on purpose: whoever unregisters need not know it.
  std::erase_if(reg, [&gone](const KxRegister& one) {
    return one.m_resId == gone.m_resId && one.m_resType == gone.m_resType &&
           one.m_pid == gone.m_pid && one.task == gone.task;
  });
  return 0;
}

int KxResource2::rmRegInfo(int pid) {
  std::erase_if(reg, [pid](const KxRegister& one) { return one.m_pid == pid; });
  return 0;
}

int KxResource2::rmRegInfo(KxDBTask& task) {
  const KxDBTask gone = task;
  std::erase_if(reg, [&gone](const KxRegister& one) { return one.task == gone; });
  return 0;
}

void KxResource2::dump() {
  KX_LOG("---KxResource2:\n");
  KX_LOG("isEmpty=%s, id=%s, resType=%d, vendorName=%s, devName=%s, modeSupport=%d, "
         "devNumber=%s, reg.size()=%zu\n",
         isEmpty ? "true" : "false", id.c_str(), static_cast<int>(resType), vendorName.c_str(),
         devName.c_str(), modeSupport, devNumber.c_str(), reg.size());
  for (KxRegister& entry : reg) entry.dump();
}
