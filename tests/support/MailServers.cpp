// Starts Dovecot and Exim with configurations that need nothing of the system's own.

#include "tests/support/MailServers.h"

#include <arpa/inet.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <map>
#include <thread>

#include "base/host/FileDescriptor.h"

namespace {

const char kDovecotProgram[] = "/usr/sbin/dovecot";
const char kEximProgram[] = "/usr/sbin/exim4";

// The delay after a wrong password is off, and no server asks for the names of its peers.
const char kDovecot[] = R"(
base_dir = @DIR@/run
state_dir = @DIR@/run
log_path = @DIR@/dovecot.log
auth_verbose = yes
auth_failure_delay = 0
protocols = pop3 lmtp
listen = 127.0.0.1
ssl = no
disable_plaintext_auth = no
auth_mechanisms = plain login cram-md5 digest-md5
auth_realms = example.test
auth_username_format = %Ln
mail_location = maildir:@DIR@/mail/%n
first_valid_uid = 1
mail_uid = @MAIL_UID@
mail_gid = @MAIL_GID@
pop3_uidl_format = %f
maildir_very_dirty_syncs = no
passdb {
  driver = passwd-file
  args = scheme=PLAIN username_format=%n @DIR@/users
}
userdb {
  driver = static
  args = uid=@MAIL_UID@ gid=@MAIL_GID@ home=@DIR@/mail/%n
}
service pop3-login {
  inet_listener pop3 {
    port = 110
  }
  inet_listener pop3s {
    port = 0
  }
  chroot =
}
service lmtp {
  unix_listener @DIR@/lmtp.sock {
    mode = 0666
  }
}
service auth {
  unix_listener @DIR@/auth-client {
    mode = 0666
  }
}
protocol lmtp {
  auth_username_format = %Ln
}
service anvil {
  unix_listener anvil-auth-penalty {
    mode = 0
  }
}
)";

// Each method is offered on its own port and on those of no method.
const char kExim[] = R"(
primary_hostname = mail.example.test
spool_directory = @DIR@/spool
log_file_path = @DIR@/exim-%slog
pid_file_path = @DIR@/exim.pid
exim_user = Debian-exim
exim_group = Debian-exim
never_users =
keep_environment =
deliver_drop_privilege = true
daemon_smtp_ports = @SMTP@ : @SMTPS@ : @WRONG_SMTPS@ : @WRONG_STARTTLS@ : 10031 : 10032 : 10033 : 10034
tls_on_connect_ports = @SMTPS@ : @WRONG_SMTPS@
local_interfaces = 127.0.0.1
log_selector = +smtp_connection +smtp_no_mail +incoming_port +incoming_interface +tls_cipher
tls_advertise_hosts = *
tls_certificate = @DIR@/${if or {{eq {$received_port}{@WRONG_SMTPS@}}{eq {$received_port}{@WRONG_STARTTLS@}}}{wrong}{server}}.pem
tls_privatekey = @DIR@/server.key
auth_advertise_hosts = *
host_lookup =
rfc1413_hosts =
chunking_advertise_hosts =
message_size_limit = 100M
smtp_enforce_sync = true
domainlist local_domains = example.test
acl_smtp_rcpt = check_recipient
acl_smtp_data = accept
begin acl
check_recipient:
  accept authenticated = *
  accept domains = +local_domains
  deny message = relay not permitted
begin routers
local:
  driver = accept
  domains = +local_domains
  local_parts = lsearch;@DIR@/mailboxes
  transport = to_mailbox
begin transports
to_mailbox:
  driver = lmtp
  socket = @DIR@/lmtp.sock
  batch_max = 1
  timeout = 30s
begin retry
* * F,1h,1s
begin authenticators
login:
  driver = dovecot
  server_advertise_condition = ${if match{$received_port}{^1003[234]}{no}{yes}}
  public_name = LOGIN
  server_socket = @DIR@/auth-client
  server_set_id = $auth1
