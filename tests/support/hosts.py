#!/usr/bin/env python3
"""usage: hosts.py BUILD SOURCE FOLDER

Three hosts with an engine each, and one with nginx and PostgreSQL, as docs/scaling.md describes them: network
name spaces with a bridge between them. Clients load them, and one host goes away without a word. Prints what
became of the requests, and fails if one fails that was not on that host, or if a count is wrong. Needs root.

It runs in name spaces of processes and of mounts of its own, so that its hosts, with all that runs on them, end
with it, however it ends.
"""

import ctypes
import http.client
import os
import re
import shutil
import signal
import subprocess
import sys
import threading
import time

BUILD, SOURCE, FOLDER = (os.path.abspath(path) for path in sys.argv[1:4])
PREFIX = "zeph"
HOSTS = {1: "10.0.0.11", 2: "10.0.0.12", 3: "10.0.0.13"}
WEB = "10.0.0.1"
POSTGRES = "/usr/lib/postgresql/15/bin/"
CLIENTS = 12  # of each kind
BEFORE, AFTER = 4, 28  # seconds
# Of a request that has gone to the host that is silent. Longer than others wait for its lock.
TIMEOUT = 20


def run(*words):
    subprocess.run(words, check=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)


def start(space, *words, **more):
    return subprocess.Popen(["ip", "netns", "exec", f"{PREFIX}-{space}", *words],
                            stdin=subprocess.DEVNULL, stdout=open(f"{FOLDER}/{space}.log", "ab"),
                            stderr=subprocess.STDOUT, start_new_session=True, **more)


def as_nobody(*words):
    return ("setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", *words)


def write(name, text):
    os.makedirs(os.path.dirname(f"{FOLDER}/{name}") or FOLDER, exist_ok=True)
    with open(f"{FOLDER}/{name}", "w", encoding="utf-8") as file:
        file.write(text)


def network():
    # The names of networks are mounts there.
    os.makedirs("/run/netns", exist_ok=True)
    run("mount", "-t", "tmpfs", "tmpfs", "/run/netns")
    run("ip", "netns", "add", f"{PREFIX}-web")
    web = ["ip", "-n", f"{PREFIX}-web"]
    run(*web, "link", "set", "lo", "up")
    run(*web, "link", "add", "bridge", "type", "bridge")
    run(*web, "addr", "add", f"{WEB}/24", "dev", "bridge")
    run(*web, "link", "set", "bridge", "up")
    for number, address in HOSTS.items():
        space = f"{PREFIX}-h{number}"
        run("ip", "netns", "add", space)
        run(*web, "link", "add", f"port{number}", "type", "veth", "peer", "name", "eth0", "netns", space)
        run(*web, "link", "set", f"port{number}", "master", "bridge", "up")
        run("ip", "-n", space, "addr", "add", f"{address}/24", "dev", "eth0")
        run("ip", "-n", space, "link", "set", "eth0", "up")


def database():
    os.mkdir(f"{FOLDER}/pg")
    shutil.chown(f"{FOLDER}/pg", "nobody", "nogroup")
    run(*as_nobody(POSTGRES + "initdb", "-D", f"{FOLDER}/pg", "-U", "zeph", "--auth=trust", "--no-sync"))
    with open(f"{FOLDER}/pg/pg_hba.conf", "a", encoding="utf-8") as file:
        file.write("host all all 10.0.0.0/24 trust\n")
    start("web", *as_nobody(POSTGRES + "postgres", "-D", f"{FOLDER}/pg", "-h", WEB, "-k", f"{FOLDER}/pg"),
          cwd="/")
    for _ in range(300):
        if sql("SELECT 1") == "1":
            break
        time.sleep(0.1)
    sql("CREATE TABLE counts (id integer PRIMARY KEY, n integer); INSERT INTO counts VALUES (1, 0)")


