#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include "KxAbstractTranscodeSvr.h"
#include "KxCommand.h"

namespace xcodectl {

// Exit codes of the program. They are part of its interface; see the man page.
enum ExitCode : int {
  kExitOk = 0,
  kExitFailed = 1,     // the service could not do it
  kExitUsage = 2,      // the command line is wrong
  kExitNoService = 3,  // nobody listens on the control socket
  kExitRefused = 4,    // the service does not allow it to this user
  kExitBadAnswer = 5,  // the answer was short or made no sense
  kExitJobFailed = 6,  // wait: a job failed
  kExitJobGone = 7,    // wait: a job was cancelled or deleted
};

// A failure with the exit code that belongs to it.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode code, const std::string& what) : std::runtime_error(what), m_code(code) {}
  ExitCode code() const { return m_code; }

 private:
  ExitCode m_code;
};

// One request record, filled block by block.
class Request {
 public:
  explicit Request(KxCommand_e command);
  Request& number(size_t block, int32_t value);
  // A NUL-terminated text of one block. Throws Failure when it does not fit.
  Request& text(size_t block, const std::string& value);
  // A JSON object in the text blocks. Throws Failure when it does not fit.
  Request& json(const nlohmann::json& value);

  KxCommand_e command() const { return m_command; }
  const KxSockData_s& record() const { return *m_record; }

 private:
  KxCommand_e m_command;
  std::shared_ptr<KxSockData_s> m_record;
};

// One answer record.
class Answer {
 public:
  explicit Answer(std::shared_ptr<KxSockData_s> record) : m_record(std::move(record)) {}
  int32_t number(size_t block) const;
  int32_t result() const { return number(1); }
  // The JSON of the text blocks; null when there is no text. Throws Failure when it is not JSON.
  nlohmann::json json() const;

 private:
  std::shared_ptr<KxSockData_s> m_record;
};

// Talks to the service: one connection, one request, one answer. Every call throws Failure
// when the service is not there, refuses, or answers short.
class ControlClient {
 public:
  ControlClient(std::string socketPath, int timeoutSeconds)
      : m_socketPath(std::move(socketPath)), m_timeoutSeconds(timeoutSeconds) {}

  // Sends a request and returns its answer, whatever the result in it.
  Answer ask(const Request& request) const;
  // The same; a result other than 0 throws with the service's own words.
  Answer demand(const Request& request) const;
  // A request that gets no answer (the dumps).
  void tell(const Request& request) const;
  // A request whose answer is a bare text up to the end of the stream.
  std::string read(const Request& request) const;

 private:
  std::unique_ptr<SocketMgr> send(const Request& request) const;

  std::string m_socketPath;
  int m_timeoutSeconds;
};

}  // namespace xcodectl
