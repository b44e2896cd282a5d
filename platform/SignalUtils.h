// Termination signal handling. The handler does not run in signal context: the
// signal is forwarded through a pipe to a watcher thread, which calls it, so
// the handler may log, take locks and stop the endpoint.
#pragma once

#include <functional>

namespace Orm::Common::SignalUtils {

// SignalsInit installs |handler| for SIGTERM and SIGINT and ignores SIGPIPE.
// Returns false when the handlers cannot be installed.
bool SignalsInit(std::function<void(int)> handler);

// SignalsExit restores the default dispositions. Safe to call from the handler
// and more than once.
void SignalsExit();

}  // namespace Orm::Common::SignalUtils
