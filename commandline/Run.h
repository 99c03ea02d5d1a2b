// The process around a run: the thread of the script, its clock, and the signals that end it.

#ifndef ZEPH_COMMANDLINE_RUN_H
#define ZEPH_COMMANDLINE_RUN_H

struct Options;

// Runs the script on a thread of its own. The calling thread, the only other one, passes the time
// to it and waits for signals. The first SIGINT, SIGTERM, SIGHUP or SIGQUIT ends the script in
// order, a second one ends the process at once. A signal that was ignored at the start stays
// ignored. Returns the exit status.
int RunScript(int argc, char** argv, const Options& options);

#endif
