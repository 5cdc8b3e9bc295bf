#pragma once

#include <functional>
#include <string>

namespace kxhost {

// One message of the service log as the library handed it over.
struct LogRecord {
  int level;
  std::string source;
  int line;
  std::string func;
  std::string text;
};

// Receives every message, from whatever thread logs, one at a time.
using LogSink = std::function<void(const LogRecord&)>;

// Replaces what happens to messages; an empty sink restores the default (standard error).
void setLogSink(LogSink sink);

}  // namespace kxhost
