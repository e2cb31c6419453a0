// Process-level signal handling of the platform.
#pragma once

// Fatal signals log a backtrace and end the process; SIGPIPE is ignored (a
// vanished peer shows as a failed write), and so are SIGHUP and SIGUSR1.
void st_init_crash_signal_handlers(int argc, char **argv);
// Writes the pid into the file (created with mode 0644). 0 or -1.
int pid_output(const char *path);
