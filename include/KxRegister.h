#pragma once
/// @file
/// Who uses a transcoding resource.

#include <cstdint>
#include <string>

#include "KxDBTask.h"

/// Types of transcoding resource. Types 2 to 5 are hardware.
enum KxRes2_e : int32_t {
  RES2_NONE = 0,
  RES2_SW_CPU = 1,
  RES2_GPU_INTERNAL = 2,
  RES2_GPU_EXTERNAL = 3,
  RES2_ARM_RTK = 4,
  RES2_ARM_RK = 5,
};

/// What a registration is for. Other non-zero values are the registering process's own.
enum KxRegJobType_e : int32_t { REGJOB_NONE = 0, REGJOB_UNIT = 2 };

/// Descriptive details of a registration. A plain value.
class KxRegInfo {
 public:
  KxRegInfo();
  void clear();
  void dump();

  std::string m_srcPath;
  int32_t m_srcWidth;   ///< pixels
  int32_t m_srcHeight;  ///< pixels
  int32_t m_pid;
  int64_t m_startTime;   ///< seconds since the epoch
  int64_t m_configMask;  ///< profiles asked for
  std::string m_ip;
  std::string m_username;
  std::string m_tag;
};

/// One registration on a resource: a unit's job or an outside process. A plain value.
class KxRegister {
 public:
  KxRegister();
  int init(KxRes2_e resType, std::string resId, KxRegJobType_e jobType, int pid, KxRegInfo info);
  int init(KxRes2_e resType, std::string resId, KxRegJobType_e jobType, const KxDBTask& task,
           KxRegInfo info);
  void clear();
  bool operator==(const KxRegister& other) const;
  void dump();

  bool isEmpty;
  KxRegJobType_e m_jobType;
  KxRes2_e m_resType;
  std::string m_resId;
  int32_t m_pid;  ///< outside user, -1 for a unit
  KxDBTask task;
  KxRegInfo regInfo;
};
