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
  int init(std::string id, KxRes2_e resType, std::string vendorName, std::string devName,
           int modeSupport, std::string devNumber);
  void clear();
  bool operator==(const KxResource2& other) const;
  int addRegInfo(KxRegister& reg);
  int rmRegInfo(KxRegister& reg);
  int rmRegInfo(int pid);
  int rmRegInfo(KxDBTask& task);
  void dump();

  bool isEmpty;
  std::string id;
  KxRes2_e resType;
  std::string vendorName;
  std::string devName;
  int32_t modeSupport;
  std::string devNumber;
  std::vector<KxRegister> reg;
};
