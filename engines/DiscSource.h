#pragma once

#include <optional>
#include <string>
#include <vector>

#include "KxMediainfo.h"
#include "engines/DiscMount.h"
#include "engines/DiscTitle.h"
#include "engines/OpeningWatch.h"

namespace engines {

// What a source path stands for: a plain file, or the main title of a disc folder or of a disc
// image, which is mounted as long as this object lives.
//
// Used from one thread.
class DiscSource {
 public:
  // Mounts an image and looks for a disc; what was attached before is released. From here to
  // the end of probe() whatever reads from a mounted image that does not answer gets an error
  // when the thread's work has to end, or when it takes too long.
  // @return 0, or 1 when the image cannot be mounted
  int attach(const std::string& path);
  // Probes what was attached. @return 0, or 1 when it is nothing that can be probed
  int probe(KxMediaInfo& info);

  // The source on the host: the path itself, or the folder of the mounted image.
  const std::string& hostPath() const { return m_hostPath; }
  // The same as the codec add-on sees it.
  const std::string& addOnPath() const { return m_addOnPath; }
  // Files of the main title in playing order; none for a source that is no disc.
  std::vector<std::string> titleFiles() { return m_title.files(); }
  // The input argument of the software encoder; empty when the files of the title cannot be
  // named in one argument.
  std::string encoderInput();
  // Releases what is mounted, once. 0 when all went well.
  int release() { return m_mount.release(); }

 private:
  DiscMount m_mount;
  std::optional<OpeningWatch> m_watch;  // of an image, between attach() and probe()
  DiscTitle m_title;
  bool m_isDisc = false;
  std::string m_hostPath;
  std::string m_addOnPath;
};

}  // namespace engines
