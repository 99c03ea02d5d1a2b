// The command line of the process: -t thread count, -p process title.

#ifndef ZEPH_FASTCGI_ARGUMENTS_H
#define ZEPH_FASTCGI_ARGUMENTS_H

struct _FastCGIMainArgs;

// Copies the arguments. The caller frees the array with FreeArgs. Backslashes are removed from the
// copies and also, in place, from the given texts.
char** CopyArgs(int argc, char** argv);
void FreeArgs(int argc, char** copies);

// Reads the options. "-t" with a number of 1 or more sets the thread count; any other value leaves
// it, with a line on standard error. "-p" with a text makes that text the title of the process in
// listings: it overwrites the texts of arguments.arguments, which follow one another in memory, and
// sets the count of arguments to 1. The copied arguments stay as they are. An option without its
// value and any other argument are ignored.
void Process_CommandLine_Args(_FastCGIMainArgs* arguments);

#endif
