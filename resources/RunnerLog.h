#pragma once
// Messages of the job runner. Whatever piece of it writes them, they carry the name of the
// unit's thread routine.

#include "frame/Log.h"

#define KX_RUNNER_LOG_LEVEL(level, ...)                                                            \
  myDebugUtilWrapperPrint((level), 0, "KxTranscodeUnit2", __LINE__, "unitBGTranscodeThread",       \
                          __VA_ARGS__)
#define KX_RUNNER_LOG(...) KX_RUNNER_LOG_LEVEL(5, __VA_ARGS__)
