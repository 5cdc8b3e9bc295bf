#include <utility>

#include "KxTranscoder.h"
#include "engines/PipeCopy.h"
#include "frame/Log.h"

static constexpr const char* kLogSource = "KxTranscoder";

void* FileOutputHelperFunc(void* arg) {
  if (arg == nullptr) {
    KX_LOG("arg == NULL\n");
    return nullptr;
  }
  const auto& helper = *static_cast<FileOutputHelper*>(arg);
  engines::PipeCopy(helper.m_source, helper.m_destination, helper.m_keep, helper.m_finishing)
      .run({});
  return nullptr;
}

FileOutputHelper::FileOutputHelper()
    : m_destination(nullptr), m_keep(false), m_started(false), m_finishing(true),
      m_tid(static_cast<pthread_t>(-1)) {}

FileOutputHelper::~FileOutputHelper() {
  if (!m_started) return;
  errno = pthread_join(m_tid, nullptr);
  if (errno != 0) KX_LOG_ERRNO("join tid=%ld fail", static_cast<long>(m_tid));
}

int FileOutputHelper::init(std::string source, FILE* destination) {
  if (source.empty() || destination == nullptr) {
    KX_LOG("FileOutputHelper init fail\n");
    return 1;
  }
  m_source = std::move(source);
  m_destination = destination;
  m_keep = true;
  m_finishing = false;
  return 0;
}

int FileOutputHelper::start() {
  if (!m_keep) {
    KX_LOG("m_keep=false, start fail\n");
    return 1;
  }
  if (m_started) {
    KX_LOG("already started, start fail\n");
    return 1;
  }
  errno = pthread_create(&m_tid, nullptr, FileOutputHelperFunc, this);
  if (errno != 0) {
    KX_LOG_ERRNO("pthread_create() fail");
    return 1;
  }
  m_started = true;
  return 0;
}

int FileOutputHelper::stop() {
  m_keep = false;
  return 0;
}

int FileOutputHelper::finish() {
  m_finishing = true;
  return 0;
}
