#pragma once
/// @file
/// What the host process provides to the library. The library leaves these symbols
/// undefined; they are resolved from the executable that loads it. `host/` holds the
/// implementation that the daemon and the tests link.
///
/// Unless said otherwise an `int` result is 0 on success and non-zero on failure, every
/// function may be called from any thread, and none throws.

#include <pthread.h>
#include <semaphore.h>

#include <memory>
#include <string>
#include <vector>

struct inotify_event;

/// One installed media service: where its programs are and what they can encode.
struct MediaSvcVarInfo {
  std::string agentPath;                   ///< hardware transcode agent
  std::string ffmpegPath;                  ///< software encoder; used up to 1023 bytes
  std::vector<std::string> audioEncoders;  ///< encoder names, such as "aac"
};

/// Where the codec add-on lives.
struct GstAgentPaths {
  std::string chrootPath;  ///< root of the add-on's environment; empty when it is absent
};

/// Outcome of one program run by MyUtil_Exec2().
struct ExecResult {
  int ran = 0;         ///< non-zero when the program was started
  int exitStatus = 0;  ///< 0..255 when it exited by itself
  int signal = 0;      ///< the signal that ended it, or 0
  std::string out;     ///< its standard output
};

extern "C" {
/// Writes one message to the service log.
/// @param level 2 (failures that end a job or a start-up step) to 5 (detail)
/// @param zero reserved, always 0
/// @param source base name of the module that logs
/// Thread-safe, also callable between fork and exec; keeps errno; prints "(null)" for a
/// null string; accepts any length; adds no newline.
void myDebugUtilWrapperPrint(int level, int zero, const char* source, int line, const char* func,
                             const char* fmt, ...) __attribute__((format(printf, 6, 7)));

/// Reads one key of an ini file into @p buf, which is always NUL-terminated.
/// @param section section name; NULL or "" for the keys before any section
/// @param def copied to @p buf when the file or the key is missing
/// @return non-zero when the key was found, 0 otherwise
int MyUtil_GetKeyStr(const char* section, const char* key, const char* def, char* buf, int size,
                     const char* file);
/// Reads one decimal key of an ini file. @return its value, or @p def when it is missing.
int MyUtil_GetKeyInt(const char* section, const char* key, int def, const char* file);
/// Writes one decimal key of an ini file, creating file and section, atomically.
/// @return non-zero on success, 0 on failure
int MyUtil_SetKeyInt(const char* section, const char* key, int value, const char* file);

/// @return the number of processors, at least 1.
int MyUtil_GetCpuNum(void);
/// @return the memory of the machine in kilobytes, saturating at INT_MAX.
int MyUtil_GetTotalMem(void);

/// Lists the installed media services; the library uses the first.
int MyUtil_getMediaSvcVarInfos(std::vector<MediaSvcVarInfo>& out);
/// Path of the static ffmpeg. On failure or an empty answer the library uses its default.
int MyUtil_getStaticFfmpegPath(char* buf, int size);
/// Paths of the codec add-on; failure or an empty chrootPath means that it is absent.
int MyUtil_getGstTranscodeAgentPaths(GstAgentPaths& out);
/// @return non-zero when the platform can encode AAC.
int MyUtil_hasAACSupport(void);
/// Name of a codec, at most 9 characters ("mp3", "aac", "h264").
/// @param codecId number in the library's numbering
int getFFmpegCodecName(int codecId, char* buf, int size);

/// Classifies a file by its name: 1 picture, 2 video, 3 audio, 0 none of these.
/// @param name file name or path
/// @param ext receives the extension, cut to @p extSize
/// @param askedClass the class that the caller looks for
int MyIDB_GetFilenameType(const char* name, char* ext, int askedClass, int extSize);
/// Decimal prefix of @p s as a number; NULL gives 0; errno is left alone.
long long myatoll(const char* s);

/// Creates a folder with its parents. An existing folder is success.
int mymkdir(const char* path, int mode);
/// Removes a file or a whole folder without following links. An absent path is success.
int myremove(const char* path);
/// Mounts a disc image and stores the mount point (kernel loop mount, else FUSE).
int mountIso(const char* iso, char* mountPoint, int size);
/// Releases what mountIso() mounted and removes the mount point.
int umountIso(const char* mountPoint);
/// Mounts a disc image inside the add-on's environment; the path is relative to it.
int chrootMountIso(const char* chrootPath, const char* iso, char* pathInChroot, int size);
/// Releases what chrootMountIso() mounted.
int chrootUmountIso(const char* chrootPath, const char* pathInChroot);
/// Finds the folder of the disc structure under a mount point; ends with "/".
int parseMountedFolder_v2(const char* mountPoint, char* folder, int size);

/// Runs a program and waits for it when @p wait is true. @return 0 when it ran and exited.
int MyUtil_Exec2(ExecResult& r, bool wait, const char* const* argvNullEnded);
/// Runs a program and captures its standard output.
int MyUtil_ExecSyncWithOutputString(std::string& out, const char* const* argvNullEnded);
}

/// Runs programs without a shell.
class MyExec {
 public:
  /// Runs @p argv and captures its standard output. @return its exit code; non-zero also
  /// when it cannot be started or is ended by a signal.
  static int run(const std::vector<std::string>& argv, std::string& out);
};

