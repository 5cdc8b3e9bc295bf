#include "daemon/Configuration.h"

#include <filesystem>

#include "KxHostPlatform.h"
#include "Misc.h"
#include "frame/Log.h"

namespace xcoded {
namespace {

constexpr const char* kLogSource = "xcoded";
constexpr const char* kSection = "TRANSCODESVR";

class KeyReader {
 public:
  explicit KeyReader(const std::string& file) : m_file(file) {}

  int number(const char* key, int def, int min, int max) const {
    const int value = MyUtil_GetKeyInt(kSection, key, def, m_file.c_str());
    if (value == def || (value >= min && value <= max)) return value;
    KX_LOG_LEVEL(3, "%s=%d in %s is not between %d and %d, we use %d\n", key, value, m_file.c_str(),
                 min, max, def);
    return def;
  }

  std::string text(const char* key, const std::string& def) const {
    char buffer[1024];
    if (!MyUtil_GetKeyStr(kSection, key, def.c_str(), buffer, sizeof buffer, m_file.c_str()) ||
        buffer[0] == '\0')
      return def;
    return buffer;
  }

 private:
  std::string m_file;
};

}  // namespace

Configuration Configuration::read(const CommandLine& line) {
  Configuration conf;
  conf.confFile = miscSystemPath("/etc/config/medialibrary.conf");
  const KeyReader keys(conf.confFile);
  conf.socketPath = line.socket.empty() ? miscSystemPath("/run/xcode/control.sock") : line.socket;
  conf.lockPath = miscSystemPath("/run/xcode/xcoded.lock");
  conf.dbPath = keys.text("DB_PATH", miscSystemPath("/var/lib/xcode/jobs.db"));
  conf.workingPath = miscSystemPath("/var/lib/xcode");
  conf.folderFile = miscSystemPath("/etc/config/xcodesvr.xml");
  conf.libraryFolderFile = miscSystemPath("/etc/config/mediadb.xml");
  conf.logFile =
      keys.text("LOG_FILE", line.foreground ? "" : miscSystemPath("/var/log/xcode/xcoded.log"));
  conf.logLevel = keys.number("LOG_LEVEL", 5, 2, 5);
  conf.cgroupName = keys.text("CGROUP_NAME", "xcode");
  if (conf.cgroupName.find('/') != std::string::npos || conf.cgroupName.find("..") == 0) {
    KX_LOG_LEVEL(3, "CGROUP_NAME=%s is not a plain name, we use xcode\n", conf.cgroupName.c_str());
    conf.cgroupName = "xcode";
  }
  conf.allowGroup = keys.text("ALLOW_GROUP", "");
  conf.maxUnits = keys.number("MAX_UNITS", 0, 1, 64);
  conf.maxClients = keys.number("MAX_CLIENTS", conf.maxClients, 1, 256);
  conf.minFreeMb = keys.number("MIN_FREE_MB", -1, 0, 1 << 30);
  conf.settleTime = std::chrono::seconds(keys.number("SETTLE_SEC", 3, 1, 3600));
  conf.recordTime = std::chrono::seconds(keys.number("RECORD_SEC", 10, 1, 600));
  conf.extraTranscode = keys.number("ENABLE_EXTRA_TRANSOCDE", 0, 0, 1) != 0;
  return conf;
}

bool makeFolder(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (!error) return true;
  fprintf(stderr, "xcoded: cannot create %s: %s\n", path.c_str(), error.message().c_str());
  return false;
}

}  // namespace xcoded
