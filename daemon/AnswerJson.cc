#include "daemon/AnswerJson.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

namespace xcoded {

Answer Answer::failure(const std::string& why) {
  Answer answer = object({{"error", why}});
  answer.result = 1;
  return answer;
}

Answer Answer::object(const nlohmann::json& object) {
  Answer answer;
  answer.text = jsonText(object);
  if (answer.text.size() < KxSockData_s::kTextSize) return answer;
  return failure("the answer does not fit into a record");
}

nlohmann::json jobToJson(const KxDBTaskParam& job) {
  return {{"id", job.id},
          {"src", job.src},
          {"dst", job.dst},
          {"dateAdd", job.dateAdd},
          {"dateStart", job.dateStart},
          {"dateFinish", job.dateFinish},
          {"status", job.status},
          {"jobFlag", job.jobFlag},
          {"insertType", job.insertType},
          {"fileSize", job.fileSize},
          {"rotation", job.rotation},
          {"duration", job.duration},
          {"width", job.width},
          {"height", job.height},
          {"aid", job.aid},
          {"sid", job.sid},
          {"subtitle", job.subtitle},
          {"subSize", job.subSize},
          {"subSeek", job.subSeek},
          {"subColor", job.subColor},
          {"priority", job.priority},
          {"hwStart", job.hwStart},
          {"mediaType", job.mediaType},
          {"rank", job.rank},
          {"vid", job.vid}};
}

std::string jsonText(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

bool JsonPage::add(const nlohmann::json& row) {
  const std::string text = jsonText(row);
  const size_t comma = m_rows > 0 ? 1 : 0;
  if (m_text.size() + comma + text.size() + 1 > m_maxBytes) return false;
  if (comma != 0) m_text += ',';
  m_text += text;
  ++m_rows;
  return true;
}

namespace {

void putNumber(KxSockData_s& record, size_t block, int32_t value) {
  memcpy(record.block[block], &value, sizeof value);
}

bool writeAll(int fd, const void* data, size_t size) {
  const char* at = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t count = send(fd, at, size, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    at += count;
    size -= static_cast<size_t>(count);
  }
  return true;
}

}  // namespace

bool sendAnswer(int fd, int32_t command, const Answer& answer) {
  auto record = std::make_unique<KxSockData_s>();
  putNumber(*record, 0, command);
  putNumber(*record, 1, answer.result);
  putNumber(*record, 2, answer.value2);
  putNumber(*record, 3, answer.value3);
  const size_t length = std::min(answer.text.size(), KxSockData_s::kTextSize - 1);
  memcpy(reinterpret_cast<char*>(record.get()) +
             KxSockData_s::kTextBlock * KxSockData_s::kBlockSize,
         answer.text.data(), length);
  return writeAll(fd, record.get(), sizeof *record);
}

}  // namespace xcoded