def sql(text):
    return subprocess.run(["ip", "netns", "exec", f"{PREFIX}-web", "psql", "-h", WEB, "-U", "zeph", "-d",
                           "postgres", "-Atqc", text], capture_output=True, text=True).stdout.strip()


PLAIN = "page of {{{ zeph_config:lock_hostname }}}."
# Read, add, write: without the lock two hosts would write the same number.
COUNT = """<ZpLOCKFILE name="count"><ZpOPEN name="c" path="counts" type="postgres">
<ZpASSIGN c.d.n = c.d.n + 1><ZpUPDATE database="c"></ZpLOCKFILE>page of {{{ zeph_config:lock_hostname }}}.
"""


def engines():
    write("source/plain.zeph", PLAIN)
    write("source/count.zeph", COUNT)
    run(f"{BUILD}/bin/zephc", f"{FOLDER}/source", "-o", f"{FOLDER}/site")
    os.mkdir(f"{FOLDER}/shared")
    processes = {}
    for number, address in HOSTS.items():
        work = f"{FOLDER}/h{number}"
        os.makedirs(f"{work}/temp")
        shutil.copy(f"{BUILD}/lib/libzephconfig.so", work)
        write(f"h{number}/zeph.toml", f"""dir_zeph = "{FOLDER}/site"
dir_data = "{FOLDER}/shared"
dir_temp = "{work}/temp"
lock_hostname = "h{number}"
lock_expiration = 5
[[library]]
kind = "database"
name = "postgres"
path = "{BUILD}/lib/zephpostgres.so"
[variables.system]
zephpostgres_connection = "host={WEB} dbname=postgres user=zeph"
""")
        environment = dict(os.environ, FCGI_WEB_SERVER_ADDRS=WEB)
        processes[number] = start(f"h{number}", "spawn-fcgi", "-n", "-a", address, "-p", "9000", "-d", work,
                                  "--", f"{BUILD}/bin/zeph-fcgi", "-t", "16", env=environment)
    return processes


def web_server():
    with open(f"{SOURCE}/docs/scaling.md", encoding="utf-8") as file:
        page = file.read()
    upstream = re.search(r"upstream zeph \{.*?\n *\}", page, re.S).group()
    limits = "\n".join(re.findall(r"^ *fastcgi_\w+ [^\n]*;", page, re.M))
    with open(f"{SOURCE}/packaging/web/nginx.conf", encoding="utf-8") as file:
        site = file.read()
    site = re.sub(r"upstream zeph \{.*?\n\}", "", site, flags=re.S)
    site = re.sub(r" *fastcgi_connect_timeout [^\n]*\n", "", site)
    site = re.sub(r"fastcgi_read_timeout \w+;", f"fastcgi_read_timeout {TIMEOUT}s;", site)
    site = site.replace("  root /", limits + "\n  root /").replace("/var/lib/zeph/site", f"{FOLDER}/site")
    site = site.replace("/usr/share/zeph/errors/502.html", f"{FOLDER}/source/unavailable.html")
    shutil.copy(f"{SOURCE}/packaging/web/unavailable.html", f"{FOLDER}/source")
    write("nginx/conf", f"""daemon off; user root; pid pid; error_log stderr error; events {{ }}
http {{ log_format tried '$status $request_method $upstream_addr'; access_log access tried;
client_body_temp_path body; fastcgi_temp_path fastcgi; proxy_temp_path proxy; uwsgi_temp_path uwsgi;
scgi_temp_path scgi;
{upstream}
{site}}}
""")
    start("web", "nginx", "-e", f"{FOLDER}/nginx/errors", "-p", f"{FOLDER}/nginx", "-c", f"{FOLDER}/nginx/conf")


