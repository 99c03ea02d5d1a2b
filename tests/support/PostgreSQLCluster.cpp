// Makes and runs a PostgreSQL server for tests.

#include "tests/support/PostgreSQLCluster.h"
#include "tests/support/SignalProcess.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

const char kPrograms[] = "/usr/lib/postgresql/15/bin/";
const char kUser[] = "nobody";
constexpr int kTries = 1500;  // of 20 milliseconds

void Pause() {
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

}  // namespace

bool PostgreSQLCluster::IsInstalled() {
  return access((std::string(kPrograms) + "initdb").c_str(), X_OK) == 0;
}

std::vector<std::string> PostgreSQLCluster::AsUser(std::vector<std::string> arguments) {
  if (geteuid() == 0) {
    const std::vector<std::string> before = {"/usr/bin/setpriv", std::string("--reuid=") + kUser,
                                             "--regid=nogroup", "--clear-groups",
                                             "--pdeathsig=INT"};
    arguments.insert(arguments.begin(), before.begin(), before.end());
  }
  return arguments;
}

PostgreSQLCluster::PostgreSQLCluster() {
  if (geteuid() == 0) {
    const passwd* const user = getpwnam(kUser);
    EXPECT_TRUE(user && chown(directory.path().c_str(), user->pw_uid, user->pw_gid) == 0);
    EXPECT_EQ(chmod(directory.path().c_str(), 0755), 0);
  }
  Command initdb(
      AsUser({std::string(kPrograms) + "initdb", "-D", directory.path("data"), "-U", "zeph",
              "--auth=trust", "--encoding=UTF8", "--locale=C.UTF-8", "--no-sync"}));
  initdb.directory = "/";
  EXPECT_EQ(initdb.Run(), 0) << initdb.output << initdb.errors;
  Start();
}

PostgreSQLCluster::~PostgreSQLCluster() {
  if (!server) return;
  Thaw();
  Stop();
}

std::string PostgreSQLCluster::Connection() const {
  return "host=" + directory.path() + " user=zeph dbname=postgres";
}

void PostgreSQLCluster::Start() {
  server = std::make_unique<Command>(
      AsUser({std::string(kPrograms) + "postgres", "-D", directory.path("data"), "-k",
              directory.path(), "-c", "listen_addresses=", "-c", "fsync=off", "-c",
              "shared_buffers=16MB", "-c", "max_connections=50"}));
  server->directory = "/";
  server->output_file = directory.path("output");
  server->Start();
  for (int i = 0; i < kTries; i++) {
    Command ready({std::string(kPrograms) + "pg_isready", "-h", directory.path(), "-U", "zeph",
                   "-d", "postgres"});
    if (ready.Run() == 0) return;
    Pause();
  }
  ADD_FAILURE() << "the server does not start: " << directory.Content("output");
}

void PostgreSQLCluster::Stop() {
  server->Signal(SIGINT);  // without waiting for its clients
  server->WaitForEnd();
  server.reset();
}

std::vector<pid_t> PostgreSQLCluster::Processes() const {
  std::vector<pid_t> found;
  int first = 0;
  std::istringstream(directory.Content("data/postmaster.pid")) >> first;
  if (first <= 0) return found;
  found.push_back(first);
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream file(entry.path() / "stat");
    std::string text;
    std::getline(file, text);            // nothing, if the process has ended by now
    const size_t end = text.rfind(')');  // of the command, which may have blanks
    if (end == std::string::npos) continue;
    char state;
    int parent = 0;
    std::istringstream(text.substr(end + 1)) >> state >> parent;
    if (parent == first) found.push_back(std::stoi(name));
  }
  return found;
}

void PostgreSQLCluster::Signal(int number) const {
  for (const pid_t process : Processes()) SignalProcess(process, number);
}

void PostgreSQLCluster::Freeze() {
  Signal(SIGSTOP);
}

void PostgreSQLCluster::Thaw() {
  Signal(SIGCONT);
}

std::string PostgreSQLCluster::Run(const std::string& sql) const {
  Command client({std::string(kPrograms) + "psql", "-XAtq", "-d", Connection(), "-c", sql});
  EXPECT_EQ(client.Run(), 0) << client.errors;
  return client.output;
}
