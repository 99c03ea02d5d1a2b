#!/usr/bin/env python3
"""A mail server for tests, and the other maker of everything that a mail is made of: digests, dots,
MIME. It shares no code with the engine.

    smtp_server.py serve FOLDER [--name NAME] [--cert FILE --key FILE] [--tls] [--starttls]
                   [--auth "METHODS"] [--user USER --password PASSWORD]
        Listens on 127.0.0.1 and prints "PORT number". Each mail becomes FOLDER/mail.N, N counting
        from 1, as it came, with the doubled dots taken away; the sender and the recipients are
        FOLDER/envelope.N. FOLDER/commands has every line that came outside of a mail, and
        FOLDER/ended a line for each connection that has ended.
    smtp_server.py make KIND FILE
        Writes a mail of that kind with the email package, its lines ended by LF.
    smtp_server.py compare FILE FILE
        Reads two mails with the email package and prints the first difference, if there is one."""

import base64
import email
import email.policy
import hashlib
import hmac
import os
import random
import socket
import ssl
import sys
import threading
from email.message import EmailMessage

lock = threading.Lock()
count = 0


class Session:
    def __init__(self, options, connection):
        self.options = options
        self.connection = connection
        self.secure = False
        self.sender = None
        self.recipients = []
        self.authenticated = False

    def say(self, text):
        self.file.write(text.encode() + b"\r\n")
        self.file.flush()

    def read(self):
        line = self.file.readline()
        if not line.endswith(b"\r\n"):
            raise EOFError
        with lock, open(os.path.join(self.options["folder"], "commands"), "ab") as commands:
            commands.write(line)
        return line[:-2]

    def encrypt(self):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(self.options["cert"], self.options["key"])
        self.connection = context.wrap_socket(self.connection, server_side=True)
        self.secure = True

    def run(self):
        try:
            if "tls" in self.options:
                self.encrypt()
            self.file = self.connection.makefile("rwb")
            self.say("220 test ready")
            while self.command(self.read()):
                pass
        except (EOFError, OSError):
            pass
        finally:
            self.connection.close()
            with lock, open(os.path.join(self.options["folder"], "ended"), "ab") as ended:
                ended.write(b"session\n")

    def command(self, line):
        text = line.decode("latin-1")
        word = text.upper()
        if word.startswith("EHLO "):
            lines = ["test greets you"]
            if "starttls" in self.options and not self.secure:
                lines.append("STARTTLS")
            if self.options.get("auth"):
                lines.append("AUTH " + self.options["auth"])
            for i, reply in enumerate(lines):
                self.say(("250 " if i + 1 == len(lines) else "250-") + reply)
        elif word.startswith("HELO "):
            self.say("250 test greets you")
        elif word == "STARTTLS":
            self.say("220 go ahead")
            self.encrypt()
            self.file = self.connection.makefile("rwb")
        elif word.startswith("AUTH "):
            self.authenticate(text.split(" "))
        elif word.startswith("MAIL FROM: "):
            if self.options.get("auth") and not self.authenticated:
                self.say("530 Authentication required")
            else:
                self.sender = text[11:]
                self.say("250 sender taken")
        elif word.startswith("RCPT TO: "):
            self.recipients.append(text[9:])
            self.say("250 recipient taken")
        elif word == "DATA":
            self.say("354 end with a dot")
            self.mail()
            self.say("250 mail taken")
        elif word == "QUIT":
            self.say("221 bye")
            return False
        else:
            self.say("500 unknown command")
        return True

    def mail(self):
        global count
        lines = []
        while True:
            line = self.file.readline()
            if not line:
                raise EOFError
            if line == b".\r\n":
                break
            lines.append(line[1:] if line.startswith(b".") else line)
        folder = self.options["folder"]
        with lock:
            count += 1
            with open(os.path.join(folder, "mail.%d" % count), "wb") as file:
                file.write(b"".join(lines))
            with open(os.path.join(folder, "envelope.%d" % count), "w") as file:
                file.write("\n".join([self.sender] + self.recipients) + "\n")
        self.recipients = []

    def challenge(self, data):
        self.say("334 " + base64.b64encode(data).decode())
        return base64.b64decode(self.read())

    def authenticate(self, words):
        user = self.options["user"].encode()
        password = self.options["password"].encode()
        method = words[1]
        if method == "LOGIN":
            good = [self.challenge(b"Username:"), self.challenge(b"Password:")] == [user, password]
        elif method == "PLAIN":
            good = base64.b64decode(words[2]) == b"\0".join([user, user, password])
        elif method == "CRAM-MD5":
            text = b"<%d.%d@test>" % (random.getrandbits(32), os.getpid())
            digest = hmac.new(password, text, hashlib.md5).hexdigest().encode()
            good = self.challenge(text) == user + b" " + digest
        else:
            good = self.digest(user, password)
        self.authenticated = good
        self.say("235 welcome" if good else "535 Incorrect authentication data")

    def digest(self, user, password):
        def md5(data):
            return hashlib.md5(data)

        nonce = base64.b64encode(random.randbytes(16))
        answer = self.challenge(b'realm="test",nonce="' + nonce +
                                b'",qop="auth",charset="utf-8",algorithm="md5-sess"')
        said = {}
        for pair in answer.split(b","):
            name, value = pair.split(b"=", 1)
            said[name] = value.strip(b'"')
        uri = b"smtp/" + self.options["name"].encode()
        known = {b"username": user, b"realm": b"test", b"nonce": nonce, b"nc": b"00000001",
                 b"qop": b"auth", b"digest-uri": uri, b"charset": b"utf-8"}
        if any(said.get(name) != value for name, value in known.items()):
            return False
        secret = md5(user + b":test:" + password).digest()
        a1 = md5(secret + b":" + nonce + b":" + said[b"cnonce"]).hexdigest().encode()

        def value(a2):
            hashed = md5(a2).hexdigest().encode()
            return md5(b":".join([a1, nonce, b"00000001", said[b"cnonce"], b"auth",
                                  hashed])).hexdigest().encode()

        if said[b"response"] != value(b"AUTHENTICATE:" + uri):
            return False
        return self.challenge(b"rspauth=" + value(b":" + uri)) == b""


