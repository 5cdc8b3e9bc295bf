#include "cli/Commands.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <thread>

#include "KxDBTask.h"
#include "cli/Text.h"

namespace fs = std::filesystem;

namespace xcodectl {
namespace {

constexpr int kPageRows = 200;  // rows asked for at a time; what fits in an answer is less

std::string absolutePath(const std::string& path) {
  return fs::absolute(path).lexically_normal().string();
}

// What there is of a result: the size of a file, the pages of an album.
std::string resultText(const std::string& path) {
  std::error_code error;
  const fs::directory_iterator album(path, error);
  if (!error) {
    const auto pages = std::distance(begin(album), end(album));
    return pages == 1 ? "1 page" : std::to_string(pages) + " pages";
  }
  const auto size = fs::file_size(path, error);
  return error ? "not there" : sizeText(static_cast<int64_t>(size));
}

// A source is checked here already: the service sees the path later and cannot say which
// word of the command line was wrong.
std::string sourcePath(const std::string& path) {
  std::error_code error;
  if (!fs::exists(path, error))
    throw Failure(kExitUsage, "There is no file '" + printable(path) + "'");
  return absolutePath(path);
}

int statusFlags(const std::string& name) {
  static const std::map<std::string, int> flags = {
      {"all", 1 << 4},
      {"waiting", 1 << JOB_WAITING},
      {"done", 1 << JOB_DONE},
      {"failed", 1 << JOB_ERROR},
      {"running", 1 << JOB_RUNNING},
      {"cancelled", 1 << JOB_CANCELLED},
  };
  const auto found = flags.find(name);
  if (found == flags.end()) {
    throw Failure(kExitUsage, "There is no state '" + printable(name) +
                                  "'. States: all, waiting, running, done, failed, cancelled");
  }
  return found->second;
}

int terminalWidth() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 20) return size.ws_col;
  return 100;
}

std::string fileName(const std::string& path) {
  return printable(fs::path(path).filename().string());
}

// The rate of one running job, from the progress seen so far.
class Rate {
 public:
  void add(int progress) {
    const auto now = std::chrono::steady_clock::now();
    if (!m_known || progress < m_progress) {
      m_known = true;
      m_since = now;
      m_start = progress;
    }
    m_progress = progress;
    m_seconds = std::chrono::duration<double>(now - m_since).count();
  }
  double perSecond() const {
    return m_seconds > 0.5 && m_progress > m_start ? (m_progress - m_start) / m_seconds : 0;
  }
  std::string text() const {
    const double rate = perSecond();
    if (rate <= 0) return "";
    char text[64];
    snprintf(text, sizeof text, "%.1f %%/s, %s left", rate,
             durationText((100 - m_progress) / rate).c_str());
    return text;
  }

 private:
  bool m_known = false;
  std::chrono::steady_clock::time_point m_since;
  int m_start = 0;
  int m_progress = 0;
  double m_seconds = 0;
};

// A folder as the service lists it: without a final "/".
std::string folderPath(const std::string& path) {
  std::string folder = absolutePath(path);
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  return folder;
}

// How a folder is watched, for people.
std::string watchText(const nlohmann::json& row) {
  const std::string state = string(row, "state");
  if (state == "watched") return "watched";
  if (state == "partial") return "PARTLY WATCHED: the limit of watches is reached";
  if (state == "missing") return "missing";
  if (state == "failed") return "NOT WATCHED: " + string(row, "error");
  return "not watched yet";
}

}  // namespace

void Commands::print(const nlohmann::json& value) const {
  const std::string text = value.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
  printf("%s\n", text.c_str());
}

int Commands::simple(KxCommand_e command, const std::string& done) {
  m_client.demand(Request(command));
  if (m_json) {
    print({{"ok", true}});
  } else {
    printf("%s\n", done.c_str());
  }
  return kExitOk;
}

