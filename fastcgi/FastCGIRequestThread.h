// The body of a request thread.

#ifndef ZEPH_FASTCGI_FASTCGIREQUESTTHREAD_H
#define ZEPH_FASTCGI_FASTCGIREQUESTTHREAD_H

// Accepts requests and runs them one after the other until the process shuts down or accept fails
// for good. The argument is the FastCGIThread, whose own argument is the _FastCGIMainArgs.
void* FastCGIRequestThread(void* thread);

#endif
