#pragma once
/// @file
/// System utilities that every other module uses: numbers as text, look-ups in the system's
/// configuration, lock calls that log their failures, child commands, path checks.
///
/// All functions are reentrant, and none throws. Failures are logged at level 5 with source
/// "Misc". Unless said otherwise an `int` result is 0 on success and 1 on failure.

#include <pthread.h>

#include <string>
#include <vector>

/// @return decimal text of @p value.
std::string int_to_str(int value);
/// @return text of @p value with at most six significant digits.
std::string double_to_str(double value);

/// Reads one key of the package information file "/etc/config/kxpkg.conf".
/// @param section name of the section; empty fails
/// @param key name of the key; empty fails
/// @param value receives the text (at most 1,023 bytes); untouched on failure
int miscGetKXPKGInfo(std::string section, std::string key, std::string& value);
/// Finds the media data directory: the configured one (key "MlsDataDir" of section "OPTIONS"),
/// as it stands, or else the volume of the first default share, with a trailing slash.
/// @param path receives the directory; untouched on failure
int miscGetHDDPath(std::string& path);
/// Makes a file name that no other thread or process of this machine makes. It begins with
/// this process's id and "_", and has no directory.
/// @return always 0
int miscGenUniqueFileName(std::string& name);
/// Logs a command, its words joined by blanks.
void miscPrintCmdVec(std::vector<std::string> cmd);

/// @name Locks
/// Each forwards to the pthread call of the same name and returns its value, 0 on success. A
/// failure is logged with the thread's errno, which these calls do not set, so the number in
/// the message is not the returned one.
/// @{
int miscMutexInit(pthread_mutex_t& mutex, pthread_mutexattr_t* attr);
int miscMutexDestroy(pthread_mutex_t& mutex);
int miscMutexLock(pthread_mutex_t& mutex);
int miscMutexUnLock(pthread_mutex_t& mutex);
/// @return the thread's errno, whether the mutex was locked or not: the result does not tell.
int miscMutexTryLock(pthread_mutex_t& mutex);
int miscRWLockInit(pthread_rwlock_t& lock, pthread_rwlockattr_t* attr);
int miscRWLockDestroy(pthread_rwlock_t& lock);
int miscRWLockRdLock(pthread_rwlock_t& lock);
int miscRWLockWrLock(pthread_rwlock_t& lock);
/// A busy lock is not logged when the thread's errno happens to be EBUSY.
int miscRWLockTryRdLock(pthread_rwlock_t& lock);
/// A busy lock is not logged when the thread's errno happens to be EBUSY.
int miscRWLockTryWrLock(pthread_rwlock_t& lock);
int miscRWLockUnLock(pthread_rwlock_t& lock);
/// @}

/// Starts a program, searched on the PATH, and does not wait for it. The child gets SIGTERM
/// when the calling thread ends and leads a process group of its own, so that a signal to this
/// process's group (Ctrl-C) does not reach it; standard error goes to the log file, everything
/// else is inherited. The caller reaps the child (ChildProcess::adopt() in this library).
/// @param cmd program and arguments; empty fails
/// @param logFile receives the child's standard error, replacing an older file of that name;
///        empty: standard error is inherited
/// @return the child's pid, or -1
int miscLaunchCmdNoWait(std::vector<std::string> cmd, std::string logFile);
/// Decodes a wait status and logs what it says.
/// @return the exit code, the number of the signal that ended the child (the two are not told
///         apart), or 1 for anything else
int miscAnalysisRet(int status);
/// Checks a value of `system()`. @return 0 when the command ran and exited with 0, else 1.
int checkSystemReturn(int status);

/// @return true when both files exist and were changed in the same second.
bool miscCompareModTime(std::string a, std::string b);
/// Gives @p dst the access and modification times of @p src, to the second.
int miscSetSameModTime(std::string src, std::string dst);
/// @return false for "." and "..", and for every name that contains the name of one of the
///         system's own hidden folders (".@__thumb", "@Transcode", "@Recycle").
bool isValidDirName(std::string name);
/// @return true when the path exists and none of the system's own hidden folders is in it.
bool isValidPath(std::string path);
/// @return the path with a "/" at its end.
std::string convertFolderPath(std::string path);
/// @return true for a directory itself, false for a link to one.
bool isdir(std::string path);
/// Predicate for collapsing neighbouring slashes (`std::unique`).
bool miscStripSlashes(char a, char b);

/// Puts a private root in front of the service's fixed paths (configuration, shares and
/// helper programs). Empty, the default, leaves every path as it stands. Set it before the
/// first use of any singleton. Not thread-safe.
void miscSetSystemRoot(const std::string& root);
/// @return @p path below the root set with miscSetSystemRoot().
std::string miscSystemPath(const char* path);
