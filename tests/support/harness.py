"""What the Python tests share: the built programs, the simulator as a child process with its
scripted answers, and running programs with a time limit."""
import base64
import contextlib
import json
import os
import socket
import ssl
import subprocess
import tempfile
import time
import urllib.parse
import urllib.request

SOURCE = os.environ["TARVO_SOURCE_DIR"]
LIBRARY = os.environ["TARVO_LIBRARY"]
SIMULATOR = os.environ["TARVO_SIMULATOR"]
CLI = os.environ["TARVO_CLI"]
FIXTURES = os.environ["TARVO_FIXTURES"]
SAMPLES = os.path.join(SOURCE, "tools", "cli", "samples")


ARGENTINA = {"TZ": "<-03>3"}


def fixture(name):
    return os.path.join(FIXTURES, name)


def cli_command(simulator, *extra, request="fe_dummy.xml", password=("--password", "pw")):
    """The command-line host sending a sample request through `simulator` with the test certificate."""
    return [CLI, "--wsaa-url", simulator.wsaa(), "--certificate", fixture("signer.p12"), *password, "--service", "wsfe",
            "--url", simulator.wsfe(), "--request", os.path.join(SAMPLES, request), *extra]


def run(arguments, env=None, cwd=None, input=None, timeout=60):
    """Runs a program to its end, in Argentina's time zone unless `env` says otherwise; text output.
    Standard input is `input`, or empty."""
    environment = dict(os.environ, **ARGENTINA)
    environment.update(env or {})
    return subprocess.run(arguments, env=environment, cwd=cwd, input=input or "", capture_output=True, text=True,
                          timeout=timeout)


def post(url, body=b"", headers=None, method="POST"):
    """(status, body bytes, headers) of one request; certificates are not checked."""
    # Not urllib's default form type, which the simulator's server library limits to 8 KiB.
    headers = dict({"Content-Type": "text/xml; charset=utf-8"}, **(headers or {}))
    request = urllib.request.Request(url, data=body if method == "POST" else None, headers=headers, method=method)
    context = ssl.create_default_context()
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    context.set_ciphers("DEFAULT@SECLEVEL=1")  # a --legacy-tls simulator too
    try:
        with urllib.request.urlopen(request, timeout=30, context=context) as answer:
            return answer.status, answer.read(), answer.headers
    except urllib.error.HTTPError as error:
        return error.code, error.read(), error.headers


class Simulator(contextlib.AbstractContextManager):
    """The simulator on a free loopback port; it must end cleanly when the test lets it go."""

    def __init__(self, *options, tls=True):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]
        self.scheme = "https" if tls else "http"
        arguments = [SIMULATOR, "--port", str(self.port), "--max-seconds", "300"] + (["--tls"] if tls else [])
        self.process = subprocess.Popen(arguments + list(options), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        text=True)
        deadline = time.monotonic() + 120  # start-up key generation is slow under emulation
        while time.monotonic() < deadline and self.process.poll() is None:
            with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", self.port), timeout=1):
                return
            time.sleep(0.02)
        self.process.kill()
        raise RuntimeError("the simulator did not start: %s" % self.process.communicate()[1])

    def url(self, path):
        return "%s://127.0.0.1:%d%s" % (self.scheme, self.port, path)

    def wsaa(self):
        return self.url("/ws/services/LoginCms")

    def wsfe(self):
        return self.url("/wsfev1/service.asmx")

    def answer(self, path, body=b"", **parameters):
        query = urllib.parse.urlencode(dict(path=path, **parameters))
        status, text, _ = post(self.url("/simulator/answers?" + query), body)
        assert status == 200, text

    def requests(self, path=""):
        return json.loads(post(self.url("/simulator/requests?path=" + path))[1])

    def stop(self):
        """Stops the simulator and returns its log (standard output)."""
        if self.process.poll() is None:
            self.process.terminate()
        output, errors = self.process.communicate(timeout=30)
        assert self.process.returncode == 0 and errors == "", (self.process.returncode, errors)
        return output

    def __exit__(self, *failure):
        if self.process.poll() is None:
            self.stop()


def login_ticket_request(service, generated=None, expires=None):
    """The ticket request as the library builds it, times in Argentina's wall clock."""
    now = time.time()
    stamp = lambda when: time.strftime("%Y-%m-%dT%H:%M:%S", time.gmtime(when - 3 * 3600))
    return ('<?xml version="1.0" encoding="utf-8"?><loginTicketRequest version="1.0"><header><uniqueId>'
            '2261374686</uniqueId><generationTime>%s</generationTime><expirationTime>%s</expirationTime>'
            '</header><service>%s</service></loginTicketRequest>'
            % (stamp(generated or now - 3600), stamp(expires or now + 43200), service))


def login_envelope(cms_base64):
    return ('<soapenv:Envelope xmlns:soapenv="http://schemas.xmlsoap.org/soap/envelope/" '
            'xmlns:wsaa="http://wsaa.view.sua.dvadac.desein.afip.gov"><soapenv:Header/><soapenv:Body>'
            '<wsaa:loginCms><wsaa:in0>%s</wsaa:in0></wsaa:loginCms></soapenv:Body></soapenv:Envelope>'
            % cms_base64).encode()


def signed(document, certificate="signer.p12"):
    """Base64 of the CMS signed message of `document`, as the library makes it."""
    with tempfile.TemporaryDirectory() as scratch:
        pem = os.path.join(scratch, "signer.pem")
        subprocess.run(["openssl", "pkcs12", "-in", fixture(certificate), "-passin", "pass:pw", "-nodes", "-out",
                        pem], check=True, capture_output=True)
        der = subprocess.run(["openssl", "cms", "-sign", "-nodetach", "-binary", "-signer", pem, "-outform", "DER"],
                             input=document.encode(), check=True, capture_output=True).stdout
    return base64.b64encode(der).decode()
