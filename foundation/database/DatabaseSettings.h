// The [database] section of a settings file.
#pragma once

#include "foundation/Settings.h"
#include "foundation/database/ServerMap.h"

namespace Vellum::Database {

// Reads the section into the values of the server map. Keys, all optional:
//   host, port                    the server; not together with socket
//   socket                        path of its Unix socket
//   user                          account, "vellum" unless told
//   password or password_file     at most one; the file's first line, for a settings file that others may read
//   tls, tls_ca                   require TLS; check the server's certificate against this file of authorities
//   connect_timeout_seconds       1 to 300, default 5
//   read_timeout_seconds          1 to 86400; also for writing
// Throws SettingsError; unknown keys are the caller's to refuse.
Server readServer(SettingsTable const& database, unsigned int defaultReadTimeoutSeconds = 60);

} // namespace Vellum::Database
