// The command line of the process: -t thread count, -p process title.

#ifndef ZEPH_FASTCGI_ARGUMENTS_H
#define ZEPH_FASTCGI_ARGUMENTS_H

struct _FastCGIMainArgs;

// A new array of new copies; the caller frees it with FreeArgs. Backslashes are removed, from the
// given texts as well.
char** CopyArgs(int argc, char** argv);
void FreeArgs(int argc, char** copies);

// Reads the options. "-t" and a number above 0 sets the thread count; anything else leaves it.
// "-p" and a text makes that text the title of the process in listings: it overwrites the texts of
// arguments.arguments, which lie one behind the other in memory, and leaves one of them. The copied
// arguments stay as they are. An option without its value, and any other argument, is passed over.
void Process_CommandLine_Args(_FastCGIMainArgs* arguments);

#endif