def serve(arguments):
    options = {"folder": arguments[0], "name": "localhost"}
    at = 1
    while at < len(arguments):
        name = arguments[at][2:]
        if name in ("tls", "starttls"):
            options[name] = True
            at += 1
        else:
            options[name] = arguments[at + 1]
            at += 2
    listening = socket.create_server(("127.0.0.1", 0))
    print("PORT", listening.getsockname()[1], flush=True)
    while True:
        connection, _ = listening.accept()
        threading.Thread(target=Session(options, connection).run, daemon=True).start()


def make(kind, path):
    random.seed(4)
    mail = EmailMessage(policy=email.policy.default)
    mail["From"] = "sender@example.org"
    mail["To"] = "reader@example.org"
    mail["Subject"] = "Grüße aus dem Teeladen"
    text = "Line one\n.\n\n.\n.\n\nlast line\n"
    if kind == "plain":
        mail.set_content(text, cte="7bit")
    elif kind == "long":
        mail.set_content("x" * 5000 + "\n" + "word " * 3000 + "\n.\n" + "y" * 998 + "\n",
                         cte="8bit")
    elif kind == "8bit":
        mail.set_content("Grüße, مرحبا, こんにちは\n" * 50 + "é" * 2000 + "\n", cte="8bit")
    elif kind == "quoted":
        mail.set_content("Grüße = 1\n" + " \n" + "ü" * 300 + "\n", cte="quoted-printable")
    else:
        mail.set_content(text)
        mail.add_alternative("<p>Grüße</p>\n", subtype="html")
        mail.add_attachment(random.randbytes(20 * 1024 * 1024), maintype="application",
                            subtype="octet-stream", filename="tea.bin")
        mail.add_attachment(bytes(range(256)) * 40, maintype="image", subtype="png",
                            filename="späne.png")
    with open(path, "wb") as file:
        file.write(mail.as_bytes(policy=mail.policy.clone(max_line_length=0, linesep="\n")))


def parts(path):
    with open(path, "rb") as file:
        mail = email.message_from_binary_file(file, policy=email.policy.default)
    for part in mail.walk():
        payload = part.get_payload(decode=True)
        if part.get_content_maintype() == "text":
            payload = payload.replace(b"\r\n", b"\n")
        yield list(map(tuple, part.items())), part.get_filename(), payload


def compare(first, second):
    one, other = list(parts(first)), list(parts(second))
    if len(one) != len(other):
        print("parts: %d and %d" % (len(one), len(other)))
    for i, (a, b) in enumerate(zip(one, other)):
        for name, x, y in zip(("fields", "file name", "content"), a, b):
            if x != y:
                print("part %d: %s differs: %.300r and %.300r" % (i, name, x, y))
                return


if __name__ == "__main__":
    {"serve": lambda: serve(sys.argv[2:]), "make": lambda: make(*sys.argv[2:]),
     "compare": lambda: compare(*sys.argv[2:])}[sys.argv[1]]()
