// The commands, one function each; what they return is the exit status.
#pragma once
#include <string>

#include "tools/lumoctl/options.h"

namespace lumo::ctl {

int RunList(const Options& options);
int RunShow(const Options& options);
int RunDefault(const Options& options);
int RunAdd(const Options& options);
int RunSet(const Options& options);
int RunDelete(const Options& options);
int RunPath(const Options& options);
int RunLock(const Options& options);
int RunUnlock(const Options& options);
int RunStatus(const Options& options);
int RunQuery(const Options& options);
int RunWait(const Options& options);
int RunPing(const Options& options);
int RunRefresh(const Options& options);
int RunApply(const Options& options);
int RunLint(const Options& options);
int RunReport(const Options& options);
int RunExport(const Options& options);
int RunStats(const Options& options);
int RunClients(const Options& options);
int RunTop(const Options& options);
int RunDrain(const Options& options);
int RunLog(const Options& options);
int RunTrace(const Options& options);

// What --version prints: this program, its library, the agent's program.
std::string VersionText(const Options& options);

}  // namespace lumo::ctl
