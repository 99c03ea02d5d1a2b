// The body of a request thread.

#ifndef ZEPH_FASTCGI_FASTCGIREQUESTTHREAD_H
#define ZEPH_FASTCGI_FASTCGIREQUESTTHREAD_H

class FastCGITaskThread;
struct FCGX_Request;
struct _FastCGIMainArgs;

// Accepts requests and runs them one after the other until the process shuts down or accept fails
// for good. The argument is the FastCGIThread, whose own argument is the _FastCGIMainArgs.
void* FastCGIRequestThread(void* thread);

// Runs one request that was accepted, up to the last bytes of its response. If a hostile length
// needs more memory than there is, the request ends and not the process. All pointers are borrowed.
void AnswerRequest(FastCGITaskThread* thread, _FastCGIMainArgs* arguments, FCGX_Request* request);

#endif
