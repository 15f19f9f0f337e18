// A job as scripts of the UEFI shell, which only execute.
#pragma once

#include "job.h"

#include <map>
#include <string>

namespace jobs {

/// The job's own scripts by file name, with the line ends of the shell. The medium's fixed scripts
/// call them:
///   settings.nsh  sets what is the same for all adapters
///   plan.nsh      sets what is to be done with the adapter of JobIds and JobPlace, JobPlan is none
///   when
///                 the job has nothing for it, and counts
///   count.nsh     sets JobWrong when other adapters were counted than the job expects
std::map<std::string, std::string> compile(const Job& job);

} // namespace jobs
