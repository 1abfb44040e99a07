"""The command-line host as users run it: alone, then against the simulator over HTTPS."""
import os
import stat
import subprocess
import tempfile
import time
import unittest

from harness import CLI, Simulator, cli_command, run



class Alone(unittest.TestCase):
    def test_bad_usage_gives_64(self):
        for arguments, message in ((["--no-such-option"], "unknown option"), (["--url"], "needs a value"),
                                   (["--tls-level", "three"], "whole number"), (["--tls-level", "5"], "1..4"),
                                   (["--tls-level", "0"], "1..4"), (["--timeout-ms", "-1"], "range"),
                                   (["--timeout-ms", "4294967296"], "range"), (["--log=yes"], "takes no value"),
                                   (["--tls-verify=1"], "takes no value"), (["--ca-file"], "needs a value"),
                                   (["--env", "staging"], "homologation or production"),
                                   (["--operation", "FEDummmy"], "WSFEv1 operation"),
                                   (["invoice", "--cuit", "20111111112"], "invoice needs --cuit CUIT and either --invoice"),
                                   (["invoice", "--cuit", "0", "--invoice", "-"], "1..99999999999"),
                                   (["invoice", "--request", "r"], "unknown option '--request' for invoice"),
                                   (["--qr-png", "q.png"], "unknown option '--qr-png'")):
            result = run([CLI] + arguments)
            self.assertEqual((result.returncode, result.stdout), (64, ""), arguments)
            self.assertIn("tarvoafip_cli: ", result.stderr)
            self.assertIn(message, result.stderr)

    def test_never_waits_silently_on_a_terminal(self):
        controller, terminal = os.openpty()
        try:
            result = subprocess.run([CLI, "--wsaa-url", "u"], stdin=terminal, capture_output=True, text=True, timeout=10)
        finally:
            os.close(controller)
            os.close(terminal)
        self.assertEqual(result.returncode, 64)
        self.assertIn("no request: give --request FILE", result.stderr)

    def test_warns_of_requests_the_ticket_cannot_go_into(self):
        requests = {'<s:Envelope xmlns:s="s" xmlns:ns0="x"><s:Body><ns0:Op><ns0:Auth><ns0:Token/><ns0:Sign/>'
                    '</ns0:Auth></ns0:Op></s:Body></s:Envelope>': "this request has ns0:Token, ns0:Sign instead",
                    '<Op xmlns="x"><Auth><Token/><Sign/><Cuit>1</Cuit></Auth></Op>': "this request has Token, Sign",
                    '<Op><Auth><Cuit>1</Cuit></Auth></Op>': "this request has none",
                    '<Op xmlns:ar="x"><ar:Auth><ar:Token/><ar:Sign/></ar:Auth></Op>': None,
                    '<FEDummy/>': None}
        for request, warning in requests.items():
            result = run([CLI, "--certificate", "c"], input=request)
            self.assertEqual(result.returncode, 7)
            if warning:
                self.assertIn("the library writes the ticket only into elements named exactly ar:Token or token and "
                              "ar:Sign or sign; " + warning, result.stderr)
            else:
                self.assertNotIn("warning", result.stderr, request)

    def test_library_version_and_a_missing_library(self):
        self.assertEqual(run([CLI, "--version"]).stdout, "libtarvoafipdriver 1.0.0\n")
        missing = run([CLI, "--library", "/nonexistent/libtarvoafipdriver.so", "--version"])
        self.assertEqual(missing.returncode, 69)
        self.assertIn("/nonexistent/libtarvoafipdriver.so", missing.stderr)

    def test_each_option_reaches_its_setter(self):
        settings = ["--wsaa-url", "u", "--certificate", "c.p12", "--service", "s", "--url", "v"]
        with tempfile.TemporaryDirectory() as scratch:
            unclosed = os.path.join(scratch, "bad.xml")
            with open(unclosed, "w") as file:
                file.write("<unclosed>")
            cases = [
                ([], "<a/>", 7, "result 7: no WSAA address: give --wsaa-url"),
                (["--wsaa-url=u", "--password", "p"], "<a/>", 1, "result 1: the certificate is unusable"),
                (["--wsaa-url", "u", "--certificate", "c.p12"], "<a/>", 8, "result 8: no WSAA service name"),
                (settings[:6], "<a/>", 12, "result 12: no web-service address: give --url"),
                (settings, "not XML", 13, "result 13: the request is not well-formed XML"),
                (settings + ["--request", "-"], "still not XML", 13, "result 13"),
                (settings + ["--request", unclosed], "<fine/>", 13, "result 13"),
                (settings + ["--request", unclosed + ".missing"], "", 66, "bad.xml.missing"),
                # --env fills both addresses, and what is given explicitly wins, even empty.
                (["--env", "homologation", "--certificate", "c", "--service", "s"], "not XML", 13, "result 13"),
                (["--env", "production", "--wsaa-url", "", "--certificate", "c"], "<a/>", 7, "result 7"),
                (["--password-file", unclosed + ".missing"] + settings, "<a/>", 66, "cannot read the password"),
            ]
            for arguments, request, code, message in cases:
                with self.subTest(arguments=arguments):
                    result = run([CLI] + arguments, input=request)
                    self.assertEqual(result.returncode, code, result.stderr)
                    self.assertIn(message, result.stderr)

    def test_warns_outside_argentinas_time_zone(self):
        for zone, warning in (("UTC", "runs at UTC+00:00"), ("<+0530>-5:30", "runs at UTC+05:30"), ("<-03>3", None)):
            result = run([CLI], env={"TZ": zone}, input="<a/>")
            self.assertEqual(result.returncode, 7)
            if warning:
                self.assertIn("tarvoafip_cli: warning: this process " + warning, result.stderr)
            else:
                self.assertEqual(result.stderr.count("\n"), 1, result.stderr)