class Client(threading.Thread):
    """Requests from inside of the name space: that of a thread is its own."""

    def __init__(self, method, path):
        super().__init__(daemon=True)
        self.method, self.path = method, path
        self.good, self.bad = [], []

    def run(self):
        with open(f"/run/netns/{PREFIX}-web", "rb") as space:
            libc.setns(space.fileno(), 0x40000000)
        while not over.is_set():
            began = time.monotonic()
            try:
                connection = http.client.HTTPConnection(WEB, 80, timeout=60)
                connection.request(self.method, self.path, "a=1" if self.method == "POST" else None)
                response = connection.getresponse()
                body = response.read().decode()
                found = re.search(r"page of (h\d)\.", body)
                if response.status == 200 and found and "rror" not in body:
                    self.good.append((time.monotonic(), time.monotonic() - began, found.group(1)))
                else:
                    self.bad.append((response.status, body[:200]))
                connection.close()
                # Visitors of one counter; without a pause those that come wear out those that wait.
                time.sleep(0.3 if self.method == "POST" else 0)
            except OSError as problem:
                self.bad.append((0, str(problem)))


def leave_a_lock():
    """What the host leaves that goes while a page of it holds the lock."""
    while True:
        try:
            descriptor = os.open(f"{FOLDER}/shared/count.lck", os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o664)
        except FileExistsError:
            continue
        os.write(descriptor, b"1!1:h3")
        os.close(descriptor)
        return


def load(processes):
    clients = [Client("GET", "/plain.zpc") for _ in range(CLIENTS)]
    clients += [Client("POST", "/count.zpc") for _ in range(CLIENTS)]
    for client in clients:
        client.start()
    time.sleep(BEFORE)
    gone = time.monotonic()
    # No packet of it arrives any more, not even that its connections are closed.
    run("ip", "-n", f"{PREFIX}-web", "link", "set", "port3", "down")
    os.killpg(processes[3].pid, signal.SIGKILL)
    leave_a_lock()
    time.sleep(AFTER)
    over.set()
    for client in clients:
        client.join(60)
    return clients, gone


def judge(clients, gone):
    with open(f"{FOLDER}/nginx/access", encoding="utf-8") as file:
        lines = [line.split(None, 2) for line in file]
    failed = [line for line in lines if line[0] != "200"]
    elsewhere = [line for line in failed if HOSTS[3] not in line[2]]
    problems = [f"failed without the host that went: {line}" for line in elsewhere[:5]]
    for method in ("GET", "POST"):
        mine = [client for client in clients if client.method == method]
        good = [entry for client in mine for entry in client.good]
        bad = [entry for client in mine for entry in client.bad]
        served = {name: sum(entry[2] == name for entry in good) for name in ("h1", "h2", "h3")}
        late = max((entry[1] for entry in good), default=0)
        after = sum(entry[0] > gone + AFTER - 4 for entry in good)
        print(f"{method:5} served {len(good)} {served}, failed {len(bad)}, longest {late:.1f} s, "
              f"in the last 4 s {after}")
        if method == "GET" and bad:
            problems.append(f"a page that can be asked for again has failed: {bad[:3]}")
        if len(bad) > 16 or any(status not in (502, 504) for status, _ in bad):
            problems.append(f"failures: {bad[:5]}")
        if min(served.values()) == 0 or after == 0:
            problems.append("a host has served nothing, or nothing is served afterwards")
        if method == "POST":
            count = int(sql("SELECT n FROM counts") or -1)
            print(f"count  {count}")
            if not len(good) <= count <= len(good) + len(bad):
                problems.append(f"the count is {count}")
    return problems


if not os.environ.get("ZEPH_INSIDE"):
    os.environ["ZEPH_INSIDE"] = "1"
    os.execvp("unshare", ["unshare", "--mount", "--mount-proc", "--pid", "--fork", "--kill-child", sys.executable,
                          *sys.argv])
# setns is not in this Python.
libc = ctypes.CDLL(None, use_errno=True)
over = threading.Event()
os.makedirs(FOLDER, exist_ok=True)
os.chmod(FOLDER, 0o755)
network()
database()
processes = engines()
web_server()
time.sleep(1)
problems = judge(*load(processes))
for problem in problems:
    print(problem)
sys.exit(1 if problems else 0)
