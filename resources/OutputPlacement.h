#pragma once

#include <sys/stat.h>

#include <functional>
#include <optional>
#include <string>

#include "frame/UniqueFd.h"
#include "resources/OutputNames.h"

// Puts results in place. The folders lie where users may write, so everything in them is
// reached through descriptors of the folders and no link is followed on the way.

namespace runner {

// A folder below a source's folder, held open.
class OutputFolder {
 public:
  OutputFolder() = default;
  // Opens @p below (with trailing "/") of @p base and makes what is missing. A link or a file
  // in the way is refused. Not valid on failure, with errno set.
  static OutputFolder make(const std::string& base, const std::string& below);

  bool valid() const { return static_cast<bool>(m_fd); }
  int fd() const { return m_fd.get(); }
  std::string pathOf(const std::string& name) const { return m_path + name; }

  // The entry itself, not what a link points to. Nothing when there is none; errno tells why.
  std::optional<struct stat> find(const std::string& name) const;
  bool remove(const std::string& name) const;
  // The contents of a link; empty when the entry is none.
  std::string readLink(const std::string& name) const;

 private:
  UniqueFd m_fd;
  std::string m_path;
};

// Identity of a source's contents as far as stat can tell.
struct SourceStamp {
  int64_t modifiedNs = 0;
  int64_t modified = 0;  // seconds
  int64_t size = 0;

  bool operator==(const SourceStamp&) const = default;
};
std::optional<SourceStamp> stampOf(const std::string& path);

// A result under construction; removed with its remuxed form unless it was put in place.
class TemporaryFile {
 public:
  // @param extension with its dot
  TemporaryFile(const OutputFolder& folder, const std::string& extension);
  ~TemporaryFile();
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  std::string path() const { return m_folder.pathOf(m_name); }
  // Where the remux of the file is written.
  std::string remuxPath() const { return m_folder.pathOf(remuxName()); }
  // Removes what an earlier attempt left.
  void clear();
  // Renames the remuxed form over the file, and logs how that went.
  bool takeRemux();
  // Renames the file into another folder of the volume.
  // @return 0 or the error number
  int moveTo(const OutputFolder& folder, const std::string& name);

 private:
  std::string remuxName() const;
  void removeIfThere(const std::string& name);

  const OutputFolder& m_folder;
  std::string m_name;
};

// Where one profile of a video goes: the result in "@Transcode/" and a link to it beside the
// thumbnails. Whatever is there stays until its replacement is complete.
class VideoPlacement {
 public:
  VideoPlacement(const SourceName& source, const OutputFolder& visible, const OutputFolder& links,
                 const std::string& profile, int rotation);

  // Why no result can be put there at all; empty when it can.
  std::string obstacle() const;
  // Names the results of other rotations, which make way once this one is complete.
  void noteStaleRotations() const;
  // True when the result is there already, made from this very source and usable, and the
  // link leads to it.
  bool reuse(const SourceStamp& source, const std::function<bool(const std::string&)>& isUsable);
  // Moves a finished file into place. @return the reason of a failure, else empty
  std::string put(TemporaryFile& file);

 private:
  void replaceLink();
  int makeLink();
  void removeStaleRotations() const;
  template <typename Visit>
  void forEachStaleRotation(Visit visit) const;

  const SourceName& m_source;
  const OutputFolder& m_visible;
  const OutputFolder& m_links;
  std::string m_profile;
  int m_rotation;
  std::string m_name;
  std::string m_link;
};

// Where the sound of a video goes.
class AudioPlacement {
 public:
  AudioPlacement(const SourceName& source, const OutputFolder& folder);

  std::string obstacle() const;
  bool reuse(const SourceStamp& source,
             const std::function<bool(const std::string&)>& isUsable) const;
  std::string put(TemporaryFile& file) const;

 private:
  const SourceName& m_source;
  const OutputFolder& m_folder;
  std::string m_name;
};

}  // namespace runner
