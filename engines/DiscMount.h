#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace engines {

// Owns the mounts of one disc image: on the host and, when the codec add-on is installed,
// inside its environment. What is mounted is released by the destructor.
//
// Used from one thread, but for abandon(). Messages are logged under the operations of the
// transcoder that they belong to ("init", "umountIso_").
class DiscMount {
 public:
  DiscMount() = default;
  ~DiscMount();
  DiscMount(const DiscMount&) = delete;
  DiscMount& operator=(const DiscMount&) = delete;

  // Mounts the image. 0 on success; after a failure what was mounted stays owned.
  int mount(const std::string& image);
  // Releases both mounts, once. 0 when there was nothing to release or all went well.
  int release();

  // Makes every access to what is mounted fail, also one under way, because its result is no
  // longer wanted; nothing can be mounted any more. Called from any thread.
  void abandon();

  // Folder of the disc's files on the host, with trailing "/".
  const std::string& hostFolder() const { return m_hostFolder; }
  // The same folder through the add-on's mount as the host sees it; the host folder when
  // the add-on is absent.
  const std::string& addOnFolder() const { return m_addOnFolder; }

 private:
  int mountOnHost(const std::string& image);
  int mountInAddOn(const std::string& image);
  // False when everything was abandoned before.
  bool noteMount(const std::string& onHost);

  std::string m_mountPoint;   // empty when nothing is mounted
  std::string m_chrootPath;   // root of the add-on's environment
  std::string m_chrootMount;  // relative to it; empty when nothing is mounted
  std::string m_hostFolder;
  std::string m_addOnFolder;
  std::mutex m_mutex;  // guards the two below
  std::vector<std::string> m_mounts;
  bool m_isAbandoned = false;
};

}  // namespace engines
