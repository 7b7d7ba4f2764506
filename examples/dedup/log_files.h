// The log files that a configuration file asks for.
#pragma once

namespace dedup {

/// Sets up the reports as the section [Logging] of the file says, and removes log files that are
/// too old. Standard error gets warnings and errors, when there is no log file also what else the
/// section names. A null or empty `config` says nothing. False after a report.
bool set_up_log(const char* config);

}  // namespace dedup
