"""libtarvoafipdriver for Python: the twelve C functions through ctypes, no build step.

    import tarvoafip
    driver = tarvoafip.Driver()                      # or Driver("/path/to/libtarvoafipdriver.so.1")
    driver.set_wsaa("https://wsaahomo.afip.gov.ar/ws/services/LoginCms")
    driver.set_credentials("mine.p12", "password")
    driver.set_service("wsfe")
    driver.set_service_url("https://wswhomo.afip.gov.ar/wsfev1/service.asmx")
    driver.add_header('SOAPAction: "http://ar.gov.afip.dif.FEV1/FEDummy"')
    answer = driver.send_soap(request)               # bytes; raises TarvoAfipError on a result code

The library's state is process-wide: one Driver per process, calls serialised.

TLS verification is off unless asked for: Driver(tls_verify=True) checks the servers' certificates
and host names against the system's store, Driver(tls_verify=True, ca_file="afip-chain.pem") against
the PEM certificates in that file. Both are environment variables of the process (TARVO_TLS_VERIFY,
TARVO_CA_FILE), read by the library at every send_soap: they hold for the whole process, for every
Driver and for any other code in it that loads the library.
"""
import ctypes
import enum
import os

__all__ = ["Driver", "Result", "TarvoAfipError", "SONAME"]

SONAME = "libtarvoafipdriver.so.1"


class Result(enum.IntEnum):
    """The library's result codes (tarvoafipdriver.h)."""
    OK = 0
    CERTIFICATE_ERROR = 1
    NOT_AUTHORIZED = 2
    CERTIFICATE_EXPIRED = 3
    UNUSED_4 = 4
    CRYPTO_ERROR = 5
    CERTIFICATE_EXPIRED_2 = 6
    WSAA_URL_NOT_SET = 7
    WSAA_SERVICE_NOT_SET = 8
    TICKET_ALREADY_VALID = 9
    BUFFER_TOO_SMALL = 10
    TICKET_TOO_OLD = 11
    WS_URL_NOT_SET = 12
    REQUEST_NOT_XML = 13
    RESPONSE_NOT_XML = 14
    TIMEOUT = 15
    WSAA_TLS_FAILURE = 16
    WSAA_HTTP_FAILURE = 17


class TarvoAfipError(Exception):
    """A non-zero result code; `answer` and `log` hold what the library kept (maybe nothing)."""

    def __init__(self, result, answer=b"", log=b""):
        try:
            self.result = Result(result)
        except ValueError:
            self.result = result
        self.answer = answer
        self.log = log
        super().__init__("libtarvoafipdriver result %d (%s)" % (result, getattr(self.result, "name", "unknown")))


def _library_path(path):
    """The library named, else TARVO_LIBRARY, else the installed one through the loader's search path."""
    return path or os.environ.get("TARVO_LIBRARY") or SONAME


_TEXT = ctypes.c_char_p
_COPY = [ctypes.c_char_p, ctypes.c_uint32, ctypes.POINTER(ctypes.c_uint32)]
_SIGNATURES = {
    "GetAFIPVersion": ([ctypes.c_char_p], None),
    "SetWSAA": ([_TEXT], None),
    "SetWSAACredentials": ([_TEXT, _TEXT], None),
    "SetWSAAService": ([_TEXT], None),
    "SetWSUrl": ([_TEXT], None),
    "SetSecurity": ([ctypes.c_int32], None),
    "SetWebProxy": ([_TEXT, _TEXT, _TEXT], None),
    "SetTimeOut": ([ctypes.c_uint32], None),
    "AddSOAPHeader": ([_TEXT], None),
    "SendSOAP": ([_TEXT], ctypes.c_int32),
    "ReceivedSOAP": (_COPY, ctypes.c_int32),
    "GetVerboseTransfer": (_COPY, ctypes.c_int32),
}


def _bytes(text):
    return text if isinstance(text, bytes) else text.encode("utf-8")