plain:
  driver = dovecot
  server_advertise_condition = ${if match{$received_port}{^1003[134]}{no}{yes}}
  public_name = PLAIN
  server_socket = @DIR@/auth-client
  server_set_id = $auth1
cram:
  driver = dovecot
  server_advertise_condition = ${if match{$received_port}{^1003[124]}{no}{yes}}
  public_name = CRAM-MD5
  server_socket = @DIR@/auth-client
  server_set_id = $auth1
digest:
  driver = dovecot
  server_advertise_condition = ${if match{$received_port}{^1003[123]}{no}{yes}}
  public_name = DIGEST-MD5
  server_socket = @DIR@/auth-client
  server_set_id = $auth1
)";

const char kCertificates[] = R"(
set -e
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ca.key -out ca.pem -subj /CN=authority -days 2
openssl ecparam -name prime256v1 -genkey -noout -out server.key
# certificate FILE NAME
certificate() {
  openssl req -new -key server.key -subj "/CN=$2" -out $1.csr
  echo "subjectAltName=DNS:$2" > $1.ext
  openssl x509 -req -in $1.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile $1.ext -out $1.pem
}
certificate server localhost
certificate wrong other.example.net
mkdir ca
cp ca.pem ca/
openssl rehash ca
chmod 644 server.key
)";

void Replace(std::string* text, const std::string& mark, const std::string& value) {
  for (size_t at = 0; (at = text->find(mark, at)) != std::string::npos; at += value.size()) {
    text->replace(at, mark.size(), value);
  }
}

