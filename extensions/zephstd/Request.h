// What functions of other groups ask of the request.

#ifndef ZEPH_EXTENSIONS_ZEPHSTD_REQUEST_H
#define ZEPH_EXTENSIONS_ZEPHSTD_REQUEST_H

#include "api/zeph.h"

namespace zephstd {

// Whether the page was asked through a web server.
bool HasWebServer(ZPPROGRAM program);
// Whether the web server was asked by HTTPS.
bool IsSecure(ZPPROGRAM program);

}  // namespace zephstd

#endif
