// The process around a run: the thread of the script, its clock, and the signals that end it.

#ifndef ZEPH_COMMANDLINE_RUN_H
#define ZEPH_COMMANDLINE_RUN_H

struct Options;

// Runs the script on a thread of its own while the calling one, which is the only one of the
// process, gives it the time and waits for signals. SIGINT, SIGTERM, SIGHUP and SIGQUIT end the
// script in order, a second one of them ends the process at once; what was ignored at the start
// stays ignored. Answers the exit status.
int RunScript(int argc, char** argv, const Options& options);

#endif
