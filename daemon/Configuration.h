#pragma once

#include <chrono>
#include <string>

namespace xcoded {

// What the command line says.
struct CommandLine {
  std::string root;    // folder put before the fixed paths; empty: none
  std::string socket;  // control socket; empty: the default below the root
  bool foreground = false;
};

// Everything the daemon is configured with. A plain value, read once at the start;
// docs/configuration.md describes the keys.
struct Configuration {
  // Reads the configuration file below the root that miscSetSystemRoot() has set. A value
  // out of range is logged and replaced by its default.
  static Configuration read(const CommandLine& line);

  std::string confFile;
  std::string socketPath;
  std::string lockPath;
  std::string dbPath;
  std::string workingPath;
  std::string folderFile;         // watched folders
  std::string libraryFolderFile;  // the media library's folder file
  std::string logFile;            // empty: none
  int logLevel = 5;
  std::string cgroupName;
  std::string allowGroup;  // group name or number; empty: none
  int maxUnits = 0;        // 0: chosen from the machine
  int maxClients = 32;
  int minFreeMb = -1;  // -1: the server's own rule
  bool extraTranscode = false;
  std::chrono::seconds settleTime{3};   // that a watched file must be at rest
  std::chrono::seconds recordTime{10};  // for one record to arrive or to be taken
};

// Creates a folder with its parents. False, with a message on standard error, on failure.
bool makeFolder(const std::string& path);

}  // namespace xcoded
