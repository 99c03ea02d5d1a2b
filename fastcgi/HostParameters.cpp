// Finds the parameters that the host reads. Tested in tests/fastcgi/HostParametersTest.cpp.

#include "fastcgi/HostParameters.h"

#include <cstring>
#include <string_view>

namespace {

using Field = const char* HostParameters::*;

// The field of the parameter that begins with `text`; *text is then its value. A name is compared
// in parts, because most parameters are others whose names begin alike.
Field FieldOf(const char** text) {
  const auto begins = [text](std::string_view part) {
    if (strncmp(*text, part.data(), part.size()) != 0) return false;
    *text += part.size();
    return true;
  };
  switch (**text) {
    case 'C':
      if (!begins("CONTENT_")) return nullptr;
      if (**text == 'T') return begins("TYPE=") ? &HostParameters::content_type : nullptr;
      return begins("LENGTH=") ? &HostParameters::content_length : nullptr;
    case 'H':
      if (!begins("HTTP")) return nullptr;
      if (**text == 'S') return begins("S=") ? &HostParameters::https : nullptr;
      return begins("_COOKIE=") ? &HostParameters::cookie : nullptr;
    case 'P': return begins("PATH_INFO=") ? &HostParameters::path_info : nullptr;
    case 'Q': return begins("QUERY_STRING=") ? &HostParameters::query_string : nullptr;
    case 'S':
      if ((*text)[1] == 'C') return begins("SCRIPT_NAME=") ? &HostParameters::script_name : nullptr;
      if (!begins("SERVER_")) return nullptr;
      if (**text == 'N') return begins("NAME=") ? &HostParameters::server_name : nullptr;
      return begins("PORT=") ? &HostParameters::server_port : nullptr;
    case 'Z': return begins("ZpCONFIG_LIBRARY=") ? &HostParameters::config_library : nullptr;
    default: return nullptr;
  }
}

}  // namespace

HostParameters::HostParameters(const char* const* parameters) {
  for (; parameters && *parameters; parameters++) {
    const char* text = *parameters;
    const Field field = FieldOf(&text);
    if (field && !(this->*field)) this->*field = text;
  }
}
