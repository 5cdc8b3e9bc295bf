#pragma once
/// @file
/// One transcoding resource and its registrations.

#include <cstdint>
#include <string>
#include <vector>

#include "KxRegister.h"

/// The CPU, an on-chip engine or a GPU card. A plain value without locking; the resource
/// manager changes its own records only under its mutex and hands out copies.
class KxResource2 {
 public:
  KxResource2();
  /// Sets the six describing fields; the registrations stay as they are.
  /// @param newId unique key, not empty
  /// @param type not RES2_NONE
  /// @param vendor, device, number texts of the accelerator tool; empty for built-in resources
  /// @param mode capability number of the accelerator tool; 0 for built-in resources
  /// @return 0; or 1 with the record untouched when an argument is not valid
  int init(std::string newId, KxRes2_e type, std::string vendor, std::string device, int mode,
           std::string number);
  /// Empties the record and drops its registrations.
  void clear();
  /// Compares everything but the registrations.
  bool operator==(const KxResource2& other) const;
  /// Appends a copy; there is no limit and no check for duplicates.
  /// @return 0; 1 for an empty registration
  int addRegInfo(KxRegister& entry);
  /// Removes every registration with the same resource, pid and job, whatever its job type.
  /// @return 0, also when there was none
  int rmRegInfo(KxRegister& entry);
  /// Removes every registration of an outside process. Pass only pids above 0: -1 stands in
  /// the registrations of all units. @return 0, also when there was none
  int rmRegInfo(int pid);
  /// Removes every registration of a job. @return 0, also when there was none
  int rmRegInfo(KxDBTask& task);
  /// Writes the record and its registrations to the log.
  void dump();

  bool isEmpty;                 ///< true until init()
  std::string id;               ///< unique key
  KxRes2_e resType;             ///< kind of resource
  std::string vendorName;       ///< from the accelerator tool
  std::string devName;          ///< from the accelerator tool
  int32_t modeSupport;          ///< capability number of the accelerator tool
  std::string devNumber;        ///< from the accelerator tool
  std::vector<KxRegister> reg;  ///< current registrations, oldest first
};