namespace MediaLibrary {
/// Holds a mutex for the length of a scope.
class ScopedMutexLock {
 public:
  explicit ScopedMutexLock(pthread_mutex_t& mutex);
  ~ScopedMutexLock();
  ScopedMutexLock(const ScopedMutexLock&) = delete;
  ScopedMutexLock& operator=(const ScopedMutexLock&) = delete;

 private:
  pthread_mutex_t& m_mutex;
};
}  // namespace MediaLibrary

/// The list of mounted volume folders that may be indexed: every mount that holds files of
/// users, so neither the kernel's own file systems nor anything below /proc, /sys, /dev, /run
/// and /boot. All operations may be called from any thread.
class NasVol {
 public:
  NasVol();
  ~NasVol();
  NasVol(const NasVol&) = delete;
  NasVol& operator=(const NasVol&) = delete;

  /// Makes an object the one of the process; it stays the caller's and takes itself back
  /// when it is destroyed.
  static void setInstance(NasVol* instance);
  /// @return the object of the process, or NULL.
  static NasVol* getInstance();
  /// Brings the list up to date; cheap while the mount table has not changed.
  /// @return 0, or 1 when the mount table cannot be read (the old list stays)
  int genIndexableVolDir();
  /// The list, in ascending order.
  std::vector<std::string> getIndexableVolDirs() const;
  /// True when an absolute path lies on a listed volume and is neither the root folder nor
  /// part of the system's own folders.
  bool isIndexable(const std::string& path) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

/// Recursive inotify watches with a path look-up. Folders that the service itself writes
/// (isValidDirName()) and symbolic links are not watched.
///
/// x_inotifytools_next_event() belongs to one thread; everything else may be called from any.
class F2notify {
 public:
  F2notify();
  /// Includes x_inotifytools_cleanup().
  ~F2notify();
  F2notify(const F2notify&) = delete;
  F2notify& operator=(const F2notify&) = delete;

  /// Keeps the semaphore whose post ends a wait for an event. It stays the caller's and must
  /// outlive the time between x_inotifytools_initialize() and x_inotifytools_cleanup(); in
  /// that time only this object waits on it. @return 0, or 1 for NULL
  int x_inotifytools_pre_init(sem_t* wakeUp);
  /// Opens the event queue. Calling it again without a clean-up in between is success.
  int x_inotifytools_initialize();
  /// Drops every watch and closes the event queue. Call it when no thread is waiting.
  void x_inotifytools_cleanup();
  /// Watches a folder and all its sub-folders. Watching a folder again is success; when it
  /// has been moved since, its new path replaces the old one.
  /// @param events inotify bits; 0 for created, moved in, moved out, deleted and closed after
  ///        writing
  /// @param exclude NULL-ended list of folders that are left out with everything below them;
  ///        may be NULL
  /// @return 0, or 1 when @p path itself cannot be watched or the kernel's limit of watches
  ///         is reached (errno is ENOSPC then; the watches made so far stay)
  int x_my_inotifytools_watch_recursively_with_exclude(const char* path, int events,
                                                       const char* const* exclude);
  /// Next event, or NULL on time-out, wake-up or failure; valid until the next call. Events of
  /// watches that have been removed are left out. The name is always readable; it is empty
  /// when the event has none. IN_Q_OVERFLOW (wd -1) tells that events were lost.
  /// @param seconds longest wait; negative for no limit
  inotify_event* x_inotifytools_next_event(int seconds);
  /// Watched folder of a descriptor with trailing "/", or NULL when unknown; valid until the
  /// calling thread asks again.
  const char* x_inotifytools_filename_from_wd(int wd);
  /// Tells that a watched folder, with everything below it, has another path now.
  void x_inotifytools_replace_filename(const char* from, const char* to);
  /// Drops the watches of a folder and of everything below it.
  /// @return 0, or 1 when there were none
  int x_inotifytools_remove_watch_by_filename(const char* path);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

/// Handle of one XML element. A missing or malformed document is an empty node.
class XMLNode {
 public:
  XMLNode();
  static XMLNode openFileHelper(const char* file, const char* tag);
  static XMLNode createXMLTopNode(const char* tag);
  XMLNode addChild(const char* tag);
  void addAttribute(const char* name, const char* value);
  int nChildNode(const char* tag) const;
  XMLNode getChildNode(const char* tag, int index) const;
  /// @return the value, owned by the document, or NULL when the attribute is absent.
  const char* getAttribute(const char* name) const;
  bool isEmpty() const;
  /// Writes the document, indented. @return 0 on success.
  int writeToFile(const char* file) const;

 private:
  struct Impl;
  std::shared_ptr<Impl> m_impl;
};

/// Why the pages of a PDF cannot be counted.
enum KxPdfFault_e {
  KX_PDF_ENCRYPTED = -1,  ///< it needs a password to be opened
  KX_PDF_DAMAGED = -2,    ///< no PDF, or damaged beyond repair
};
/// Number of pages of a PDF; the executable's definition replaces the library's stub.
/// @return 0 when it has none or cannot be read, a KxPdfFault_e when that is the reason
int kxPdfGetPageNumber(std::string path);
