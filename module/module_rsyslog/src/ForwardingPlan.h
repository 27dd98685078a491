#pragma once

#include "framework/HostChange.h"
#include "module/module_rsyslog/src/RsyslogPolicy.h"

namespace Engine {

// What a task under these settings would do to the host in its first cycle, with what the daemon
// says of that. Nothing is changed. module_procs must run.
Framework::HostChange PlanForwarding(const RsyslogPolicy::RSYSLOG_POLICY& settings);

// Takes everything that tasks have ever put into the configuration of the host's daemons out again
// and restarts the one that runs, if it is one of those; planned only, tells what that would be.
// Throws Poco::Exception for a file that cannot be read or written: those before it are done then.
Framework::HostChange RestoreForwarding(bool planned_only);

}  // namespace Engine
