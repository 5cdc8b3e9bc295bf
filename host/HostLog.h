#pragma once
/// @file
/// Where the messages of the service go. Everything is logged through
/// myDebugUtilWrapperPrint(); the host decides here what becomes of it.

#include <cstddef>
#include <functional>
#include <string>

namespace kxhost {

/// One message of the service log as the library handed it over.
struct LogRecord {
  int level;
  std::string source;
  int line;
  std::string func;
  std::string text;
};

/// Receives every message, from whatever thread logs, one at a time. It must not log itself.
using LogSink = std::function<void(const LogRecord&)>;

/// Replaces what happens to messages, whatever their level; an empty sink restores the
/// targets of configureLog() (standard error by default).
void setLogSink(LogSink sink);

/// Targets of the service log.
struct LogSettings {
  std::string file;                    ///< rotating log file; empty for none
  std::size_t maxFileBytes = 4 << 20;  ///< size at which the file is rotated
  std::size_t oldFiles = 3;            ///< rotated files that are kept
  bool standardError = true;           ///< also write to standard error
  int level = 5;                       ///< highest level that is written, 2..5
};

/// Opens the targets of the log. Call it again in a process that forked itself into the
/// background: the forked process writes plain lines to standard error or the log file until
/// then, as every child does between fork and exec.
/// @return 0, or 1 when the file cannot be opened (standard error is used then)
int configureLog(const LogSettings& settings);

/// Changes the highest level that is written.
void setLogLevel(int level);

/// A message as one printable line: line ends at its end are dropped, control characters are
/// written as "\n", "\t" or "\x1b", everything else stays.
std::string printableLine(const std::string& text);

}  // namespace kxhost
