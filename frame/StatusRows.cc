#include "frame/StatusRows.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace statusrows {

namespace {

using Row = nlohmann::ordered_json;

// Names of files are bytes; what is not UTF-8 in them is replaced.
std::string textOf(const Row& row) {
  return row.dump(-1, ' ', false, Row::error_handler_t::replace);
}

std::string rowOf(const KxTranscodeUnit2& unit) {
  const KxDBTask task = unit.getTask();
  return textOf(Row{{"id", task.param.id},
                    {"src", task.param.src},
                    {"state", static_cast<int>(unit.getState())},
                    {"progress", unit.getProgress()},
                    {"pid", unit.getPid()},
                    {"resId", unit.getReg().m_resId}});
}

std::string rowOf(const KxResource2& resource) {
  return textOf(Row{{"id", resource.id},
                    {"resType", static_cast<int>(resource.resType)},
                    {"vendorName", resource.vendorName},
                    {"devName", resource.devName},
                    {"modeSupport", resource.modeSupport},
                    {"devNumber", resource.devNumber},
                    {"registrations", resource.reg.size()}});
}

// The registration of a unit has no process of its own; its details name this process.
std::string rowOf(const KxRegister& registration) {
  const KxRegInfo& info = registration.regInfo;
  return textOf(Row{{"pid", registration.m_pid > 0 ? registration.m_pid : info.m_pid},
                    {"user", info.m_username},
                    {"ip", info.m_ip},
                    {"tag", info.m_tag},
                    {"src", info.m_srcPath}});
}

template <class Records>
void appendRows(std::vector<std::string>& rows, const Records& records) {
  for (const auto& record : records) rows.push_back(rowOf(record));
}

}  // namespace

std::vector<std::string> ofUnits(const std::vector<KxTranscodeUnit2>& units) {
  std::vector<std::string> rows;
  appendRows(rows, units);
  return rows;
}

std::vector<std::string> ofResources(const std::vector<KxResource2>& resources) {
  std::vector<std::string> rows;
  appendRows(rows, resources);
  return rows;
}

std::vector<std::string> ofRegistrations(const std::vector<KxResource2>& resources) {
  std::vector<std::string> rows;
  for (const KxResource2& resource : resources) appendRows(rows, resource.reg);
  return rows;
}

Page page(const std::vector<std::string>& rows, int32_t first, size_t maxBytes) {
  static const std::string kTooLarge = "{}";
  static constexpr size_t kBrackets = 2;
  Page result;
  result.total = static_cast<int32_t>(rows.size());
  result.text = "[";
  for (size_t i = static_cast<size_t>(std::max(first, 0)); i < rows.size(); ++i) {
    const bool fitsAnywhere = rows[i].size() + kBrackets <= maxBytes;
    const std::string& row = fitsAnywhere ? rows[i] : kTooLarge;
    const std::string comma = result.count > 0 ? "," : "";
    if (result.text.size() + comma.size() + row.size() + 1 > maxBytes) break;
    result.text += comma + row;
    ++result.count;
  }
  result.text += "]";
  return result;
}

}  // namespace statusrows
