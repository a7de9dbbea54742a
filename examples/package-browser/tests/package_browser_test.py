"""Runs the program as a user would, with what it prints and how it exits.

    package_browser_test.py PROGRAM
"""

import fcntl
import os
import pty
import re
import signal
import struct
import subprocess
import sys
import tempfile
import termios
import unittest
from pathlib import Path

PROGRAM = sys.argv.pop(1)
SAMPLE = Path(__file__).parent.parent / "sample" / "status"

SAMPLE_LISTING = """\
  4.4 KiB  science, 2 packages
  4.3 KiB    tide-tables    tide tables of two harbours
    110 B    lighthouses    lights of the coast, with colours and periods

    277 B  utils, 2 packages
    277 B    harbour-clock  tells the time as the harbour office does
      0 B    harbour-bell   rings when the tide turns

     95 B  libs, 1 package
     95 B    libtide1       harmonic constants for tide predictions

  4.7 KiB  5 packages in 3 sections
    968 B  a package on average
           Architectures: all 4, amd64 1
           Most dependencies: tide-tables, 1
           Known but not installed: 1 package
"""


def run(*arguments, **options):
    return subprocess.run([PROGRAM, *map(str, arguments)], capture_output=True, text=True,
                          timeout=60, **options)


def run_on_terminal(*arguments, columns=80, term="xterm"):
    """What the program writes to a terminal, and its exit code."""
    master, slave = pty.openpty()
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("4H", 24, columns, 0, 0))
    with subprocess.Popen([PROGRAM, *map(str, arguments)], stdin=slave, stdout=slave, stderr=slave,
                          env={**os.environ, "TERM": term}) as process:
        os.close(slave)
        output = b""
        try:
            while block := os.read(master, 4096):
                output += block
        except OSError:  # the terminal's other end is closed: the program has ended
            pass
        os.close(master)
    return output.decode().replace("\r\n", "\n"), process.returncode


def take_interrupts():
    """For a child: SIGINT as a shell hands it to the program in the foreground."""
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    signal.pthread_sigmask(signal.SIG_UNBLOCK, [signal.SIGINT])


def make_terminal_own():
    """For a child: standard input is its controlling terminal, whose Ctrl-C it gets."""
    take_interrupts()
    fcntl.ioctl(0, termios.TIOCSCTTY, 0)


