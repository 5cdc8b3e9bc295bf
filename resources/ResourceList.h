#pragma once

#include <string>
#include <vector>

#include "KxResource2.h"

// The resources and their registrations, in the order they were found. Not thread-safe: the
// resource manager's mutex guards it.
class ResourceList {
 public:
  const std::vector<KxResource2>& entries() const { return m_entries; }

  // Appends one of the resources that every machine of this kind has.
  // False when the id or the type is not valid.
  bool addBuiltIn(const std::string& id, KxRes2_e type);
  // Brings the GPU cards up to date; whatever stays keeps its place and its registrations.
  void reconcile(const std::vector<KxResource2>& cards);
  // nullptr when no resource has that id. Valid until the list changes.
  KxResource2* find(const std::string& id);
  void removeJob(KxDBTask& task);
  // Drops the registrations of outside processes that are gone.
  void removeDeadProcesses();
  void dump();

 private:
  std::vector<KxResource2> m_entries;
};
