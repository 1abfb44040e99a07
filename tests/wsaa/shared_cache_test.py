"""Host processes sharing one working directory share one ticket: real processes against the simulator,
which refuses a second login while its ticket is valid."""
import fcntl
import os
import subprocess
import tempfile
import time
import unittest

from harness import ARGENTINA, CLI, SAMPLES, Simulator, cli_command, fixture, run


def crowd(simulator, work, count=12):
    """Starts `count` hosts at once in `work` and returns their exit statuses."""
    environment = dict(os.environ, **ARGENTINA)
    hosts = [subprocess.Popen(cli_command(simulator), cwd=work, env=environment, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL) for _ in range(count)]
    return [host.wait(timeout=120) for host in hosts]


class DirectoryLock:
    """Holds the lock the library takes on its working directory, as another host would."""

    def __init__(self, directory):
        self.descriptor = os.open(directory, os.O_RDONLY | os.O_DIRECTORY)
        fcntl.flock(self.descriptor, fcntl.LOCK_EX)

    def release(self):
        os.close(self.descriptor)


class SharedCache(unittest.TestCase):
    def test_a_crowd_logs_in_once_per_directory(self):
        for _ in range(3):
            with Simulator() as simulator, tempfile.TemporaryDirectory() as work:
                self.assertEqual(crowd(simulator, work), [0] * 12)
                self.assertEqual(len(simulator.requests("/ws/services/LoginCms")), 1)
                self.assertEqual(os.listdir(work), ["credentials.json"])

    def test_a_holder_that_never_finishes_blocks_only_up_to_the_time_out(self):
        with Simulator() as simulator, tempfile.TemporaryDirectory() as work:
            lock = DirectoryLock(work)
            started = time.monotonic()
            result = run(cli_command(simulator, "--timeout-ms", "1500"), cwd=work)
            elapsed = time.monotonic() - started
            lock.release()
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertGreaterEqual(elapsed, 1.5, "it waited for the holder")
            self.assertLess(elapsed, 10, "and went on without the lock")

    def test_a_failed_login_leaves_nothing_behind(self):
        with tempfile.TemporaryDirectory() as work:
            result = run([CLI, "--wsaa-url", "http://127.0.0.1:1/", "--certificate", fixture("signer.p12"), "--password",
                          "pw", "--service", "wsfe", "--url", "http://127.0.0.1:1/", "--request",
                          os.path.join(SAMPLES, "fe_dummy.xml")], cwd=work)
            self.assertEqual((result.returncode, os.listdir(work)), (17, []))


if __name__ == "__main__":
    unittest.main()
