#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>

#include <CLI/CLI.hpp>

#include "cli/Commands.h"
#include "cli/Text.h"

namespace {

using xcodectl::Commands;

// Everything that the command line can carry, and what to do once it is parsed.
struct Program {
  std::string root;
  std::string socket;
  int timeout = 10;
  bool json = false;

  xcodectl::AddOptions add;
  xcodectl::ListOptions list;
  xcodectl::FolderOptions watched;
  std::vector<int64_t> ids;
  int64_t id = 0;
  int64_t other = 0;
  std::string file;
  std::string folder;
  std::string word;
  int seconds = -1;
  int cpu = 0;
  int mem = 0;
  bool flag = false;

  std::function<int(Commands&)> action;

  std::string socketPath() const {
    return socket.empty() ? root + "/run/xcode/control.sock" : socket;
  }
};

CLI::App* command(CLI::App& app, Program& program, const std::string& name, const std::string& help,
                  std::function<int(Commands&)> action) {
  CLI::App* sub = app.add_subcommand(name, help);
  sub->callback([&program, action = std::move(action)] { program.action = action; });
  sub->fallthrough();
  return sub;
}

void addJobCommands(CLI::App& app, Program& p) {
  CLI::App* add = command(app, p, "add", "Queue files", [&p](Commands& c) { return c.add(p.add); });
  add->add_option("file", p.add.files, "Media files, disc images or disc folders")->required();
  add->add_option("-p,--profile", p.add.profiles, "Profiles, separated by commas")
      ->delimiter(',')
      ->allow_extra_args(false);
  add->add_flag("--all", p.add.allProfiles, "Every profile");
  add->add_option("--rotate", p.add.rotation, "Rotation of the source in degrees")
      ->check(CLI::IsMember({0, 90, 180, 270}));
  add->add_option("--audio", p.add.audioTrack, "Audio track, from 0")
      ->check(CLI::NonNegativeNumber);
  add->add_option("--video", p.add.videoTrack, "Video track, from 0")
      ->check(CLI::NonNegativeNumber);
  add->add_option("--subtitle", p.add.subtitle, "Subtitle file to burn in");
  add->add_option("--subtitle-track", p.add.subtitleTrack, "Embedded subtitle to burn in, from 0");
  add->add_option("--subtitle-size", p.add.subtitleSize, "Size of the subtitle's text");
  add->add_option("--subtitle-shift", p.add.subtitleShift, "Time shift of the subtitle, seconds");
  add->add_option("--subtitle-color", p.add.subtitleColor,
                  "Colour of the subtitle's text: a name such as yellow, or #rrggbb");
  add->add_option("--priority", p.add.priority, "Lower runs first");
  add->add_flag("--wait", p.add.wait, "Wait for the jobs, as 'wait' does");

  CLI::App* list =
      command(app, p, "list", "Show the queue", [&p](Commands& c) { return c.list(p.list); });
  list->add_option("--status", p.list.status, "all, waiting, running, done, failed or cancelled");
  list->add_option("--limit", p.list.limit, "At most this many rows")->check(CLI::PositiveNumber);
  list->add_option("--offset", p.list.offset, "Leave out so many rows")
      ->check(CLI::NonNegativeNumber);
  list->add_option("--order", p.list.order, "Column to sort by");
  list->add_flag("--desc", p.list.descending, "Largest first");

  command(app, p, "show", "Everything about one job", [&p](Commands& c) { return c.show(p.id); })
      ->add_option("id", p.id, "Job")
      ->required();
  command(app, p, "watch", "Live progress of the running jobs", [&p](Commands& c) {
    return c.watch(p.flag);
  })->add_flag("--once", p.flag, "Print once and end");

  const auto withIds = [&](const char* name, const char* help, auto action) {
    command(app, p, name, help, std::move(action))->add_option("id", p.ids, "Jobs")->required();
  };
  withIds("wait", "Wait until jobs have ended", [&p](Commands& c) { return c.wait(p.ids); });
  withIds("cancel", "Stop jobs and keep their rows as cancelled",
          [&p](Commands& c) { return c.cancel(p.ids); });
  withIds("retry", "Put ended jobs back into the queue",
          [&p](Commands& c) { return c.retry(p.ids); });

  CLI::App* remove = command(app, p, "delete", "Stop jobs and forget them",
                             [&p](Commands& c) { return c.remove(p.ids, p.file, p.folder); });
  remove->add_option("id", p.ids, "Jobs");
  remove->add_option("--file", p.file, "All jobs of this file");
  remove->add_option("--folder", p.folder, "All jobs of files in this folder");

  CLI::App* move = command(app, p, "move", "Move a job to a place of the queue",
                           [&p](Commands& c) { return c.move(p.id, p.other); });
  move->add_option("id", p.id, "Job")->required();
  move->add_option("rank", p.other, "Place, from 1")->required()->check(CLI::PositiveNumber);

  CLI::App* swap = command(app, p, "swap", "Exchange the places of two jobs",
                           [&p](Commands& c) { return c.swapPlaces(p.id, p.other); });
  swap->add_option("id", p.id, "Job")->required();
  swap->add_option("with", p.other, "Other job")->required();

  command(app, p, "clean", "Forget ended jobs", [&p](Commands& c) {
    return c.clean(p.flag);
  })->add_flag("--waiting", p.flag, "Forget waiting and running jobs instead");
  command(app, p, "import-legacy", "Take over the queue of the older generation",
          [&p](Commands& c) { return c.importLegacy(p.file); })
      ->add_option("file", p.file, "Its database")
      ->required();
}

void addServiceCommands(CLI::App& app, Program& p) {
  command(app, p, "start", "Start the service's work", [](Commands& c) { return c.start(); });
  command(app, p, "stop", "Stop all work", [](Commands& c) { return c.stop(); });
  command(app, p, "pause", "Pause all work", [&p](Commands& c) { return c.pause(p.seconds); })
      ->add_option("seconds", p.seconds, "Length of the pause; without it, until 'resume'")
      ->check(CLI::PositiveNumber);
  command(app, p, "resume", "End a pause", [](Commands& c) { return c.resume(); });
  command(app, p, "status", "State of the service", [](Commands& c) { return c.status(); });

  CLI::App* limits = command(app, p, "limits", "Show or set the limits", nullptr);
  CLI::Option* cpu =
      limits->add_option("--cpu", p.cpu, "Percent of all processors; 100 for no limit")
          ->check(CLI::Range(1, 100));
  CLI::Option* mem = limits->add_option("--mem", p.mem, "Kilobytes; -1 for the automatic limit");
  limits->callback([&p, cpu, mem] {
    p.action = [&p, cpu, mem](Commands& c) {
      return c.limits(cpu->count() ? &p.cpu : nullptr, mem->count() ? &p.mem : nullptr);
    };
  });

  command(app, p, "resources", "Transcoding resources and who uses them",
          [](Commands& c) { return c.resources(); });
  command(app, p, "processes", "Registrations on the resources",
          [](Commands& c) { return c.processes(); });
  command(app, p, "units", "Units and their jobs", [](Commands& c) { return c.units(); });
  command(app, p, "hwaccel", "Show or set the hardware transcoding switch",
          [&p](Commands& c) { return c.hwaccel(p.word); })
      ->add_option("value", p.word, "on or off")
      ->check(CLI::IsMember({"on", "off"}));
  command(app, p, "dump", "Write details into the service's log",
          [&p](Commands& c) { return c.dump(p.word); })
      ->add_option("what", p.word, "resources, units or jobs; all when left out")
      ->check(CLI::IsMember({"resources", "units", "jobs"}));
}

void addFolderCommands(CLI::App& app, Program& p) {
  CLI::App* folder = app.add_subcommand("folder", "Watched folders");
  folder->require_subcommand(1);
  folder->fallthrough();
  const auto withProfiles = [&](const char* name, const char* help, auto action) {
    CLI::App* sub = command(*folder, p, name, help, std::move(action));
    sub->add_option("path", p.watched.path, "Folder")->required();
    sub->add_option("-p,--profile", p.watched.profiles, "Profiles, separated by commas")
        ->delimiter(',')
        ->allow_extra_args(false);
    sub->add_flag("--all", p.watched.allProfiles, "Every profile");
  };
  withProfiles("add", "Transcode what lands in a folder",
               [&p](Commands& c) { return c.folderAdd(p.watched); });
  withProfiles("update", "Change the profiles of a folder and queue its files again",
               [&p](Commands& c) { return c.folderUpdate(p.watched); });
  command(*folder, p, "remove", "Stop watching a folder and forget its jobs",
          [&p](Commands& c) { return c.folderRemove(p.watched.path); })
      ->add_option("path", p.watched.path, "Folder")
      ->required();
  command(*folder, p, "list", "Watched folders and how they are watched",
          [](Commands& c) { return c.folderList(); });

  command(app, p, "scan", "Look through all watched folders", [&p](Commands& c) {
    return c.scan(p.flag);
  })->add_flag("--stop", p.flag, "Stop scanning instead, and drop the scans that wait");
  command(app, p, "config", "The watched folders as the service stores them",
          [](Commands& c) { return c.config(); });
}

int runProgram(int argc, char** argv) {
  CLI::App app{"Controls the transcoding service.", "xcodectl"};
  app.set_version_flag("--version", std::string("xcodectl ") + KX_VERSION);
  app.require_subcommand(1);
  app.fallthrough();
  Program program;
  app.add_option("--root", program.root, "Private root of the service");
  app.add_option("--socket", program.socket, "Control socket");
  app.add_option("--timeout", program.timeout, "Seconds to wait for an answer")
      ->check(CLI::Range(1, 3600));
  app.add_flag("--json", program.json, "Print JSON");
  addJobCommands(app, program);
  addFolderCommands(app, program);
  addServiceCommands(app, program);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? xcodectl::kExitOk : xcodectl::kExitUsage;
  }
  try {
    Commands commands(xcodectl::ControlClient(program.socketPath(), program.timeout), program.json);
    return program.action(commands);
  } catch (const xcodectl::Failure& failure) {
    fprintf(stderr, "xcodectl: %s\n", xcodectl::printable(failure.what()).c_str());
    return failure.code();
  }
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  try {
    return runProgram(argc, argv);
  } catch (const std::exception& error) {
    fprintf(stderr, "xcodectl: %s\n", error.what());
    return xcodectl::kExitFailed;
  }
}
