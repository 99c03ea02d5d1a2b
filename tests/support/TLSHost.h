// A host whose connections can be encrypted, for tests.

#ifndef ZEPH_TESTS_SUPPORT_TLSHOST_H
#define ZEPH_TESTS_SUPPORT_TLSHOST_H

#include <cstring>
#include <string>

#include "base/host/Config.h"
#include "base/systems/unix/UNIXApplication.h"
#include "base/systems/unix/UNIXNetworkManager.h"
#include "base/systems/unix/UNIXReentrantFile.h"

class TLSHost : public UNIXApplication {
 public:
  // The directory is dir_data; empty for a host without one.
  explicit TLSHost(const std::string& directory = "")
      : UNIXApplication(0, nullptr, 0, nullptr, nullptr) {
    configuration = new Config;
    network_manager = new UNIXNetworkManager(this);
    file_manager = new UNIXReentrantFileManager(this);
    if (!directory.empty()) {
      static_cast<void>(file_manager->InitializeDataDirectory(directory.c_str()));
    }
  }

  TLSHost& Set(ConfigID setting, const std::string& value) {
    configuration->SetValue(setting, zeph_strdup(value.c_str()), -1, 1);
    return *this;
  }
  TLSHost& Set(ConfigID setting, int value) {
    configuration->SetValue_Integer(setting, value);
    return *this;
  }
};

#endif
