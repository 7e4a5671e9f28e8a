"""test.py DAEMON: runs the daemon as a service manager does, and talks to it."""

import os
import random
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

DAEMON = sys.argv.pop(1)


def free_port():
    """One below those that the system gives to clients, so that no client gets it meanwhile."""
    while True:
        port = random.randrange(10000, 30000)
        with socket.socket() as probe:
            probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            try:
                probe.bind(("127.0.0.1", port))
                return port
            except OSError:
                pass


class GreetdTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.conf = os.path.join(self.directory.name, "conf")
        self.journal = os.path.join(self.directory.name, "journal")
        self.port = free_port()
        self.process = None

    def tearDown(self):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.directory.cleanup()

    def configure(self, text="", port=None):
        with open(self.conf + ".new", "w") as file:
            file.write(f"[greetd]\nADDRESS = 127.0.0.1:{port or self.port}\n"
                       f'GREETING = "Hello, "\n{text}\n[log]\nFILENAME = STDERR\n')
        os.rename(self.conf + ".new", self.conf)

    def start(self):
        with open(self.journal, "w") as journal:
            self.process = subprocess.Popen(
                [DAEMON, "-C", self.conf, "-L", "log"], cwd="/", stdin=subprocess.DEVNULL,
                stderr=journal, env=os.environ | {"VORNTRC_FILENAME": "stderr"})

    def log(self):
        with open(self.journal) as file:
            return file.read()

    def await_log(self, text, times=1):
        deadline = time.monotonic() + 20
        while self.log().count(text) < times:
            self.assertLess(time.monotonic(), deadline, f"never logged: {text}\n{self.log()}")
            time.sleep(0.02)

    def serve(self, text=""):
        self.configure(text)
        self.start()
        self.await_log("Serving on")
        # Who answers has run its loop, and takes signals.
        self.assertEqual(self.ask("Eve\n"), "Hello, Eve\n")

    def connected(self, port=None):
        return socket.create_connection(("127.0.0.1", port or self.port), timeout=20)

    def ask(self, text, port=None):
        """The answers to what is sent, all of them."""
        with self.connected(port) as caller, caller.makefile("rb") as answers:
            caller.sendall(text.encode())
            caller.shutdown(socket.SHUT_WR)
            return answers.read().decode()

    def reload(self, text, logged, times=1):
        self.configure(text)
        self.process.send_signal(signal.SIGUSR1)
        self.await_log(logged, times)

    def ends_with(self, status):
        self.assertEqual(self.process.wait(timeout=20), status, self.log())

    def test_each_line_is_answered(self):
        self.serve()
        self.assertEqual(self.ask("Ada\nBob\n"), "Hello, Ada\nHello, Bob\n")

    def test_lines_may_arrive_in_pieces(self):
        self.serve()
        with self.connected() as caller:
            for part in (b"A", b"da\nB", b"ob\n"):
                caller.sendall(part)
            with caller.makefile("rb") as answers:
                self.assertEqual(answers.readline(), b"Hello, Ada\n")
                self.assertEqual(answers.readline(), b"Hello, Bob\n")

    def test_a_caller_may_have_a_long_address(self):
        self.serve()
        with socket.create_connection(("127.0.0.1", self.port), 20, ("127.100.100.100", 0)) as caller:
            caller.sendall(b"Ada\n")
            self.assertEqual(caller.recv(100), b"Hello, Ada\n")

    def test_a_caller_that_takes_no_answers_disturbs_nobody(self):
        self.serve()
        with self.connected() as greedy:
            greedy.settimeout(0.5)
            with self.assertRaises(TimeoutError):
                for _ in range(10000):
                    greedy.sendall(b"x\n" * 10000)
            self.assertEqual(self.ask("Ada\n"), "Hello, Ada\n")

    def test_a_line_without_an_end_is_not_kept(self):
        self.serve()
        with self.connected() as caller:
            try:
                caller.sendall(b"x" * 1000000)
                self.assertEqual(caller.recv(1), b"")
            except ConnectionError:
                pass
        self.await_log("gone")

    def test_a_silent_caller_is_closed(self):
        self.serve("IDLE = 1")
        with self.connected() as caller:
            self.assertEqual(caller.recv(1), b"")

    def test_a_reload_changes_the_greeting_and_closes_nobody(self):
        self.serve()
        with self.connected() as caller, caller.makefile("rb") as answers:
            self.configure()
            with open(self.conf) as file:
                text = file.read().replace("Hello", "Welcome")
            with open(self.conf, "w") as file:
                file.write(text)
            self.process.send_signal(signal.SIGUSR1)
            self.await_log("The greeting is 'Welcome, '")
            caller.sendall(b"Ada\n")
            self.assertEqual(answers.readline(), b"Welcome, Ada\n")

    def test_a_reload_changes_the_address(self):
        self.serve()
        former, self.port = self.port, free_port()
        self.reload("", "Serving on", 2)
        self.assertEqual(self.ask("Ada\n"), "Hello, Ada\n")
        with self.assertRaises(ConnectionRefusedError):
            self.connected(former)

    def test_a_faulty_reload_changes_nothing(self):
        self.serve()
        self.reload("no item", "Missing name/value delimiter")
        self.assertEqual(self.ask("Ada\n"), "Hello, Ada\n")
        self.reload("IDLE = 0", "The settings stay as they were")
        self.assertEqual(self.ask("Ada\n"), "Hello, Ada\n")

    def test_it_ends_as_told_with_every_caller_closed(self):
        self.serve()
        with self.connected() as caller:
            caller.sendall(b"Ada\n")
            self.assertEqual(caller.recv(100), b"Hello, Ada\n")
            self.process.terminate()
            self.assertEqual(caller.recv(1), b"")
        self.ends_with(0)

    def test_a_supervisor_is_told_of_a_failure(self):
        self.configure("IDLE = soon")
        self.start()
        self.ends_with(1)
        self.assertIn("Invalid Integer value=soon", self.log())
        os.remove(self.conf)
        self.start()
        self.ends_with(1)
        self.assertIn("Failed to open file", self.log())


unittest.main()
