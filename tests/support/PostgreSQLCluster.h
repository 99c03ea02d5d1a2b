// A PostgreSQL server of a test's own, with its data and its socket in a temporary directory. It
// runs as an unprivileged user if the test is root, because the server refuses to be root.

#ifndef ZEPH_TESTS_SUPPORT_POSTGRESQLCLUSTER_H
#define ZEPH_TESTS_SUPPORT_POSTGRESQLCLUSTER_H

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/Command.h"
#include "tests/support/TemporaryDirectory.h"

class PostgreSQLCluster {
 public:
  // Whether the server's programs are installed.
  static bool IsInstalled();

  // Makes the cluster and starts its server. An error fails the test.
  PostgreSQLCluster();
  // Ends the server.
  ~PostgreSQLCluster();
  PostgreSQLCluster(const PostgreSQLCluster&) = delete;
  PostgreSQLCluster& operator=(const PostgreSQLCluster&) = delete;

  // What a client needs to connect as the owner of the cluster.
  std::string Connection() const;
  // Ends the server, with the connections that are open, and waits until it is gone.
  void Stop();
  // Starts it, and waits until it takes connections.
  void Start();
  // Stops all processes of the server as they are: they keep their connections and do nothing. The
  // second function lets them go on.
  void Freeze();
  void Thaw();
  // Runs SQL with the server's own client. Returns its output, unaligned and without headings.
  std::string Run(const std::string& sql) const;

 private:
  // The command line, as the user that the server runs as.
  static std::vector<std::string> AsUser(std::vector<std::string> arguments);
  // The processes of the server, the first one first.
  std::vector<pid_t> Processes() const;
  void Signal(int number) const;

  TemporaryDirectory directory;
  std::unique_ptr<Command> server;
};

#endif
