#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <initializer_list>

#include <CLI/CLI.hpp>

#include "Misc.h"
#include "daemon/Configuration.h"
#include "daemon/InstanceLock.h"
#include "daemon/StopSignal.h"
#include "daemon/TranscodeServer.h"
#include "host/HostLog.h"

namespace fs = std::filesystem;

namespace {

int fail(const std::string& why) {
  fprintf(stderr, "xcoded: %s\n", why.c_str());
  return 1;
}

// The process leaves its working folder, so paths are made absolute before that.
std::string absolute(const std::string& path) {
  if (path.empty()) return path;
  std::string full = fs::absolute(path).lexically_normal().string();
  while (!full.empty() && full.back() == '/') full.pop_back();
  return full;
}

int detachFromTerminal(xcoded::TranscodeServer& server) {
  if (server.createDaemon() != 0) return fail("cannot become a daemon");
  // It leaves no file mode mask, but nobody else may write the service's files.
  umask(022);
  return 0;
}

void connectToNull(std::initializer_list<int> descriptors) {
  const int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (fd < 0) return;
  for (const int descriptor : descriptors) dup2(fd, descriptor);
  close(fd);
}

// Called when the process is the one that will serve: a log that was opened before a fork
// does not follow it.
void openLog(const xcoded::Configuration& conf, bool foreground) {
  kxhost::LogSettings settings;
  settings.file = conf.logFile;
  settings.standardError = foreground;
  settings.level = conf.logLevel;
  if (kxhost::configureLog(settings) != 0) fail("cannot open the log file " + conf.logFile);
}

int serve(const xcoded::CommandLine& line) {
  using namespace xcoded;
  miscSetSystemRoot(line.root);
  const Configuration conf = Configuration::read(line);
  if (conf.socketPath.size() >= sizeof(sockaddr_un::sun_path))
    return fail("the path of the control socket is too long: " + conf.socketPath);
  for (const std::string& file : {conf.lockPath, conf.socketPath, conf.dbPath, conf.logFile})
    if (!file.empty() && !makeFolder(fs::path(file).parent_path())) return 1;
  InstanceLock lock;
  if (!lock.take(conf.lockPath)) return fail(lock.error());

  TranscodeServer server(conf, !line.foreground);
  if (!StopSignal::install()) return fail("cannot install signal handlers");
  if (line.foreground) {
    connectToNull({STDIN_FILENO});
  } else if (detachFromTerminal(server) != 0) {
    return 1;
  }
  openLog(conf, line.foreground);
  lock.writePid();
  if (server.svrInit() != 0) _exit(fail("cannot start, see the service log"));
  // Until here a caller reads what went wrong; from here on it must not wait for an end of
  // output that does not come.
  if (!line.foreground) connectToNull({STDOUT_FILENO, STDERR_FILENO});
  // Detached threads outlive the singletons, so no destructor of them may run.
  _exit(server.svrRun());
}

int runProgram(int argc, char** argv) {
  xcoded::CommandLine line;
  CLI::App app("The media transcoding service", "xcoded");
  app.set_version_flag("--version", std::string("xcoded ") + KX_VERSION);
  app.add_flag("--foreground", line.foreground, "Stay in the foreground");
  app.add_option("--root", line.root, "Folder that holds the service's fixed paths")
      ->check(CLI::ExistingDirectory);
  app.add_option("--socket", line.socket,
                 "Control socket (default: run/xcode/control.sock under the root)");
  CLI11_PARSE(app, argc, argv);
  line.root = absolute(line.root);
  line.socket = absolute(line.socket);
  return serve(line);
}

}  // namespace

int main(int argc, char** argv) {
  // Short-lived client threads would each keep memory of their own otherwise.
  mallopt(M_ARENA_MAX, 2);
  umask(022);
  try {
    return runProgram(argc, argv);
  } catch (const std::exception& error) {
    fputs("xcoded: ", stderr);
    fputs(error.what(), stderr);
    return 1;
  }
}
