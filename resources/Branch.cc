#include "resources/Branch.h"

#include "KxHostPlatform.h"
#include "Misc.h"

namespace runner {

std::vector<int> selectedVideoRows(uint64_t flags) {
  std::vector<int> rows;
  for (int row = 0; gTransConfig[row].key != 0; ++row) {
    if ((flags >> row & 1) != 0 && gTransConfig[row].formatId != KX_FORMAT_AUDIO)
      rows.push_back(row);
  }
  return rows;
}

std::vector<Branch> collectBranches(const VideoContext& video, uint64_t& done) {
  std::vector<Branch> branches;
  for (const int row : selectedVideoRows(video.run.job().jobFlag)) {
    Branch branch{row, std::make_unique<VideoProfile>(video, gTransConfig[row]), {}};
    if (!branch.profile->obstacle().empty()) continue;
    if (branch.profile->isInPlace()) {
      done |= branch.bit();
    } else {
      branches.push_back(std::move(branch));
    }
  }
  return branches;
}

void openBranches(std::vector<Branch>& branches) {
  std::erase_if(branches, [](Branch& branch) {
    if (!branch.profile->open().empty()) return true;
    branch.command = branch.profile->transcoder().getSWCommand();
    return branch.command.empty();
  });
}

bool isTurnedOn(const char* key) {
  const std::string file = miscSystemPath("/etc/config/medialibrary.conf");
  return MyUtil_GetKeyInt("TRANSCODESVR", key, 0, file.c_str()) == 1;
}

}  // namespace runner
