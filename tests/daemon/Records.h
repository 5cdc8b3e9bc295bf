#pragma once

#include <cstring>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "KxAbstractTranscodeSvr.h"

namespace kxtest {

constexpr size_t kTextOffset = KxSockData_s::kTextBlock * KxSockData_s::kBlockSize;

inline std::unique_ptr<KxSockData_s> makeRequest(int32_t code) {
  auto record = std::make_unique<KxSockData_s>();
  memcpy(record->block[0], &code, sizeof code);
  return record;
}

inline void putNumber(KxSockData_s& record, size_t block, int32_t value) {
  memcpy(record.block[block], &value, sizeof value);
}

inline void putText(KxSockData_s& record, size_t block, const std::string& text) {
  memcpy(reinterpret_cast<char*>(&record) + block * KxSockData_s::kBlockSize, text.data(),
         text.size());
}

inline std::unique_ptr<KxSockData_s> jsonRequest(int32_t code, const std::string& json) {
  auto record = makeRequest(code);
  putText(*record, KxSockData_s::kTextBlock, json);
  return record;
}

inline int32_t numberOf(const KxSockData_s& record, size_t block) {
  int32_t value = 0;
  memcpy(&value, record.block[block], sizeof value);
  return value;
}

inline std::string textOf(const KxSockData_s& record) {
  const char* text = reinterpret_cast<const char*>(&record) + kTextOffset;
  return std::string(text, strnlen(text, KxSockData_s::kTextSize));
}

inline nlohmann::json jsonOf(const KxSockData_s& record) {
  return nlohmann::json::parse(textOf(record));
}

}  // namespace kxtest
