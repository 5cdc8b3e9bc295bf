#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "KxDBTask.h"
#include "resources/OutputPlacement.h"

// What a job that goes by pieces keeps for its next run, in a folder of its own among the work
// folders: "checkpoint_<job>_<hash of the source's path>". Everything in it came there complete,
// checked, written to the disk and by rename, and is known again by a sum of its bytes, so that
// what a power cut did to it all the same is noticed. It belongs to one job and one state of its
// source; it goes when the job ends, and when the job is gone.

namespace runner {

class Checkpoint {
 public:
  // Opens the folder of a job; one that was made from another state of the source is emptied
  // first. Nothing when there is no place for it.
  // @param parameters what all its contents depend on, one line
  static std::optional<Checkpoint> open(const KxDBTaskParam& job, const SourceStamp& source,
                                        const std::string& parameters);

  std::string path(const std::string& name) const { return m_folder + name; }
  // True when a kept file is there with the very bytes that it had when it was kept.
  // @param goOn ends the reading, which may take its time, when it turns false
  bool isWhole(const std::string& name, const std::function<bool()>& goOn) const;
  // The folder of one kind of content, emptied when it was made with other parameters. False
  // when it cannot be made. @param name with trailing "/"
  bool openPart(const std::string& name, const std::string& parameters) const;

  // A name in the folder for a file under construction; not trusted, removed by the next open().
  std::string newName(const std::string& name) const;
  // Writes a finished file to the disk and gives it its name. @param from on the same volume
  // @param goOn as in isWhole()
  bool keep(const std::string& from, const std::string& name,
            const std::function<bool()>& goOn) const;
  // The same for a text that the caller knows a damaged form of.
  bool keepText(const std::string& text, const std::string& name) const;
  // Removes a kept file, or a part with all that it holds.
  void remove(const std::string& name) const;
  // The contents of a kept text; empty when there is none.
  std::string text(const std::string& name) const;
  // Bytes of everything in it.
  int64_t size() const;

 private:
  explicit Checkpoint(std::string folder) : m_folder(std::move(folder)) {}
  bool prepare(const std::string& owner) const;
  bool place(const std::string& from, const std::string& name,
             const std::function<bool()>& goOn) const;
  void removeNew(const std::string& below) const;

  std::string m_folder;  // with trailing "/"
};

// Removes what a job has kept.
void removeCheckpoints(int64_t job);

}  // namespace runner
