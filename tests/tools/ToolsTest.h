#pragma once

#include <string>
#include <vector>

#include "host/ProgramRun.h"
#include "tests/support/TestSupport.h"

namespace kxtest {

// A private system root with the shipped configuration and programs.
class StagedRoot {
 public:
  StagedRoot() {
    m_staged =
        run({std::string(KX_SOURCE_DIR) + "/scripts/stage-root", path(), KX_BUILD_DIR}).has_value();
  }

  bool staged() const { return m_staged; }
  std::string path() const { return m_dir / "root"; }
  std::string file(const std::string& fixedPath) const { return path() + fixedPath; }
  std::string program(const std::string& name) const {
    return file("/usr/local/medialibrary/bin/" + name);
  }

 private:
  TempDir m_dir;
  bool m_staged = false;
};

inline ExecResult runTool(std::vector<std::string> argv) {
  return kxhost::runProgram(argv, {std::chrono::seconds(60), 1 << 20});
}

}  // namespace kxtest
