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

// Registers the job on the best of some resources while it lives; the unit shows the
// registration. The choice and the registration are one step for all other units: two that
// choose at the same instant get two cards.
class Registration {
 public:
  Registration(JobRun& run, const std::vector<KxResource2>& candidates, const KxRegInfo& info);
  ~Registration();
  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;

  // The resource that was chosen, also when it does not take the job.
  KxResource2& resource() { return m_resource; }
  // False when the resource does not take the job.
  bool valid() const { return m_registered; }

 private:
  bool enter(const KxRegInfo& info);

  JobRun& m_run;
  KxResource2 m_resource;
  KxRegister m_reg;
  bool m_registered = false;
};

// What one attempt on one resource came to.
struct Attempt {
  bool ok = false;
  std::string fault;  // why it failed
};

// Makes one attempt on the best of the candidates, registered on it for as long as that lasts,
// takes it from them and logs the outcome.
// @param candidates not empty
// @param resId receives the id of the chosen resource
Attempt attemptOnBest(JobRun& run, std::vector<KxResource2>& candidates, const KxRegInfo& info,
                      const std::function<Attempt(KxResource2&)>& attempt, std::string& resId);

// Tries a conversion on each resource in turn until one succeeds or the run has to end.
// @return empty on success; else why no resource did it
std::string tryResources(JobRun& run, const KxRegInfo& info,
                         const std::function<Attempt(KxResource2&)>& attempt);

}  // namespace runner
