#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "KxAbstractTranscodeSvr.h"

// Integers at the start of a block of a request or an answer.
inline int32_t recordInt(const KxSockData_s& record, size_t block) {
  int32_t value;
  memcpy(&value, record.block[block], sizeof value);
  return value;
}

inline void setRecordInt(KxSockData_s& record, size_t block, int32_t value) {
  memcpy(record.block[block], &value, sizeof value);
}

// Fills the large text, cut to leave the NUL at its end.
inline void setRecordText(KxSockData_s& record, const std::string& text) {
  memcpy(record.block[KxSockData_s::kTextBlock], text.data(),
         std::min(text.size(), KxSockData_s::kTextSize - 1));
}

// An all-zero answer with the command of its request.
class AnswerRecord {
 public:
  explicit AnswerRecord(const KxSockData_s& request) { set(0, recordInt(request, 0)); }

  AnswerRecord& set(size_t block, int32_t value) {
    setRecordInt(m_record, block, value);
    return *this;
  }
  AnswerRecord& result(int32_t value) { return set(1, value); }
  AnswerRecord& text(const std::string& value) {
    setRecordText(m_record, value);
    return *this;
  }
  KxSockData_s& record() { return m_record; }

 private:
  KxSockData_s m_record{};
};