// Waits until the condition holds; at most 20 seconds.
template <class Condition>
bool Eventually(Condition holds) {
  for (int i = 0; i < 1000; i++) {
    if (holds()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return holds();
}

}  // namespace

MailServers::~MailServers() {
  for (Command* server : {exim.get(), dovecot.get()}) {
    if (!server) continue;
    server->Signal(SIGTERM);
    server->Finish();
  }
}

bool MailServers::HasPrograms() {
  for (const char* program : {kDovecotProgram, kEximProgram, "/usr/bin/openssl"}) {
    if (access(program, X_OK) == 0) continue;
    reason = std::string(program) + " is not installed (script/setup test)";
    return false;
  }
  for (const char* user : {"mail", "Debian-exim", "dovecot", "dovenull"}) {
    if (getpwnam(user)) continue;
    reason = std::string("there is no user ") + user;
    return false;
  }
  return true;
}

void MailServers::WriteCertificates() {
  Command command({"/bin/sh", "-c", kCertificates});
  command.directory = directory.path();
  EXPECT_EQ(command.Run(), 0) << command.errors;
}

void MailServers::WriteConfigurations() {
  const passwd* const mail = getpwnam("mail");
  const std::string uid = std::to_string(mail->pw_uid), gid = std::to_string(mail->pw_gid);
  const struct {
    const char* name;
    const char* text;
  } files[] = {{"dovecot.conf", kDovecot},
               {"exim.conf", kExim},
               {"users", "joe:{PLAIN}secret\nann:{PLAIN}pa ss\"w\n"},
               {"mailboxes", "joe\nann\n"}};
  for (const auto& file : files) {
    std::string text = file.text;
    Replace(&text, "@DIR@", directory.path());
    Replace(&text, "@MAIL_UID@", uid);
    Replace(&text, "@MAIL_GID@", gid);
    Replace(&text, "@SMTP@", std::to_string(kSMTP));
    Replace(&text, "@SMTPS@", std::to_string(kSMTPS));
    Replace(&text, "@WRONG_SMTPS@", std::to_string(kWrongSMTPS));
    Replace(&text, "@WRONG_STARTTLS@", std::to_string(kWrongSTARTTLS));
    chmod(directory.File(file.name, text).c_str(), 0644);
  }
  for (const char* user : {"joe", "ann"}) {
    for (const char* folder : {"", "/new", "/cur", "/tmp"}) {
      const std::string path = directory.Directory("mail/" + std::string(user) + folder);
      EXPECT_EQ(chown(path.c_str(), mail->pw_uid, mail->pw_gid), 0);
    }
  }
  EXPECT_EQ(chown(directory.path("mail").c_str(), mail->pw_uid, mail->pw_gid), 0);
  // Exim writes its log and its process number there, as a user of its own.
  const passwd* const user = getpwnam("Debian-exim");
  for (const std::string& path : {directory.path(), directory.Directory("spool")}) {
    EXPECT_EQ(chown(path.c_str(), user->pw_uid, user->pw_gid), 0);
    EXPECT_EQ(chmod(path.c_str(), 0755), 0);
  }
}

bool MailServers::Start(bool with_smtp) {
  if (geteuid() != 0) {
    reason = "mail servers need the rights of root";
    return false;
  }
  if (!HasPrograms()) return false;
  network = std::make_unique<PrivateNetwork>();
  if (!network->why_not().empty()) {
    reason = network->why_not();
    return false;
  }
  WriteCertificates();
  WriteConfigurations();
  dovecot = std::make_unique<Command>(
      std::vector<std::string>{kDovecotProgram, "-F", "-c", directory.path("dovecot.conf")});
  dovecot->Start();
  EXPECT_TRUE(WaitForGreeting(110, "+OK")) << DovecotLog();
  if (!with_smtp) return true;
  exim = std::make_unique<Command>(
      std::vector<std::string>{kEximProgram, "-C", directory.path("exim.conf"), "-bdf"});
  exim->Start();
  EXPECT_TRUE(WaitForGreeting(kSMTP, "220")) << EximLog() << directory.Content("exim-paniclog");
  return true;
}

// Says nothing but QUIT on the connection.
bool MailServers::WaitForGreeting(int port, const std::string& greeting) const {
  return Eventually([&] {
    const FileDescriptor client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      return false;
    }
    char start[16] = {};
    const ssize_t count =
        recv(client.get(), start, std::min(sizeof start, greeting.size()), MSG_WAITALL);
    static_cast<void>(send(client.get(), "QUIT\r\n", 6, MSG_NOSIGNAL));
    return count == static_cast<ssize_t>(greeting.size()) &&
           greeting.compare(0, greeting.size(), start, greeting.size()) == 0;
  });
}

void MailServers::Add(const std::string& user, const std::string& mail) {
  added++;
  const std::string name = std::to_string(1700000000 + added) + ".M1P1.mail";
  const std::string made = directory.File("mail/" + user + "/tmp/" + name, mail);
  const passwd* const owner = getpwnam("mail");
  EXPECT_EQ(chown(made.c_str(), owner->pw_uid, owner->pw_gid), 0);
  std::filesystem::rename(made, directory.path("mail/" + user + "/new/" + name));
}

std::vector<std::string> MailServers::Mails(const std::string& user) const {
  std::map<std::string, std::string> by_name;
  for (const char* folder : {"/new/", "/cur/"}) {
    const std::string path = "mail/" + user + folder;
    for (const auto& entry : std::filesystem::directory_iterator(directory.path(path))) {
      const std::string name = entry.path().filename();
      by_name[name] = directory.Content(path + name);
    }
  }
  std::vector<std::string> mails;
  mails.reserve(by_name.size());
  for (const auto& [name, mail] : by_name) mails.push_back(mail);
  return mails;
}

size_t MailServers::WaitForMails(const std::string& user, size_t count) const {
  static_cast<void>(Eventually([&] { return Mails(user).size() == count; }));
  return Mails(user).size();
}

bool MailServers::WaitForLog(const char* name, const std::string& text, size_t from) const {
  return Eventually([&] {
    const std::string log = directory.Content(name);
    return log.find(text, std::min(from, log.size())) != std::string::npos;
  });
}
