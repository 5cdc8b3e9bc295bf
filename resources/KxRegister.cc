#include "KxRegister.h"

#include <utility>

#include "frame/Log.h"

static constexpr const char* kLogSource = "KxRegister";

KxRegInfo::KxRegInfo() {
  clear();
}

void KxRegInfo::clear() {
  m_srcPath.clear();
  m_srcWidth = 0;
  m_srcHeight = 0;
  m_pid = 0;
  m_startTime = 0;
  m_configMask = 0;
  m_ip.clear();
  m_username.clear();
  m_tag.clear();
}

void KxRegInfo::dump() {
  KX_LOG("m_srcPath=%s, m_srcWidth=%d, m_srcHeight=%d, m_pid=%d, m_startTime=%ld, "
         "m_configMask=%ld, m_ip=%s, m_username=%s, m_tag=%s\n",
         m_srcPath.c_str(), m_srcWidth, m_srcHeight, m_pid, static_cast<long>(m_startTime),
         static_cast<long>(m_configMask), m_ip.c_str(), m_username.c_str(), m_tag.c_str());
}

KxRegister::KxRegister() {
  clear();
}

int KxRegister::init(KxRes2_e resType, std::string resId, KxRegJobType_e jobType, int pid,
                     KxRegInfo info) {
  if (pid <= 0 || !canRegister(resType, resId, jobType)) {
    KX_LOG("KxRegister init fail\n");
    return 1;
  }
  set(resType, std::move(resId), jobType, std::move(info));
  m_pid = pid;
  return 0;
}

int KxRegister::init(KxRes2_e resType, std::string resId, KxRegJobType_e jobType,
                     const KxDBTask& job, KxRegInfo info) {
  if (job.isEmpty || !canRegister(resType, resId, jobType)) {
    KX_LOG("KxRegister init fail\n");
    return 1;
  }
  const KxDBTask copy = job;  // it may be this record's own
  set(resType, std::move(resId), jobType, std::move(info));
  task = copy;
  return 0;
}

bool KxRegister::canRegister(KxRes2_e resType, const std::string& resId, KxRegJobType_e jobType) {
  return resType != RES2_NONE && !resId.empty() && jobType != REGJOB_NONE;
}

void KxRegister::set(KxRes2_e resType, std::string resId, KxRegJobType_e jobType, KxRegInfo info) {
  clear();
  isEmpty = false;
  m_jobType = jobType;
  m_resType = resType;
  m_resId = std::move(resId);
  regInfo = std::move(info);
}

void KxRegister::clear() {
  isEmpty = true;
  m_jobType = REGJOB_NONE;
  m_resType = RES2_NONE;
  m_resId.clear();
  m_pid = -1;
  task.clear();
  regInfo.clear();
}

bool KxRegister::operator==(const KxRegister& other) const {
  return isEmpty == other.isEmpty && m_jobType == other.m_jobType && m_resType == other.m_resType &&
         m_resId == other.m_resId && m_pid == other.m_pid && task == other.task;
}

void KxRegister::dump() {
  KX_LOG("---KxRegister:\n");
  KX_LOG("m_jobType=%d, m_resType=%d, m_resId=%s, m_pid=%d\n", static_cast<int>(m_jobType),
         static_cast<int>(m_resType), m_resId.c_str(), m_pid);
  task.dump();
  regInfo.dump();
}
