#include "jobstore/JobRow.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <type_traits>

namespace kxjobstore {
namespace {

template <class Record>
struct Column {
  const char* name;
  void (*store)(Record& record, const char* value);
};

template <class Record, auto Member>
void number(Record& record, const char* value) {
  using Number = std::remove_reference_t<decltype(record.*Member)>;
  record.*Member = static_cast<Number>(myatoll(value));
}

template <class Record, auto Member>
void text(Record& record, const char* value) {
  record.*Member = value != nullptr ? value : "";
}

template <class Record>
void ignored(Record& /*record*/, const char* /*value*/) {}

using Job = KxDBTaskParam;
constexpr std::array<Column<Job>, 25> kJobColumns = {{
    {"Id", number<Job, &Job::id>},
    {"SrcPath", text<Job, &Job::src>},
    {"DstPath", text<Job, &Job::dst>},
    {"DateAdd", number<Job, &Job::dateAdd>},
    {"DateStart", number<Job, &Job::dateStart>},
    {"DateFinish", number<Job, &Job::dateFinish>},
    {"Status", number<Job, &Job::status>},
    {"JobFlag", number<Job, &Job::jobFlag>},
    {"InsertType", number<Job, &Job::insertType>},
    {"FileSize", number<Job, &Job::fileSize>},
    {"Rotation", number<Job, &Job::rotation>},
    {"Duration", number<Job, &Job::duration>},
    {"Width", number<Job, &Job::width>},
    {"Height", number<Job, &Job::height>},
    {"AudioId", number<Job, &Job::aid>},
    {"SubtitlePath", text<Job, &Job::subtitle>},
    {"SubtitleId", number<Job, &Job::sid>},
    {"SubtitleSize", number<Job, &Job::subSize>},
    {"SubtitleSeek", number<Job, &Job::subSeek>},
    {"SubtitleColor", text<Job, &Job::subColor>},
    {"Priority", number<Job, &Job::priority>},
    {"HwStart", number<Job, &Job::hwStart>},
    {"MediaType", number<Job, &Job::mediaType>},
    {"Rank", number<Job, &Job::rank>},
    {"VideoTrack", number<Job, &Job::vid>},
}};

using Legacy = Kx43xDBTaskParam;
constexpr std::array<Column<Legacy>, 25> kLegacyColumns = {{
    {"Id", number<Legacy, &Legacy::id>},
    {"FileName", text<Legacy, &Legacy::src>},
    {"DestFileName", text<Legacy, &Legacy::dst>},
    {"DateAdded", number<Legacy, &Legacy::dateAdd>},
    {"DateStart", number<Legacy, &Legacy::dateStart>},
    {"DateFinished", number<Legacy, &Legacy::dateFinish>},
    {"Status", number<Legacy, &Legacy::status>},
    {"Jobflag", number<Legacy, &Legacy::jobFlag>},
    {"Inserttype", number<Legacy, &Legacy::insertType>},
    {"Filesize", number<Legacy, &Legacy::fileSize>},
    {"RotationDegree", number<Legacy, &Legacy::rotation>},
    {"Duration", number<Legacy, &Legacy::duration>},
    {"iWidth", number<Legacy, &Legacy::width>},
    {"iHeight", number<Legacy, &Legacy::height>},
    {"AudioId", number<Legacy, &Legacy::aid>},
    {"SubtitleName", text<Legacy, &Legacy::subtitle>},
    {"SubtitleId", number<Legacy, &Legacy::sid>},
    {"SubtitleSize", number<Legacy, &Legacy::subSize>},
    {"SubtitleSeek", number<Legacy, &Legacy::subSeek>},
    {"SubtitleColor", text<Legacy, &Legacy::subColor>},
    {"Mediatype", number<Legacy, &Legacy::mediaType>},
    {"SubtitleCodepage", ignored<Legacy>},
    {"JobOKflag", ignored<Legacy>},
    {"SoftwareDoJob", ignored<Legacy>},
    {"AlbumId", ignored<Legacy>},
}};

// A row usually has the columns in the table's order, so the own place is tried first.
template <class Table>
auto findColumn(const Table& table, size_t place, const char* name) {
  if (place < table.size() && strcmp(table[place].name, name) == 0)
    return table.begin() + static_cast<std::ptrdiff_t>(place);
  return std::find_if(table.begin(), table.end(),
                      [name](const auto& column) { return strcmp(column.name, name) == 0; });
}

template <class Record, class Table>
Record readRow(const Table& table, int n, char** values, char** names, LogSite site) {
  Record record;
  for (int i = 0; i < n; ++i) {
    const auto column = findColumn(table, static_cast<size_t>(i), names[i]);
    if (column == table.end()) {
      KX_LOG_SITE(site, "unknow attr, colName[%d]=%s, argv[%d]=%s\n", i, names[i], i, values[i]);
      continue;
    }
    column->store(record, values[i]);
  }
  return record;
}

}  // namespace

KxDBTaskParam readJobRow(int n, char** values, char** names, LogSite site) {
  return readRow<KxDBTaskParam>(kJobColumns, n, values, names, site);
}

Kx43xDBTaskParam readLegacyRow(int n, char** values, char** names, LogSite site) {
  return readRow<Kx43xDBTaskParam>(kLegacyColumns, n, values, names, site);
}

bool isJobColumn(const std::string& name) {
  return findColumn(kJobColumns, kJobColumns.size(), name.c_str()) != kJobColumns.end();
}

}  // namespace kxjobstore
