"""Beyond the defaults: TLS verification through the command-line host and the Python binding, and the
warning about a working directory that cannot keep the ticket."""
import os
import sys
import tempfile
import unittest

from harness import CLI, SAMPLES, SOURCE, Simulator, cli_command, fixture, run

# A sanitized library in python3: the sanitizer's runtime first, and libstdc++ for its exceptions.
PRELOAD = os.environ["TARVO_PRELOAD"] + " libstdc++.so.6" if os.environ.get("TARVO_PRELOAD") else ""
# The Python binding's arguments, then the result code of one request: WSAA, certificate, service, request.
BINDING = ("import sys, tarvoafip; d = tarvoafip.Driver(None, %s); d.set_wsaa(sys.argv[1]); d.set_service('wsfe'); "
           "d.set_credentials(sys.argv[2], 'pw'); d.set_service_url(sys.argv[3]); "
           "sys.exit(d.library.SendSOAP(open(sys.argv[4], 'rb').read()))")


class Security(unittest.TestCase):
    def test_verification_refuses_servers_not_trusted_and_named(self):
        with tempfile.TemporaryDirectory() as scratch:
            pem = os.path.join(scratch, "simulator.pem")
            # Production's weak-DH server passes too; a certificate for another name does not.
            for server, named in ((["--legacy-tls"], 0), (["--tls-name", "elsewhere.example"], 17)):
                with Simulator("--tls-cert-out", pem, "--refuse-relogin-seconds", "0", *server) as simulator:
                    binding = lambda settings: [sys.executable, "-c", BINDING % settings, simulator.wsaa(),
                                                fixture("signer.p12"), simulator.wsfe(), os.path.join(SAMPLES, "fe_dummy.xml")]
                    invoice = lambda host, *extra: host + [
                        "--wsaa-url", simulator.wsaa(), "--certificate", fixture("signer.p12"), "--password", "pw",
                        "--service", "wsfe", "--url", simulator.wsfe(), "--cuit", "20111111112",
                        "--invoice", os.path.join(SAMPLES, "factura_b.json"), *extra]
                    for command, environment, code in (
                            (cli_command(simulator), {"TARVO_TLS_VERIFY": "0", "TARVO_CA_FILE": fixture("ca.pem")}, 0),
                            (cli_command(simulator, "--tls-verify"), {}, 17),
                            (cli_command(simulator, "--ca-file", fixture("ca.pem")), {}, 17),
                            (cli_command(simulator, "--ca-file", pem), {}, named),
                            (cli_command(simulator), {"TARVO_TLS_VERIFY": "1", "TARVO_CA_FILE": pem}, named),
                            (binding("tls_verify=True"), {}, 17), (binding("ca_file=%r" % pem), {}, named),
                            (invoice([CLI, "invoice"], "--tls-verify"), {}, 17),
                            (invoice([CLI, "invoice"], "--ca-file", pem), {}, named),
                            (invoice([sys.executable, "-m", "tarvoafip.invoicing"], "--ca-file", pem), {}, named)):
                        with tempfile.TemporaryDirectory() as work:
                            result = run(command, cwd=work, env=dict(
                                environment, PYTHONPATH=os.path.join(SOURCE, "bindings", "python"),
                                LD_PRELOAD=PRELOAD, ASAN_OPTIONS="detect_leaks=0"))
                            self.assertEqual(result.returncode, code, (server, command[-2:], environment, result.stderr))
                            # With the ticket kept, the service's exchange alone is refused.
                            if code == 0:
                                self.assertEqual(run(cli_command(simulator, "--tls-verify"), cwd=work).returncode, 14)

    def test_an_unwritable_directory_is_warned_of_once(self):
        with tempfile.TemporaryDirectory() as work:
            os.chmod(work, 0o555)
            # Root writes anywhere: the host runs as nobody then.
            as_user = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] if os.geteuid() == 0 else []
            result = run(as_user + [CLI, "--certificate", "c"], input="<a/>", cwd=work)
            os.chmod(work, 0o700)
        self.assertEqual(result.returncode, 7)
        self.assertEqual(result.stderr.count("warning: the login ticket cannot be kept, because the working directory "
                                             + work + " cannot be written: every run logs in again"), 1, result.stderr)


if __name__ == "__main__":
    unittest.main()