int Commands::forEachId(KxCommand_e command, const std::vector<int64_t>& ids,
                        const std::string& done) {
  for (int64_t id : ids) {
    m_client.demand(Request(command).json({{"id", id}}));
    if (!m_json) printf("Job %ld %s.\n", static_cast<long>(id), done.c_str());
  }
  if (m_json) print({{"ok", true}, {"ids", ids}});
  return kExitOk;
}

nlohmann::json Commands::allRows(KxCommand_e command) {
  nlohmann::json rows = nlohmann::json::array();
  for (;;) {
    const Answer answer =
        m_client.demand(Request(command).number(1, static_cast<int32_t>(rows.size())));
    const nlohmann::json page = answer.json();
    for (const auto& row : page) rows.push_back(row);
    if (page.empty() || static_cast<int32_t>(rows.size()) >= answer.number(2)) return rows;
  }
}

nlohmann::json Commands::queryPage(const ListOptions& options, int limit, int offset,
                                   int64_t& total) {
  const Answer answer = m_client.demand(Request(KX_CMD_QUERY_JOB)
                                            .json({{"flags", statusFlags(options.status)},
                                                   {"limit", limit},
                                                   {"offset", offset},
                                                   {"orderBy", options.order},
                                                   {"asc", !options.descending}}));
  total = answer.number(2);
  nlohmann::json rows = answer.json();
  return rows.is_array() ? rows : nlohmann::json::array();
}

nlohmann::json Commands::jobRow(int64_t id) {
  return m_client.demand(Request(KX_CMD_SHOW_JOB).json({{"id", id}})).json();
}

int Commands::add(const AddOptions& options) {
  uint64_t bits = profileBits(options.profiles);
  if (options.allProfiles) bits = (uint64_t{1} << profileNames().size()) - 1;
  if (bits == 0) throw Failure(kExitUsage, "Name the wanted profiles with --profile, or use --all");
  std::vector<std::pair<std::string, Request>> jobs;
  for (const std::string& file : options.files) {
    const std::string source = sourcePath(file);
    Request request(KX_CMD_ADD_JOB);
    nlohmann::json job = {{"jobFlag", bits},
                          {"rotation", options.rotation},
                          {"aid", options.audioTrack},
                          {"vid", options.videoTrack},
                          {"sid", options.subtitleTrack},
                          {"subSize", options.subtitleSize},
                          {"subSeek", options.subtitleShift},
                          {"subColor", options.subtitleColor},
                          {"priority", options.priority}};
    if (!options.subtitle.empty()) job["subtitle"] = sourcePath(options.subtitle);
    // JSON is UTF-8; a file name is any bytes.
    if (isUtf8(source)) {
      job["src"] = source;
    } else {
      request.text(1, source);
    }
    jobs.emplace_back(source, request.json(job));
  }
  std::vector<int64_t> ids;
  for (const auto& [source, request] : jobs) {
    const Answer answer = m_client.demand(request);
    ids.push_back(integer(answer.json(), "id", answer.number(2)));
    if (!m_json) {
      printf("Job %ld: %s -> %s\n", static_cast<long>(ids.back()), fileName(source).c_str(),
             profileText(bits).c_str());
    }
  }
  if (m_json && !options.wait) print({{"ids", ids}});
  if (!options.wait) return kExitOk;
  fflush(stdout);
  return wait(ids);
}

int Commands::list(const ListOptions& options) {
  nlohmann::json rows = nlohmann::json::array();
  int64_t total = 0;
  for (;;) {
    const int wanted =
        options.limit == 0 ? kPageRows : options.limit - static_cast<int>(rows.size());
    if (wanted <= 0) break;
    const nlohmann::json page = queryPage(options, std::min(wanted, kPageRows),
                                          options.offset + static_cast<int>(rows.size()), total);
    for (const auto& row : page) rows.push_back(row);
    if (page.empty() || options.offset + static_cast<int64_t>(rows.size()) >= total) break;
  }
  if (m_json) {
    print({{"total", total}, {"jobs", rows}});
    return kExitOk;
  }
  std::vector<std::vector<std::string>> table = {{"ID", "RANK", "STATE", "PROFILES", "FILE"}};
  for (const auto& row : rows) {
    table.push_back({std::to_string(integer(row, "id")), std::to_string(integer(row, "rank")),
                     statusText(static_cast<int>(integer(row, "status"))),
                     profileText(static_cast<uint64_t>(integer(row, "jobFlag"))),
                     printable(string(row, "src"))});
  }
  if (rows.empty()) {
    printf("No jobs.\n");
  } else {
    printf("%s", tableText(table).c_str());
  }
  return kExitOk;
}