def _text(value):
    return value.decode("utf-8") if isinstance(value, bytes) else value


class Driver:
    """The loaded library; each method is one of its functions. Text may be str (sent as UTF-8) or bytes."""

    def __init__(self, library=None, tls_verify=None, ca_file=None):
        """tls_verify: True or False sets TARVO_TLS_VERIFY for the whole process, None leaves it as it is;
        ca_file: a PEM file of certificates to trust, set as TARVO_CA_FILE (it implies tls_verify)."""
        if tls_verify is not None or ca_file:
            os.environ["TARVO_TLS_VERIFY"] = "1" if tls_verify or (tls_verify is None and ca_file) else "0"
        if ca_file:
            os.environ["TARVO_CA_FILE"] = os.fspath(ca_file)
        self.library = ctypes.CDLL(_library_path(library))
        self._settings = {}
        for name, (arguments, result) in _SIGNATURES.items():
            function = getattr(self.library, name)
            function.argtypes = arguments
            function.restype = result

    def version(self):
        text = ctypes.create_string_buffer(6)
        self.library.GetAFIPVersion(text)
        return text.value.decode("ascii")

    def settings(self):
        """What the setters were given, as the invoicing core's settings name them."""
        return dict(self._settings)

    def set_wsaa(self, url):
        self.library.SetWSAA(_bytes(url))
        self._settings["wsaa_url"] = _text(url)

    def set_credentials(self, certificate_path, password):
        self.library.SetWSAACredentials(_bytes(certificate_path), _bytes(password))
        self._settings.update(certificate=_text(os.fspath(certificate_path)), password=_text(password))

    def set_service(self, service):
        self.library.SetWSAAService(_bytes(service))
        self._settings["service"] = _text(service)

    def set_service_url(self, url):
        self.library.SetWSUrl(_bytes(url))
        self._settings["url"] = _text(url)

    def set_security(self, level):
        """1 TLS 1.0, 2 TLS 1.1, 3 TLS 1.2, 4 TLS 1.3; anything else: the default."""
        self.library.SetSecurity(level)
        self._settings["tls_level"] = level if 1 <= level <= 4 else 0

    def set_proxy(self, url, user="", password=""):
        self.library.SetWebProxy(_bytes(url), _bytes(user), _bytes(password))
        self._settings.update(proxy=_text(url), proxy_user=_text(user), proxy_password=_text(password))

    def set_timeout(self, milliseconds):
        self.library.SetTimeOut(milliseconds)
        self._settings["timeout_ms"] = milliseconds

    def add_header(self, line):
        """Queues one "Name: value" line for the next send_soap."""
        self.library.AddSOAPHeader(_bytes(line))

    def send_soap(self, request):
        """Sends one request and returns the answer (bytes); raises TarvoAfipError on a non-zero result."""
        result = self.library.SendSOAP(_bytes(request))
        if result == Result.RESPONSE_NOT_XML:
            raise TarvoAfipError(result, self.received_soap(), self.verbose_transfer())
        if result != Result.OK:
            # Nothing of this call was kept (an early check leaves the previous call's answer in place).
            raise TarvoAfipError(result)
        return self.received_soap()

    def received_soap(self):
        """The last answer, whole (it may hold NUL bytes)."""
        return self._copy_out(self.library.ReceivedSOAP)

    def verbose_transfer(self):
        """The transfer log of the last request."""
        return self._copy_out(self.library.GetVerboseTransfer)

    @staticmethod
    def _copy_out(function):
        # Ask for the size with a zero length, then copy exactly that many bytes; no NUL is written.
        size = ctypes.c_uint32(0)
        result = function(None, 0, ctypes.byref(size))
        if result == Result.OK and size.value:
            buffer = ctypes.create_string_buffer(size.value)
            result = function(buffer, size.value, ctypes.byref(size))
            if result == Result.OK:
                return buffer.raw[: size.value]
        if result != Result.OK:
            raise TarvoAfipError(result)
        return b""
