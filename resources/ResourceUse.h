#pragma once

#include <functional>
#include <string>
#include <vector>

#include "KxResMgr2.h"
#include "resources/JobRun.h"

namespace runner {

// The resources to try, best first; empty when there are none, which is logged.
// @param level of those messages
std::vector<KxResource2> resourcesToTry(int level);

// Details of a job's registrations.
KxRegInfo registrationInfo(const JobRun& run, int width, int height);

// Registers the job on a resource while it lives; the unit shows the registration.
class Registration {
 public:
  Registration(JobRun& run, const KxResource2& resource, const KxRegInfo& info);
  ~Registration();
  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;

  // False when the resource does not take the job.
  bool valid() const { return m_registered; }

 private:
  bool enter();

  JobRun& m_run;
  KxRegister m_reg;
  bool m_registered = false;
};

// What one attempt on one resource came to.
struct Attempt {
  bool ok = false;
  std::string fault;  // why it failed
};

// Makes one attempt, registered on the resource for as long as it lasts, and logs its outcome.
Attempt attemptOn(JobRun& run, KxResource2& resource, const KxRegInfo& info,
                  const std::function<Attempt(KxResource2&)>& attempt);

// Tries a conversion on each resource in turn until one succeeds or the run has to end.
// @return empty on success; else why no resource did it
std::string tryResources(JobRun& run, const KxRegInfo& info,
                         const std::function<Attempt(KxResource2&)>& attempt);

}  // namespace runner