class AgainstSimulator(unittest.TestCase):
    def setUp(self):
        self.work = self.enterContext(tempfile.TemporaryDirectory())
        self.simulator = None

    def start(self, *options):
        self.simulator = self.enterContext(Simulator(*options))

    def cli(self, *extra, request="fe_comp_ultimo_autorizado.xml", password=("--password", "pw"), env=None):
        return run(cli_command(self.simulator, *extra, request=request, password=password), env=env, cwd=self.work)

    def logins(self):
        return len(self.simulator.requests("/ws/services/LoginCms"))

    def assertLastVoucher(self, result):
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("<CbteNro>", result.stdout)
        self.assertNotIn("<Errors>", result.stdout)

    def test_logs_in_once_caches_privately_and_sends_headers_in_order(self):
        self.start()
        log = os.path.join(self.work, "transfer.log")
        with open(log, "w"):
            os.chmod(log, 0o644)
        self.assertLastVoucher(self.cli("--header", "X-First: 1", "--header", "X-Second: 2", "--log-file", log))
        cache = os.path.join(self.work, "credentials.json")
        self.assertEqual([stat.S_IMODE(os.stat(path).st_mode) for path in (cache, log)], [0o600, 0o600],
                         "the cache and the log hold the live token and sign")
        with open(cache) as file:
            cached = file.read()
        with open(log, newline="") as file:
            self.assertIn("Content-Type: text/xml;charset=UTF-8\r\nX-First: 1\r\nX-Second: 2\r\n", file.read())

        self.assertLastVoucher(self.cli())
        self.assertEqual(self.logins(), 1)
        with open(cache) as file:
            self.assertEqual(file.read(), cached)

        # Deleted while WSAA still holds the ticket: WSAA refuses another.
        os.remove(cache)
        refused = self.cli()
        self.assertEqual((refused.returncode, refused.stdout), (9, ""))
        self.assertIn("result 9: WSAA already holds a valid ticket", refused.stderr)

    def test_service_failures_and_the_log(self):
        self.start()
        log = os.path.join(self.work, "transfer.log")
        self.simulator.answer("/wsfev1/service.asmx", b"plain text", delay_ms=3000)
        started = time.monotonic()
        slow = self.cli("--timeout-ms", "500", "--log", "--log-file", log, request="fe_dummy.xml")
        self.assertLess(time.monotonic() - started, 2.5)
        self.assertEqual((slow.returncode, slow.stdout), (15, ""))
        self.assertEqual(slow.stderr, "tarvoafip_cli: result 15: the service did not answer within the time-out; "
                                      "nothing was kept\n")
        with open(log) as file:
            self.assertEqual(file.read(), "")

        self.simulator.answer("/wsfev1/service.asmx", b"plain text")
        garbled = self.cli("--log", "--log-file", log, request="fe_dummy.xml")
        with open(log) as file:
            logged = file.read()
        self.assertEqual((garbled.returncode, garbled.stdout), (14, "plain text"))
        self.assertTrue(logged.endswith("==> Response body\nplain text\n"), logged)
        self.assertEqual(garbled.stderr, logged + "tarvoafip_cli: result 14: the service's answer is not well-formed "
                                                  "XML, or there was none (see --log)\n")

    def test_invoicing_with_the_password_from_a_file_or_the_environment(self):
        self.start()
        password_file = os.path.join(self.work, "password")
        with open(password_file, "w") as file:
            file.write("pw\n")
        sample = "fe_cae_solicitar.xml"
        invoice = self.cli("--operation", "FECAESolicitar", request=sample, password=(), env={"TARVO_PASSWORD": "pw"})
        self.assertEqual(invoice.returncode, 0, invoice.stderr)
        self.assertRegex(invoice.stdout, r"<Resultado>A</Resultado><CAE>\d{14}</CAE>")
        self.assertIn(["SOAPAction", '"http://ar.gov.afip.dif.FEV1/FECAESolicitar"'],
                      self.simulator.requests("/wsfev1/service.asmx")[0]["headers"])
        os.remove(os.path.join(self.work, "credentials.json"))
        wrong = self.cli("--password-file", password_file, request=sample, password=("--password", "wrong"))
        self.assertEqual(wrong.returncode, 5, "--password wins over the file")
        from_file = self.cli("--password-file", password_file, request=sample, password=(), env={"TARVO_PASSWORD": "wrong"})
        self.assertEqual(from_file.returncode, 9, "the file's password signed; the simulator refuses a second login")

    def test_proxy_options_reach_the_library(self):
        self.start()
        result = self.cli("--proxy", "http://127.0.0.1:1", "--proxy-user", "u", request="fe_dummy.xml")
        self.assertEqual(result.returncode, 17, "WSAA must be tried through the dead proxy")
        self.assertEqual(self.logins(), 0)


if __name__ == "__main__":
    unittest.main()
