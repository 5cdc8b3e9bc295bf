#include "cli/ControlClient.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace xcodectl {

Request::Request(KxCommand_e command)
    : m_command(command), m_record(std::make_shared<KxSockData_s>()) {
  std::memset(m_record.get(), 0, sizeof *m_record);
  number(0, command);
}

Request& Request::number(size_t block, int32_t value) {
  std::memcpy(m_record->block[block], &value, sizeof value);
  return *this;
}

Request& Request::text(size_t block, const std::string& value) {
  if (value.size() >= KxSockData_s::kBlockSize)
    throw Failure(kExitUsage, "Text too long for a request: " + value.substr(0, 80) + "...");
  std::memcpy(m_record->block[block], value.c_str(), value.size() + 1);
  return *this;
}

Request& Request::json(const nlohmann::json& value) {
  std::string text;
  try {
    text = value.dump();
  } catch (const nlohmann::json::exception&) {
    throw Failure(kExitUsage, "A name on the command line is not valid UTF-8");
  }
  if (text.size() >= KxSockData_s::kTextSize) throw Failure(kExitUsage, "The request is too long");
  std::memcpy(m_record->block[KxSockData_s::kTextBlock], text.c_str(), text.size() + 1);
  return *this;
}

int32_t Answer::number(size_t block) const {
  int32_t value = 0;
  std::memcpy(&value, m_record->block[block], sizeof value);
  return value;
}

nlohmann::json Answer::json() const {
  const char* text = m_record->block[KxSockData_s::kTextBlock];
  const size_t length = strnlen(text, KxSockData_s::kTextSize);
  if (length == 0) return nullptr;
  auto value = nlohmann::json::parse(text, text + length, nullptr, false);
  if (value.is_discarded()) throw Failure(kExitBadAnswer, "The service's answer is not readable");
  return value;
}

std::unique_ptr<SocketMgr> ControlClient::send(const Request& request) const {
  auto socket = std::make_unique<SocketMgr>();
  if (socket->init(m_socketPath, false) != 0)
    throw Failure(kExitNoService, "Cannot use the socket path '" + m_socketPath + "'");
  errno = 0;
  if (socket->Connect(m_timeoutSeconds, 0) != 0) {
    const int error = errno;
    if (error == EACCES || error == EPERM)
      throw Failure(kExitRefused, "No permission to reach the service at " + m_socketPath);
    throw Failure(kExitNoService, "The service is not running: nobody answers at " + m_socketPath +
                                      " (" + std::strerror(error) + ")");
  }
  // The record is only read; the interface of the socket class takes a plain pointer.
  auto* record = const_cast<KxSockData_s*>(&request.record());
  if (socket->Write(record, sizeof *record, -1) != static_cast<int>(sizeof *record))
    throw Failure(kExitBadAnswer, "The service closed the connection before the whole request");
  return socket;
}

Answer ControlClient::ask(const Request& request) const {
  auto socket = send(request);
  auto record = std::make_shared<KxSockData_s>();
  const int count = socket->ReadStruct(record.get(), sizeof *record, -1);
  if (count == 0)
    throw Failure(kExitBadAnswer, "The service closed the connection without a whole answer");
  if (count != static_cast<int>(sizeof *record)) {
    throw Failure(kExitBadAnswer,
                  "No answer from the service within " + std::to_string(m_timeoutSeconds) + " s");
  }
  Answer answer(record);
  if (answer.number(0) != request.command())
    throw Failure(kExitBadAnswer, "The service answered a different request");
  return answer;
}

Answer ControlClient::demand(const Request& request) const {
  Answer answer = ask(request);
  if (answer.result() == 0) return answer;
  const nlohmann::json text = answer.json();
  std::string reason = "The service could not do that";
  ExitCode code = kExitFailed;
  if (text.is_object()) {
    reason = text.value("error", reason);
    if (reason == "permission denied") code = kExitRefused;
  }
  throw Failure(code, reason);
}

void ControlClient::tell(const Request& request) const {
  send(request);
}

std::string ControlClient::read(const Request& request) const {
  auto socket = send(request);
  std::string text;
  char buffer[4096];
  int count;
  while ((count = socket->Read(buffer, sizeof buffer, -1)) > 0)
    text.append(buffer, static_cast<size_t>(count));
  if (count < 0) {
    throw Failure(kExitBadAnswer,
                  "No answer from the service within " + std::to_string(m_timeoutSeconds) + " s");
  }
  return text;
}

}  // namespace xcodectl
