// The daemon's own requests on port 29001: state, backup, restore.
//
// A request's payload is a JSON object (an empty payload is {}); keys that it does not know are ignored. The last reply
// is one adminReply with a JSON object, which holds "error" with a text when nothing came of it; what is no JSON is
// answered so too. Times are seconds since the epoch.
//
//   adminStatus       {"version", "pid", "started", "uptime_seconds", "settings", "policy_listeners": [text],
//                      "greylist": {"tuples": CACHE, "exemptions": CACHE},
//                      "backup": {"allowed", "reason", "last": BACKUP or null, "ran": {"script", "accepted"} or null,
//                      "refused": {"script", "time", "reason"} or null}, of the greylist: the last script that the
//                      database daemon has run, and a newer one that it never will, as of the last minute,
//                      "reputation": {"entries": CACHE, "backup": the same with "records" and "addresses" in place of
//                      "tuples" and "exemptions"},
//                      "endpoints": {"entries": CACHE, "exempt_list": {"load": LOAD}, "blacklist": {"load": LOAD},
//                      "backup": the same with "slices" and "subscribers"},
//                      "database": {"reachable": true, false or null, "as_of", "problem"},
//                      "active": whether this unit of a pair is the active one, true, false or null (not asked yet),
//                      "decisions": [DECISION], the sum of both fronts,
//                      "fronts": [{"front": "policy" or "milter", "decisions": [DECISION]}]}, those that are on
//                     DECISION: {"action", "reason", "count"}
//                     CACHE: {"size", "capacity", "load": LOAD}; LOAD: {"attempted", "loaded", "rows", "problem"}
//   adminBackup       BACKUP: {"accepted", "started", "milliseconds", "tuples", "exemptions", "left_out", "bytes",
//                      "problem", "reputation" and "endpoints": the same of these}; "accepted": the database daemon
//                      has the script and will run it. An "error" of one family does not keep the others from their
//                      backups; the first one is the answer's "error", too.
//   adminRestore      request {"path": absolute, "dry_run": true or false}
//                     dry run: {"path", "script": {"bytes", "modified", "tuples", "exemptions", "newest", "complete"},
//                      "tables": {"tuples", "exemptions"}, "caches": {"tuples", "exemptions"}}; of a script of sender
//                      reputation also "reputations" in "script" and "tables", and "addresses" in "caches"; of one of
//                      endpoints "slices", and "subscribers"
//                     otherwise adminProgress {"done", "total"} (bytes) at most every 100 ms, then
//                      {"path", "restored": true, "loaded": {"tuples", "exemptions"}, "milliseconds"}; with "error"
//                      beside them when the tables were restored but could not be loaded. A client that goes away
//                      meanwhile abandons the restore, and the tables stay as they were.
//   adminAcceptEmpty  request {"family": "greylist" (unless told otherwise), "reputation" or "endpoint"}
//                     {"changed", "tuples", "exemptions"}, {"changed", "addresses"} or {"changed", "subscribers"}:
//                      backups are allowed from now on, of so many records
//
// All of them run on workers. Each but adminStatus leaves a line in the log.
#pragma once

#include "daemon/AdminServices.h"
#include "foundation/ipc/Dispatcher.h"

namespace Vellum::Daemon {

// Registers the four handlers. The services are borrowed; they outlive the dispatcher's service.
void addAdminHandlers(AdminServices& services,
                      IPC::Dispatcher& dispatcher = IPC::Dispatcher::instance(IPC::stateDaemonPort));

} // namespace Vellum::Daemon
