// Finds the parameters that the host reads. Tested in tests/fastcgi/HostParametersTest.cpp.

#include "fastcgi/HostParameters.h"

#include <cstring>
#include <string_view>

namespace {

using Field = const char* HostParameters::*;

// The field of the parameter that begins with `text`, and the length of its name and the "=". The
// name is looked for only among those with its first letter, because most parameters are others.
Field FieldOf(const char* text, size_t* length) {
  const auto begins = [=](std::string_view name) {
    *length = name.size();
    return strncmp(text, name.data(), name.size()) == 0;
  };
  switch (*text) {
    case 'C':
      if (begins("CONTENT_TYPE=")) return &HostParameters::content_type;
      if (begins("CONTENT_LENGTH=")) return &HostParameters::content_length;
      return nullptr;
    case 'H':
      if (begins("HTTPS=")) return &HostParameters::https;
      if (begins("HTTP_COOKIE=")) return &HostParameters::cookie;
      return nullptr;
    case 'P': return begins("PATH_INFO=") ? &HostParameters::path_info : nullptr;
    case 'Q': return begins("QUERY_STRING=") ? &HostParameters::query_string : nullptr;
    case 'S':
      if (begins("SERVER_NAME=")) return &HostParameters::server_name;
      if (begins("SERVER_PORT=")) return &HostParameters::server_port;
      if (begins("SCRIPT_NAME=")) return &HostParameters::script_name;
      return nullptr;
    case 'Z': return begins("ZpCONFIG_LIBRARY=") ? &HostParameters::config_library : nullptr;
    default: return nullptr;
  }
}

}  // namespace

HostParameters::HostParameters(const char* const* parameters) {
  for (; parameters && *parameters; parameters++) {
    size_t length;
    const Field field = FieldOf(*parameters, &length);
    if (field && !(this->*field)) this->*field = *parameters + length;
  }
}
