// What zeph-fcgi does for a person at a shell: it explains itself, and checks its settings. The
// engine itself is started by a web server or a supervisor, with a listening socket.

#ifndef ZEPH_FASTCGI_SHELLOPTIONS_H
#define ZEPH_FASTCGI_SHELLOPTIONS_H

// Whether descriptor 0 is a listening socket; otherwise errno says why not, 0 for another socket.
bool IsListening(int descriptor);

// Runs --help, -h, --version or --check [FILE] if that is the first argument, and leaves the exit
// status in *status. Returns false if it is something else, or if descriptor 0 listens: to an
// engine, every first argument may be a script's path.
[[nodiscard]] bool RunShellOption(int argc, char** argv, int* status);

#endif
