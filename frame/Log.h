#pragma once
// The service log. A module defines its source name once, before its functions:
//
//   static constexpr const char* kLogSource = "SocketMgr";
//
// and logs with KX_LOG("text %d\n", n), or KX_LOG_LEVEL(2, ...) where the level matters.

#include <cerrno>
#include <cstring>

#include "KxHostPlatform.h"

#define KX_LOG_LEVEL(level, ...)                                                                   \
  myDebugUtilWrapperPrint((level), 0, kLogSource, __LINE__, __func__, __VA_ARGS__)
#define KX_LOG(...) KX_LOG_LEVEL(5, __VA_ARGS__)

// The same from a private helper of the function that the message belongs to.
#define KX_LOG_AS(func, ...)                                                                       \
  myDebugUtilWrapperPrint(5, 0, kLogSource, __LINE__, (func), __VA_ARGS__)

// A message that ends in ", errno=%d, strerror=%s\n". The text is a literal.
#define KX_LOG_ERRNO(text, ...)                                                                    \
  KX_LOG(text ", errno=%d, strerror=%s\n" __VA_OPT__(, ) __VA_ARGS__, errno, strerror(errno))
#define KX_LOG_ERRNO_AS(func, text, ...)                                                           \
  KX_LOG_AS(func, text ", errno=%d, strerror=%s\n" __VA_OPT__(, ) __VA_ARGS__, errno,              \
            strerror(errno))
