#pragma once
/// @file
/// System utilities that every other module uses. All functions are reentrant and none throws.

#include <pthread.h>

#include <string>
#include <vector>

std::string int_to_str(int value);
std::string double_to_str(double value);
int miscGetKXPKGInfo(std::string section, std::string key, std::string& value);
int miscGetHDDPath(std::string& path);
int miscGenUniqueFileName(std::string& name);
void miscPrintCmdVec(std::vector<std::string> cmd);

int miscMutexInit(pthread_mutex_t& mutex, pthread_mutexattr_t* attr);
int miscMutexDestroy(pthread_mutex_t& mutex);
int miscMutexLock(pthread_mutex_t& mutex);
int miscMutexUnLock(pthread_mutex_t& mutex);
int miscMutexTryLock(pthread_mutex_t& mutex);
int miscRWLockInit(pthread_rwlock_t& lock, pthread_rwlockattr_t* attr);
int miscRWLockDestroy(pthread_rwlock_t& lock);
int miscRWLockRdLock(pthread_rwlock_t& lock);
int miscRWLockWrLock(pthread_rwlock_t& lock);
int miscRWLockTryRdLock(pthread_rwlock_t& lock);
int miscRWLockTryWrLock(pthread_rwlock_t& lock);
int miscRWLockUnLock(pthread_rwlock_t& lock);

int miscLaunchCmdNoWait(std::vector<std::string> cmd, std::string logFile);
int miscAnalysisRet(int status);
int checkSystemReturn(int status);

bool miscCompareModTime(std::string a, std::string b);
int miscSetSameModTime(std::string src, std::string dst);
bool isValidDirName(std::string name);
bool isValidPath(std::string path);
std::string convertFolderPath(std::string path);
bool isdir(std::string path);
bool miscStripSlashes(char a, char b);

/// Puts a private root in front of the service's fixed paths (configuration, shares and
/// helper programs). Empty, the default, leaves every path as it stands. Set it before the
/// first use of any singleton. Not thread-safe.
void miscSetSystemRoot(const std::string& root);
/// @return @p path below the root set with miscSetSystemRoot().
std::string miscSystemPath(const char* path);
