#pragma once
/// @file
/// Who uses a transcoding resource.

#include <cstdint>
#include <string>

#include "KxDBTask.h"

/// Types of transcoding resource. Types 2 to 5 are hardware.
enum KxRes2_e : int32_t {
  RES2_NONE = 0,          ///< no type; nothing valid has it
  RES2_SW_CPU = 1,        ///< software on the host CPU, id "sw_cpu"
  RES2_GPU_INTERNAL = 2,  ///< GPU that the accelerator tool calls internal
  RES2_GPU_EXTERNAL = 3,  ///< GPU that the accelerator tool calls external
  RES2_ARM_RTK = 4,       ///< on-chip engine of platform type 15, id "arm.rtk"
  RES2_ARM_RK = 5,        ///< on-chip engine of platform type 16, id "arm.rk"
};

/// What a registration is for. Other non-zero values are the registering process's own.
enum KxRegJobType_e : int32_t {
  REGJOB_NONE = 0,  ///< not a registration
  REGJOB_UNIT = 2,  ///< a transcode unit works on a job
};

/// Descriptive details of a registration. A plain value.
class KxRegInfo {
 public:
  KxRegInfo();
  /// Empties all texts and sets all numbers to 0.
  void clear();
  /// Writes the fields to the log.
  void dump();

  std::string m_srcPath;   ///< source file being transcoded
  int32_t m_srcWidth;      ///< pixels
  int32_t m_srcHeight;     ///< pixels
  int32_t m_pid;           ///< process id of the requester
  int64_t m_startTime;     ///< seconds since the epoch; only stored and shown here
  int64_t m_configMask;    ///< profiles asked for; only stored and shown here
  std::string m_ip;        ///< address of the requester
  std::string m_username;  ///< name of the requester
  std::string m_tag;       ///< whatever the requester calls itself
};

/// One registration on a resource: a unit's job or an outside process. A plain value.
class KxRegister {
 public:
  KxRegister();
  /// Registration of an outside process.
  /// @param resType type of the resource, not RES2_NONE
  /// @param resId id of the resource, not empty
  /// @param jobType not REGJOB_NONE
  /// @param pid process id, above 0
  /// @return 0; or 1 with the record untouched when an argument is not valid
  int init(KxRes2_e resType, std::string resId, KxRegJobType_e jobType, int pid, KxRegInfo info);
  /// Registration of a job; `m_pid` stays -1.
  /// @param job copied whole, not empty
  /// @return 0; or 1 with the record untouched when an argument is not valid
  int init(KxRes2_e resType, std::string resId, KxRegJobType_e jobType, const KxDBTask& job,
           KxRegInfo info);
  void clear();
  /// Compares everything but `regInfo`; jobs by their own equality.
  bool operator==(const KxRegister& other) const;
  /// Writes the record, its job and its details to the log.
  void dump();

  bool isEmpty;              ///< true until init()
  KxRegJobType_e m_jobType;  ///< what it is for
  KxRes2_e m_resType;        ///< type of the resource
  std::string m_resId;       ///< `id` of the resource
  int32_t m_pid;             ///< outside user, -1 for a unit
  KxDBTask task;             ///< job of a unit, empty for an outside user
  KxRegInfo regInfo;         ///< details for display

 private:
  static bool canRegister(KxRes2_e resType, const std::string& resId, KxRegJobType_e jobType);
  void set(KxRes2_e resType, std::string resId, KxRegJobType_e jobType, KxRegInfo info);
};