class PackageBrowser(unittest.TestCase):
    def assertFails(self, result, complaint):
        self.assertEqual(result.stderr, f"package-browser: {complaint}\n")
        self.assertEqual(result.stdout, "")
        self.assertEqual(result.returncode, 2)

    def database(self, text):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        path = Path(folder.name) / "status"
        path.write_bytes(text)
        return path

    def test_sample_is_listed(self):
        result = run(SAMPLE)
        self.assertEqual(result.stdout, SAMPLE_LISTING)
        self.assertEqual(result.stderr, "")
        self.assertEqual(result.returncode, 0)

    def test_file_may_be_relative(self):
        self.assertEqual(run("status", cwd=SAMPLE.parent).stdout, SAMPLE_LISTING)

    def test_section_is_listed_alone(self):
        result = run(SAMPLE, "--section", "libs")
        self.assertEqual(result.stdout,
                         "     95 B  libs, 1 package\n"
                         "     95 B    libtide1  harmonic constants for tide predictions\n\n")
        self.assertEqual(result.returncode, 0)

    def test_unknown_section(self):
        self.assertFails(run(SAMPLE, "--section", "games"),
                         "no installed package is in a section 'games'")

    def test_section_that_only_removed_packages_had_is_unknown(self):
        path = self.database(b"Package: a\nSection: games\nStatus: deinstall ok config-files\n")
        self.assertFails(run(path, "--section", "games"),
                         "no installed package is in a section 'games'")

    def test_top(self):
        result = run(SAMPLE, "--top", "1", "--section", "utils")
        self.assertEqual(result.stdout,
                         "    277 B  utils, 2 packages\n"
                         "    277 B    harbour-clock  tells the time as the harbour office does\n"
                         "      0 B    1 more\n\n")

    def test_packages_that_time_out_are_listed_and_counted(self):
        result = run(SAMPLE, "--timeout", "0.000001")
        self.assertEqual(result.stdout.count("timed out    "), 5)
        self.assertIn("      0 B  5 packages in 3 sections\n", result.stdout)
        self.assertIn("           Timed out: 5 packages, as 0 B\n", result.stdout)
        self.assertEqual(result.returncode, 0)

    def test_packages_without_file_lists_are_listed_and_counted(self):
        result = run(self.database(SAMPLE.read_bytes()))
        self.assertEqual(result.stdout.count("  no list    "), 5)
        self.assertIn("           No file list: 5 packages, as 0 B\n", result.stdout)
        self.assertEqual(result.returncode, 0)

    def test_read_that_hangs_is_given_up(self):
        path = self.database(b"Package: a\nStatus: install ok installed\n")
        (path.parent / "info").mkdir()
        os.mkfifo(path.parent / "info" / "a.list")  # nobody ever writes to it
        result = run(path, "--timeout", "0.1")
        self.assertIn("timed out    a\n", result.stdout)
        self.assertEqual(result.returncode, 0)

    def test_database_without_installed_packages(self):
        result = run(self.database(b"Package: a\nStatus: deinstall ok config-files\n"))
        self.assertEqual(result.stdout, "      0 B  0 packages in 0 sections\n"
                                        "           Known but not installed: 1 package\n")
        self.assertEqual(result.returncode, 0)

    def test_help(self):
        result = run("--help")
        self.assertTrue(result.stdout.startswith("Usage: package-browser "))
        self.assertEqual(result.stderr, "")
        self.assertEqual(result.returncode, 0)

    def test_wrong_arguments(self):
        self.assertFails(run("--top", "many"), "--top needs a whole number, not 'many'")
        self.assertFails(run("--timeout", "-1"),
                         "--timeout needs a positive number of seconds, not '-1'")
        self.assertFails(run("--all"), "unknown option '--all'; --help tells which there are")

    def test_missing_file(self):
        self.assertFails(run("/no/such/file"), "/no/such/file: No such file or directory")

    def test_folder(self):
        self.assertFails(run("/"), "/: Is a directory")

    def test_malformed_file(self):
        path = self.database(b"nothing\n\nof use\n")
        self.assertFails(run(path), f"{path}: no package database (line 1: a line without a colon)")

    def test_malformed_record_is_named_and_the_others_are_listed(self):
        path = self.database(SAMPLE.read_bytes() + b"\nSection: a\n\nPackage: b\x00\n")
        (path.parent / "info").symlink_to(SAMPLE.parent / "info")
        (path.parent / "files").symlink_to(SAMPLE.parent / "files")
        result = run(path)
        end = SAMPLE.read_text().count("\n")
        self.assertEqual(
            result.stderr,
            f"package-browser: {path}:{end + 2}: no Package field; the record is left out\n"
            f"package-browser: {path}:{end + 4}: a control character; the record is left out\n")
        self.assertEqual(result.stdout, SAMPLE_LISTING)
        self.assertEqual(result.returncode, 0)

    def test_piped_output_has_no_progress_and_no_control_sequences(self):
        result = run(SAMPLE, env={**os.environ, "TERM": "xterm"})
        self.assertNotIn("\x1b", result.stdout + result.stderr)
        self.assertNotIn("Measured", result.stdout + result.stderr)
        self.assertNotIn("Reading", result.stdout + result.stderr)

    def test_terminal_shows_progress_and_leaves_the_listing(self):
        output, code = run_on_terminal(SAMPLE, columns=400)
        self.assertIn(f"\r\x1b[KReading {SAMPLE}", output)
        listing = output[output.rindex("\r\x1b[K") + len("\r\x1b[K"):]
        plain = listing.replace("\x1b[1m", "").replace("\x1b[2m", "").replace("\x1b[m", "")
        self.assertEqual(plain, SAMPLE_LISTING)
        self.assertEqual(code, 0)

    def test_dumb_terminal_gets_plain_lines(self):
        self.assertEqual(run_on_terminal(SAMPLE, term="dumb"), (SAMPLE_LISTING, 0))

    def test_no_line_is_wider_than_the_terminal(self):
        for columns in 80, 40, 20:
            output, _ = run_on_terminal(SAMPLE, columns=columns)
            for line in output[output.rindex("\r\x1b[K"):].splitlines():
                for sequence in "\x1b[K", "\x1b[1m", "\x1b[2m", "\x1b[m":
                    line = line.replace(sequence, "")
                self.assertLessEqual(len(line), columns, line)

    def start(self, *arguments):
        process = subprocess.Popen([PROGRAM, *map(str, arguments)], stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True, preexec_fn=take_interrupts)
        self.addCleanup(process.kill)
        return process

    def assertInterrupted(self, process, line):
        process.send_signal(signal.SIGINT)
        stdout, stderr = process.communicate(timeout=60)
        self.assertRegex(stderr, rf"\A{line}\n\Z")
        self.assertEqual(stdout, "")
        self.assertEqual(process.returncode, 130)

    def test_interrupt_while_the_database_is_read(self):
        path = self.database(b"")
        path.unlink()
        os.mkfifo(path)
        process = self.start(path)
        with open(path, "wb", buffering=0) as pipe:  # when it is open, the program reads
            pipe.write(SAMPLE.read_bytes())
            self.assertInterrupted(process, r"Interrupted: measured \d+ of \d+ packages\.")

    def test_interrupt_while_a_package_is_measured(self):
        path = self.database(b"Package: a\nStatus: install ok installed\n")
        (path.parent / "info").mkdir()
        file_list = path.parent / "info" / "a.list"
        os.mkfifo(file_list)
        process = self.start(path)
        with open(file_list, "wb"):  # when it is open, the program measures
            self.assertInterrupted(process, r"Interrupted: measured 0 of 1 packages\.")

    def test_interrupt_among_many_packages(self):
        count = 3000
        path = self.database(b"\n".join(
            b"Package: p%d\nStatus: install ok installed\n" % number for number in range(count)))
        (path.parent / "info").mkdir()
        file_list = path.parent / "info" / "p1500.list"
        os.mkfifo(file_list)
        process = self.start(path, "--timeout", "600")
        with open(file_list, "wb"):
            self.assertInterrupted(process, r"Interrupted: measured \d+ of \d+ packages\.")

    def test_ctrl_c_on_a_terminal_leaves_one_line(self):
        path = self.database(b"")
        path.unlink()
        os.mkfifo(path)
        for folder in "info", "files":
            (path.parent / folder).symlink_to(SAMPLE.parent / folder)
        master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("4H", 24, 80, 0, 0))
        process = subprocess.Popen([PROGRAM, path], stdin=slave, stdout=slave, stderr=slave,
                                   env={**os.environ, "TERM": "xterm"}, start_new_session=True,
                                   preexec_fn=make_terminal_own)
        self.addCleanup(process.kill)
        os.close(slave)
        output = b""
        with open(path, "wb", buffering=0) as pipe:
            pipe.write(SAMPLE.read_bytes() + b"\n")
            while b"Measured 5 of 5 packages, 4.7 KiB" not in output:
                output += os.read(master, 4096)
            os.write(master, b"\x03")
            self.assertEqual(process.wait(timeout=60), 130)
        output = b""
        try:
            while block := os.read(master, 4096):
                output += block
        except OSError:
            pass
        os.close(master)
        last = output.decode().replace("\r\n", "\n").split("\r\x1b[K")[-1]
        self.assertEqual(last, "Interrupted: measured 5 of 5 packages.\n")

    def test_reader_that_has_seen_enough_is_no_failure(self):
        reading, writing = os.pipe()
        os.close(reading)
        with os.fdopen(writing, "w") as pipe:
            result = subprocess.run([PROGRAM, SAMPLE], stdout=pipe, stderr=subprocess.PIPE,
                                    text=True, timeout=60)
        self.assertEqual((result.stderr, result.returncode), ("", 0))

    def test_full_disk(self):
        with open("/dev/full", "w") as full:
            result = subprocess.run([PROGRAM, SAMPLE], stdout=full, stderr=subprocess.PIPE,
                                    text=True, timeout=60)
        self.assertEqual(result.stderr,
                         "package-browser: standard output: No space left on device\n")
        self.assertEqual(result.returncode, 2)


if __name__ == "__main__":
    unittest.main()
