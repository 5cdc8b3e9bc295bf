#pragma once
/// @file
/// The watched folders and the file that keeps them.

#include <pthread.h>

#include <map>
#include <string>
#include <vector>

/// Where the folder files are (start-up record).
struct KxTransFileInit_s {
  std::string mediaDBXmlPath;   ///< the media library's folder file, root "MEDIADB"
  std::string xCodeSvrXmlPath;  ///< the service's own folder file, root "XCODESVR"
};

/// One watched folder. A plain value without locking.
class KxTransFileSetting {
 public:
  /// No folder.
  KxTransFileSetting();
  /// @param filePath absolute path of the folder; any bytes
  /// @param target decimal text of the wanted profiles, bit i for row i of the profile table
  KxTransFileSetting(std::string filePath, std::string target);
  /// @param options free text that is kept with the folder
  KxTransFileSetting(std::string filePath, std::string target, std::string options);
  KxTransFileSetting(const KxTransFileSetting&) = default;
  KxTransFileSetting& operator=(const KxTransFileSetting&) = default;
  virtual ~KxTransFileSetting();

  /// True when no path is set.
  bool isEmpty() const;
  void clear();
  /// The options stay.
  void set(std::string filePath, std::string target);
  void set(std::string filePath, std::string target, std::string options);
  void setFilePath(std::string filePath);
  void setTarget(std::string target);
  void setOptions(std::string options);
  std::string getFilePath() const;
  std::string getTarget() const;
  /// The target as a number (`strtol`, base 10); 0 for a text that is none.
  long long getTargetAsInt64() const;
  std::string getOptions() const;
  /// Logs the record.
  void dump() const;
  /// One line "path:target\n" of at most 4,095 characters: a longer one is cut to its first
  /// 4,094 and the newline.
  std::string outputTransFileSetting() const;

 private:
  std::string m_filePath;
  std::string m_target;
  std::string m_options;
};

/// The set of watched folders in memory, kept in step with its file.
///
/// Every public operation holds the object's mutex for its whole duration, so any thread may
/// call it; none calls anything that locks. Results are 0 on success and 1 on failure unless
/// said otherwise. A folder is the same with and without a final "/" and with runs of "/";
/// the file keeps the text as it was given.
class KxTransFileConfig {
 public:
  /// No folders and no file.
  KxTransFileConfig();
  ~KxTransFileConfig();
  KxTransFileConfig(const KxTransFileConfig&) = delete;
  KxTransFileConfig& operator=(const KxTransFileConfig&) = delete;

  /// Loads the folder file, after creating it on the first run from the media library's. A
  /// folder file that cannot be read is kept beside it as "NAME.damaged.SECONDS" before it is
  /// replaced. Entries without path, target or options are left out.
  int init(KxTransFileInit_s paths);
  /// @return number of folders
  int size();
  /// The entry at a place of the ascending order of paths, from 0.
  int getFolderSetting(unsigned int index, KxTransFileSetting& setting);
  /// The entry of the watched folder that contains a path or is it; of nested ones the longest.
  /// @param exact only the folder itself counts
  /// @param setting untouched on failure
  int getFolderSetting(std::string path, KxTransFileSetting& setting, bool exact);
  /// Target of the folder that contains a path; empty when there is none.
  std::string getTarget(const std::string& path);
  /// All entries in ascending order of their paths.
  std::vector<KxTransFileSetting> getFolderSettings();
  /// @return 1 and nothing changed when the folder is present already or the path is empty; 1
  /// also when the file cannot be written, and then the folder is in memory only.
  int addFolder(KxTransFileSetting setting);
  /// Replaces target and options. @return 1 and nothing changed when the folder is absent.
  int updateFolder(KxTransFileSetting setting);
  /// @return 1 and nothing changed when the folder is absent.
  int delFolder(std::string path);
  /// Logs every entry.
  void dump();
  /// Writes the file. The entries in memory stay as they are when that fails.
  int updateTranscodeXml();

 private:
  using Settings = std::map<std::string, KxTransFileSetting>;

  int preProcess();
  int updateTranscodeXmlLocked();
  void indexLocked();
  const KxTransFileSetting* findLocked(const std::string& path, bool exact) const;

  KxTransFileInit_s m_paths;
  pthread_mutex_t m_mutex;
  Settings m_settings;
  // Kept in step with m_settings by indexLocked().
  std::vector<const KxTransFileSetting*> m_order;
  std::map<std::string, const KxTransFileSetting*> m_byFolder;  // normalised paths
};