int Commands::show(int64_t id) {
  const nlohmann::json row = jobRow(id);
  if (m_json) {
    print(row);
    return kExitOk;
  }
  std::vector<std::vector<std::string>> table = {
      {"Job", std::to_string(integer(row, "id"))},
      {"File", printable(string(row, "src"))},
      {"State", statusText(static_cast<int>(integer(row, "status")))},
      {"Profiles", profileText(static_cast<uint64_t>(integer(row, "jobFlag")))},
      {"Rank", std::to_string(integer(row, "rank"))},
      {"Priority", std::to_string(integer(row, "priority"))},
      {"Size", sizeText(integer(row, "fileSize"))},
      {"Rotation", std::to_string(integer(row, "rotation"))},
      {"Video track", std::to_string(integer(row, "vid"))},
      {"Audio track", std::to_string(integer(row, "aid"))},
      {"Queued", timeText(integer(row, "dateAdd"))},
      {"Started", timeText(integer(row, "dateStart"))},
      {"Finished", timeText(integer(row, "dateFinish"))},
  };
  if (integer(row, "sid", -1) >= 0)
    table.push_back({"Subtitle track", std::to_string(integer(row, "sid"))});
  if (!string(row, "subtitle").empty())
    table.push_back({"Subtitle", printable(string(row, "subtitle"))});
  if (!string(row, "waitsFor").empty())
    table.push_back({"Waits for", printable(string(row, "waitsFor"))});
  if (!string(row, "reason").empty()) table.push_back({"Reason", printable(string(row, "reason"))});
  printf("%s", tableText(table).c_str());
  const auto outputs = row.find("outputs");
  if (outputs == row.end() || !outputs->is_array()) return kExitOk;
  for (const auto& output : *outputs) {
    const std::string path = string(output, "path");
    printf("Result  %s: %s (%s)\n", string(output, "profile").c_str(), printable(path).c_str(),
           resultText(path).c_str());
  }
  return kExitOk;
}

int Commands::units() {
  const nlohmann::json rows = allRows(KX_CMD_GET_STATUS);
  if (m_json) {
    print(rows);
    return kExitOk;
  }
  std::vector<std::vector<std::string>> table = {{"JOB", "STATE", "PROGRESS", "PID", "ON", "FILE"}};
  for (const auto& row : rows) {
    table.push_back(
        {std::to_string(integer(row, "id")), unitText(static_cast<int>(integer(row, "state"))),
         std::to_string(integer(row, "progress")) + " %", std::to_string(integer(row, "pid", -1)),
         string(row, "resId"), printable(string(row, "src"))});
  }
  if (rows.empty()) {
    printf("No units.\n");
  } else {
    printf("%s", tableText(table).c_str());
  }
  return kExitOk;
}

