#include "VelmarPlatform.h"

#include <array>
#include <string_view>

#include "Misc.h"
#include "frame/Log.h"

static constexpr const char* kLogSource = "VelmarPlatform";

namespace {

struct Family {
  std::string_view prefix;
  bool matches;  // false: the row is for names that do not begin with the prefix
  int32_t type;
  int32_t armFlag;
};

// The first row that fits decides. "PLATFORM_X86_EVANSPORT" never reaches its own row, because
// it does not begin with "X86"; installed systems know it as type 17.
constexpr std::array<Family, 17> kFamilies = {{
    {"MARVELL", true, 7, -1},
    {"ARM_RTK", true, 15, 1},
    {"ARM_RK", true, 16, 1},
    {"X86", false, 17, -1},
    {"X86_BAYTRAIL", true, 1, -1},
    {"X86_SANDYBRIDGE", true, 2, -1},
    {"X86_HASWELL", true, 3, -1},
    {"PLATFORM_X86_EVANSPORT", true, 4, -1},
    {"X86_STEPPEEAGLE", true, 5, -1},
    {"X86_GRANTLEY", true, 8, -1},
    {"X86_BRASWELL", true, 9, -1},
    {"X86_SKYLAKE", true, 10, -1},
    {"X86_MERLINFALCON", true, 11, -1},
    {"X86_PRAIRIEFALCON", true, 12, -1},
    {"X86_APOLLOLAKE", true, 13, -1},
    {"X86_SUMMITRIDGE", true, 14, -1},
    {"X86", true, 6, -1},
}};

}  // namespace

KxPlatform::KxPlatform() : m_platformType(0), m_armFlag(-1) {
  std::array<char, 1024> value{};
  if (MyUtil_GetKeyStr(nullptr, "Platform", "", value.data(), static_cast<int>(value.size()),
                       miscSystemPath("/etc/platform.conf").c_str()) == 0) {
    KX_LOG_LEVEL(2, "get platform fail");
    return;
  }
  m_platformName = value.data();
  if (!m_platformName.empty() && m_platformName.back() == '\n') m_platformName.pop_back();
  for (const Family& family : kFamilies) {
    if (m_platformName.starts_with(family.prefix) != family.matches) continue;
    m_platformType = family.type;
    m_armFlag = family.armFlag;
    return;
  }
}
