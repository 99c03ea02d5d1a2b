// The parameters of a request that the host itself reads, found in one pass over all of them.

#ifndef ZEPH_FASTCGI_HOSTPARAMETERS_H
#define ZEPH_FASTCGI_HOSTPARAMETERS_H

// Values point into the parameters; null for one that the web server did not send. Names are
// compared with regard to case, and of two with one name the first counts.
struct HostParameters {
  // "name=value" each, with a null after the last; borrowed. Null has none.
  explicit HostParameters(const char* const* parameters);

  const char* config_library = nullptr;  // ZpCONFIG_LIBRARY
  const char* content_length = nullptr;
  const char* content_type = nullptr;
  const char* cookie = nullptr;  // HTTP_COOKIE
  const char* https = nullptr;
  const char* path_info = nullptr;
  const char* query_string = nullptr;
  const char* script_name = nullptr;
  const char* server_name = nullptr;
  const char* server_port = nullptr;
};

#endif