int Commands::watch(bool once) {
  const bool live = !once && isatty(STDOUT_FILENO) != 0;
  std::map<int64_t, Rate> rates;
  size_t drawn = 0;
  for (;;) {
    const nlohmann::json rows = allRows(KX_CMD_GET_STATUS);
    const Answer counted =
        m_client.demand(Request(KX_CMD_COUNT_JOB).json({{"flags", 1 << JOB_WAITING}}));
    const int64_t waiting = counted.number(2);
    if (m_json) {
      // One JSON object a line, so that a reader can follow the stream.
      printf("%s\n", nlohmann::json({{"waiting", waiting}, {"units", rows}})
                         .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                         .c_str());
    } else {
      if (live && drawn > 0) printf("\033[%zuA", drawn);
      drawn = 0;
      const int width = terminalWidth();
      for (const auto& row : rows) {
        const int64_t id = integer(row, "id");
        const int progress = static_cast<int>(integer(row, "progress"));
        rates[id].add(progress);
        const std::string name = fileName(string(row, "src"));
        std::string line = std::to_string(id) + " " + barText(progress, 30) + " " +
                           std::to_string(progress) + " % " + name + "  " + rates[id].text();
        if (live && line.size() > static_cast<size_t>(width))
          line.resize(static_cast<size_t>(width));
        printf("%s%s\n", line.c_str(), live ? "\033[K" : "");
        ++drawn;
      }
      printf("%zu running, %ld waiting%s\n", rows.size(), static_cast<long>(waiting),
             live ? "\033[K\033[J" : "");
      ++drawn;
    }
    fflush(stdout);
    if (once || (rows.empty() && waiting == 0)) return kExitOk;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
}

// The row of a job that has ended; a job that is gone counts as cancelled. Tells once when
// something keeps it waiting that may never pass.
nlohmann::json Commands::rowAtEnd(int64_t id) {
  bool isTold = false;
  for (auto pause = std::chrono::milliseconds(20);;
       pause = std::min(pause * 2, std::chrono::milliseconds(500))) {
    nlohmann::json row;
    try {
      row = jobRow(id);
    } catch (const Failure& failure) {
      if (failure.code() != kExitFailed) throw;
      return {{"id", id}, {"status", JOB_CANCELLED}, {"reason", failure.what()}};
    }
    const int status = static_cast<int>(integer(row, "status"));
    if (status != JOB_WAITING && status != JOB_RUNNING) return row;
    const std::string obstacle = string(row, "waitsFor");
    if (!obstacle.empty() && !isTold) {
      fprintf(stderr, "xcodectl: Job %ld waits for %s\n", static_cast<long>(id),
              printable(obstacle).c_str());
      isTold = true;
    }
    std::this_thread::sleep_for(pause);
  }
}

int Commands::wait(const std::vector<int64_t>& ids) {
  ExitCode worst = kExitOk;
  nlohmann::json ended = nlohmann::json::array();
  for (int64_t id : ids) {
    const nlohmann::json row = rowAtEnd(id);
    const int status = static_cast<int>(integer(row, "status"));
    const std::string reason = string(row, "reason");
    if (m_json) {
      ended.push_back(row);
    } else {
      printf("Job %ld %s%s%s\n", static_cast<long>(id), statusText(status).c_str(),
             reason.empty() ? "" : ": ", printable(reason).c_str());
    }
    fflush(stdout);
    const ExitCode code = status == JOB_DONE    ? kExitOk
                          : status == JOB_ERROR ? kExitJobFailed
                                                : kExitJobGone;
    if (worst == kExitOk || code == kExitJobFailed) worst = code == kExitOk ? worst : code;
  }
  if (m_json) print({{"jobs", ended}});
  return worst;
}

int Commands::cancel(const std::vector<int64_t>& ids) {
  return forEachId(KX_CMD_CANCEL_JOB, ids, "is cancelled");
}

int Commands::retry(const std::vector<int64_t>& ids) {
  return forEachId(KX_CMD_RETRY_JOB, ids, "waits again");
}

int Commands::remove(const std::vector<int64_t>& ids, const std::string& file,
                     const std::string& folder) {
  if (ids.empty() && file.empty() && folder.empty())
    throw Failure(kExitUsage, "Say what to delete: job numbers, --file or --folder");
  if (!file.empty())
    m_client.demand(Request(KX_CMD_DELETE_JOB).json({{"file", absolutePath(file)}}));
  if (!folder.empty())
    m_client.demand(Request(KX_CMD_DELETE_JOB).json({{"folder", absolutePath(folder)}}));
  return forEachId(KX_CMD_DELETE_JOB, ids, "is deleted");
}

int Commands::move(int64_t id, int64_t rank) {
  m_client.demand(Request(KX_CMD_MOVE_JOB).json({{"id", id}, {"rank", rank}}));
  if (m_json) print({{"ok", true}});
  return kExitOk;
}

int Commands::swapPlaces(int64_t id, int64_t with) {
  m_client.demand(Request(KX_CMD_SWAP_JOB).json({{"id", id}, {"with", with}}));
  if (m_json) print({{"ok", true}});
  return kExitOk;
}

int Commands::clean(bool waiting) {
  m_client.demand(
      Request(KX_CMD_CLEAN_JOBS).json({{"which", waiting ? "unprocessed" : "processed"}}));
  if (m_json) print({{"ok", true}});
  return kExitOk;
}

int Commands::start() {
  return simple(KX_CMD_START, "The service is running.");
}

int Commands::stop() {
  return simple(KX_CMD_STOP, "The service is stopped.");
}

int Commands::pause(int seconds) {
  m_client.demand(Request(KX_CMD_PAUSE).number(1, seconds > 0 ? seconds : -1));
  if (m_json) {
    print({{"ok", true}});
  } else if (seconds > 0) {
    printf("Paused for %d s.\n", seconds);
  } else {
    printf("Paused until 'xcodectl resume'.\n");
  }
  return kExitOk;
}

int Commands::resume() {
  m_client.demand(Request(KX_CMD_PAUSE).number(1, 0));
  if (m_json) {
    print({{"ok", true}});
  } else {
    printf("The service is running.\n");
  }
  return kExitOk;
}

int Commands::status() {
  // The result block of this one answer carries the state, so it is no failure.
  const Answer answer = m_client.ask(Request(KX_CMD_GET_SVR_STATUS));
  const int state = answer.number(1);
  const int pauseSeconds = answer.number(2);
  const bool diskFull = answer.number(3) != 0;
  const auto count = [this](int flags) -> int64_t {
    return m_client.demand(Request(KX_CMD_COUNT_JOB).json({{"flags", flags}})).number(2);
  };
  const int64_t waiting = count(1 << JOB_WAITING);
  const int64_t running = count(1 << JOB_RUNNING);
  const int64_t done = count(1 << JOB_DONE);
  const int64_t failed = count(1 << JOB_ERROR);
  const int64_t cancelled = count(1 << JOB_CANCELLED);
  if (m_json) {
    print({{"state", serverText(state)},
           {"pauseSeconds", pauseSeconds},
           {"diskFull", diskFull},
           {"jobs",
            {{"waiting", waiting},
             {"running", running},
             {"done", done},
             {"failed", failed},
             {"cancelled", cancelled}}}});
    return kExitOk;
  }
  printf("Service  %s", serverText(state).c_str());
  if (state == SVR_PAUSED && pauseSeconds > 0) printf(" for %d s", pauseSeconds);
  printf("\n");
  if (diskFull) printf("Disk     too little room: no new job is started\n");
  printf("Jobs     %ld waiting, %ld running, %ld done, %ld failed, %ld cancelled\n",
         static_cast<long>(waiting), static_cast<long>(running), static_cast<long>(done),
         static_cast<long>(failed), static_cast<long>(cancelled));
  return kExitOk;
}

int Commands::limits(const int* cpuPercent, const int* memKilobytes) {
  if (cpuPercent != nullptr) m_client.demand(Request(KX_CMD_SET_CPU_LIMIT).number(1, *cpuPercent));
  if (memKilobytes != nullptr)
    m_client.demand(Request(KX_CMD_SET_MEM_LIMIT).number(1, *memKilobytes));
  const int cpu = m_client.demand(Request(KX_CMD_GET_CPU_LIMIT)).number(2);
  const int mem = m_client.demand(Request(KX_CMD_GET_MEM_LIMIT)).number(2);
  if (m_json) {
    print({{"cpuPercent", cpu}, {"memKilobytes", mem}});
    return kExitOk;
  }
  if (cpu < 0) {
    printf("Processors  not limited (no control group)\n");
  } else {
    printf("Processors  %d %%\n", cpu);
  }
  printf("Memory      %s\n", sizeText(int64_t{mem} * 1024).c_str());
  return kExitOk;
}

int Commands::resources() {
  const nlohmann::json rows = allRows(KX_CMD_GET_RESOURCE);
  if (m_json) {
    print(rows);
    return kExitOk;
  }
  static constexpr std::array<const char*, 6> kTypes = {"none",         "cpu",     "internal gpu",
                                                        "external gpu", "arm.rtk", "arm.rk"};
  std::vector<std::vector<std::string>> table = {{"ID", "TYPE", "USERS", "DEVICE"}};
  for (const auto& row : rows) {
    const auto type = static_cast<size_t>(integer(row, "resType"));
    table.push_back({string(row, "id"), type < kTypes.size() ? kTypes[type] : "other",
                     std::to_string(integer(row, "registrations")),
                     printable(string(row, "vendorName") + " " + string(row, "devName"))});
  }
  printf("%s", tableText(table).c_str());
  return kExitOk;
}

int Commands::processes() {
  const nlohmann::json rows = allRows(KX_CMD_GET_PROCESS_INFO);
  if (m_json) {
    print(rows);
    return kExitOk;
  }
  std::vector<std::vector<std::string>> table = {{"PID", "USER", "ADDRESS", "TAG", "FILE"}};
  for (const auto& row : rows) {
    table.push_back({std::to_string(integer(row, "pid")), printable(string(row, "user")),
                     printable(string(row, "ip")), printable(string(row, "tag")),
                     printable(string(row, "src"))});
  }
  printf("%s", tableText(table).c_str());
  return kExitOk;
}

int Commands::hwaccel(const std::string& value) {
  if (!value.empty()) m_client.demand(Request(KX_CMD_SET_EXTRA).number(1, value == "on" ? 1 : 0));
  const Answer answer = m_client.demand(Request(KX_CMD_GET_EXTRA));
  const bool on = answer.number(2) != 0;
  const bool supported = answer.number(3) != 0;
  if (m_json) {
    print({{"enabled", on}, {"supported", supported}});
  } else {
    printf("Hardware transcoding is %s; this machine %s it.\n", on ? "on" : "off",
           supported ? "supports" : "does not support");
  }
  return kExitOk;
}

int Commands::dump(const std::string& what) {
  static const std::vector<std::pair<std::string, KxCommand_e>> kDumps = {
      {"resources", KX_CMD_DUMP_RES}, {"units", KX_CMD_DUMP_UNIT}, {"jobs", KX_CMD_DUMP_JOB}};
  for (const auto& [name, code] : kDumps)
    if (what.empty() || what == name) m_client.tell(Request(code));
  if (m_json) print({{"ok", true}});
  return kExitOk;
}

int Commands::importLegacy(const std::string& file) {
  const Answer answer = m_client.demand(Request(KX_CMD_IMPORT_LEGACY).text(1, sourcePath(file)));
  const nlohmann::json details = answer.json();
  const int64_t known = integer(details, "known", 0);
  const int64_t skipped = integer(details, "skipped", 0);
  if (m_json) {
    print({{"ok", true}, {"imported", answer.number(2)}, {"known", known}, {"skipped", skipped}});
    return kExitOk;
  }
  printf("%d jobs imported.\n", answer.number(2));
  if (known > 0) {
    printf("%lld of them are for files that the queue had already; see \"xcodectl list\".\n",
           static_cast<long long>(known));
  }
  if (skipped > 0) {
    printf("%lld could not be taken over; the service's log names them.\n",
           static_cast<long long>(skipped));
  }
  return kExitOk;
}

int Commands::sendFolder(KxCommand_e command, const FolderOptions& options,
                         const std::string& done) {
  uint64_t bits = profileBits(options.profiles);
  if (options.allProfiles) bits = (uint64_t{1} << profileNames().size()) - 1;
  if (bits == 0) throw Failure(kExitUsage, "Name the wanted profiles with --profile, or use --all");
  const std::string path = folderPath(options.path);
  m_client.demand(Request(command).text(1, path).text(2, std::to_string(bits)));
  if (m_json) {
    print({{"ok", true}, {"path", path}, {"target", bits}});
  } else {
    printf("%s %s for %s.\n", printable(path).c_str(), done.c_str(), profileText(bits).c_str());
  }
  return kExitOk;
}

int Commands::folderAdd(const FolderOptions& options) {
  return sendFolder(KX_CMD_ADD_FOLDER, options, "is watched");
}

int Commands::folderUpdate(const FolderOptions& options) {
  return sendFolder(KX_CMD_UPDATE_FOLDER, options, "is queued again");
}

int Commands::folderRemove(const std::string& path) {
  const std::string folder = folderPath(path);
  m_client.demand(Request(KX_CMD_DEL_FOLDER).text(1, folder));
  if (m_json) {
    print({{"ok", true}, {"path", folder}});
  } else {
    printf("%s is no longer watched; its jobs are forgotten.\n", printable(folder).c_str());
  }
  return kExitOk;
}

// The status with the folders of all its pages.
nlohmann::json Commands::watchStatus() {
  nlohmann::json status;
  nlohmann::json folders = nlohmann::json::array();
  for (;;) {
    const Answer answer = m_client.demand(
        Request(KX_CMD_WATCH_STATUS).number(1, static_cast<int32_t>(folders.size())));
    status = answer.json();
    const nlohmann::json page = status.value("folders", nlohmann::json::array());
    for (const auto& row : page) folders.push_back(row);
    if (page.empty() || static_cast<int32_t>(folders.size()) >= answer.number(2)) break;
  }
  status["folders"] = folders;
  return status;
}

int Commands::folderList() {
  const nlohmann::json status = watchStatus();
  if (m_json) {
    print(status);
    return kExitOk;
  }
  std::vector<std::vector<std::string>> table = {{"PROFILES", "STATE", "FOLDER"}};
  for (const auto& row : status["folders"]) {
    table.push_back(
        {profileText(static_cast<uint64_t>(std::max<int64_t>(integer(row, "target"), 0))),
         watchText(row), printable(string(row, "path"))});
  }
  printf("%s", table.size() == 1 ? "No folders.\n" : tableText(table).c_str());
  if (!status.value("notify", false) && table.size() > 1) {
    printf("Watching has not begun: the service looks through the folders first, or its log says "
           "what is wrong.\n");
  }
  const std::string scanning = string(status, "scanning");
  if (!scanning.empty()) printf("Scanning %s.\n", printable(scanning).c_str());
  if (integer(status, "queuedScans") > 0)
    printf("Scans that wait: %ld.\n", static_cast<long>(integer(status, "queuedScans")));
  if (integer(status, "lostEvents") > 0) {
    printf("Times that events were lost: %ld, last %s; %s.\n",
           static_cast<long>(integer(status, "lostEvents")),
           timeText(integer(status, "lastLost")).c_str(),
           status.value("needsScan", false) ? "a scan will repair it" : "a scan has repaired it");
  }
  return kExitOk;
}

int Commands::scan(bool stop) {
  return stop ? simple(KX_CMD_STOP_BUILD_ALL, "Scanning is stopped.")
              : simple(KX_CMD_BUILD_ALL, "All watched folders are being scanned.");
}

int Commands::config() {
  const std::string text = m_client.read(Request(KX_CMD_GET_SVR_CONF));
  if (m_json) {
    print({{"text", text}});
  } else {
    printf("%s", text.c_str());
  }
  return kExitOk;
}

}  // namespace xcodectl
