// The engine as a service of systemd: sockets that are passed to it, and word of its state. Both
// are environment variables and a datagram; no library is needed.

#ifndef ZEPH_FASTCGI_SERVICEMANAGER_H
#define ZEPH_FASTCGI_SERVICEMANAGER_H

class ServiceManager {
 public:
  // Looks for the variables LISTEN_PID, LISTEN_FDS, LISTEN_FDNAMES and NOTIFY_SOCKET, and removes
  // them, so that no program that a library starts takes them for its own. If descriptor 0 does not
  // listen, the first socket that was passed becomes descriptor 0. One with the name "status" is
  // for the page of status instead; others are closed. Called once, first of all.
  static void Begin();
  // The socket for the page of status, which the caller then owns; -1 without one.
  [[nodiscard]] static int TakeStatusSocket();

  // Tell the service manager that requests are served (again), that the process ends, and that its
  // workers are replaced. Nothing happens without a service manager. Any thread may call them.
  static void Ready();
  static void Stopping();
  static void Reloading();
  // For a worker: its supervisor tells.
  static void Forget();

 private:
  static void Send(const char* state);
};

#endif
