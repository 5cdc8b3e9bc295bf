#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "KxAbstractTranscodeSvr.h"
#include "KxDBTask.h"

namespace xcoded {

// What a handler answers with; sendAnswer() makes a record of it.
struct Answer {
  int32_t result = 0;  // 0 success
  int32_t value2 = 0;  // block 2
  int32_t value3 = 0;  // block 3
  std::string text;    // blocks 4-19

  static Answer failure(const std::string& why);
  static Answer object(const nlohmann::json& object);
};

// One row of the queue under the names of its record. Invalid UTF-8 is replaced when the
// object is written out.
nlohmann::json jobToJson(const KxDBTaskParam& job);

// Valid UTF-8 text of a JSON value, without blanks and newlines.
std::string jsonText(const nlohmann::json& value);

// An array of objects that fits into the text blocks: rows that do not fit are left out
// whole, and so is everything after the first of them.
class JsonPage {
 public:
  explicit JsonPage(size_t maxBytes = KxSockData_s::kTextSize - 1) : m_maxBytes(maxBytes) {}
  // False when the row does not fit.
  bool add(const nlohmann::json& row);
  int32_t rows() const { return m_rows; }
  std::string text() const { return m_text + "]"; }

 private:
  size_t m_maxBytes;
  std::string m_text = "[";
  int32_t m_rows = 0;
};

// Writes an answer as one record. False when the client did not take it whole.
bool sendAnswer(int fd, int32_t command, const Answer& answer);

}  // namespace xcoded
