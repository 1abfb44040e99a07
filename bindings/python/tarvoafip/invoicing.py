"""Invoices, not XML: the invoicing core libtarvoafipinvoicing through ctypes. It authorises a voucher
at most once per sale id, keeps every sale in a ledger (SQLite, ledger.sqlite in the working
directory unless named), recovers a lost answer, sends batches, and makes AFIP's QR code.

    from tarvoafip import invoicing
    with invoicing.Invoicing(env="homologation", certificate="mine.p12", password="...",
                             cuit=20111111112) as core:
        outcome = core.authorise({"sale_id": "till-1/4711", "PtoVta": 1, "CbteTipo": 6, ...})
        print(outcome["CbteNro"], outcome["CAE"], outcome["qr_url"])

The voucher is a dict with WSFEv1's field names (the core's header lists them). `authorise` returns
the outcome dict for approved and rejected vouchers (Resultado A or R), raises InvoiceError for a
bad voucher (nothing sent), SaleConflict when the sale id belongs to another voucher, LedgerError
when the ledger cannot be used, OutcomeUnknown when the answer was lost for good (the sale stays
pending: run it again), and tarvoafip.TarvoAfipError when the exchange failed before AFIP could
decide. The older form authorise(driver, voucher, cuit) takes the settings a tarvoafip.Driver was
given.
"""
import ctypes
import json
import os

from . import TarvoAfipError

__all__ = ["Invoicing", "authorise", "read_answer", "qr_url", "qr_png", "InvoiceError", "SaleConflict",
           "LedgerError", "OutcomeUnknown", "InvoicingError", "SONAME"]

SONAME = "libtarvoafipinvoicing.so.1"

# The core's result codes (tarvoafipinvoicing.h); 1-17 are libtarvoafipdriver's.
OK, REJECTED, OUTCOME_UNKNOWN, SALE_CONFLICT, LEDGER_ERROR, BUSY, NOT_FOUND = 0, 20, 21, 22, 23, 24, 25
UNKNOWN_CUIT, INACTIVE_KEY, REGISTRY_REFUSED, CONDITION_UNFIT, CAEA = 26, 27, 28, 29, 30
BAD_INPUT, INTERNAL, CANNOT_WRITE = 65, 70, 73


class InvoicingError(Exception):
    """A result code of the core with its message; `outcome` holds the outcome dict when there is one."""

    def __init__(self, code, message, outcome=None):
        super().__init__(message)
        self.code = code
        self.outcome = outcome


class InvoiceError(InvoicingError, ValueError):
    """The voucher is not one: the message names the field. Nothing was sent."""


class SaleConflict(InvoicingError):
    """The sale id belongs to another voucher. Nothing was sent."""


class LedgerError(InvoicingError):
    """The ledger cannot be used (unreadable, not a ledger, newer, full, read-only). Nothing was sent."""


class OutcomeUnknown(InvoicingError):
    """The answer was lost and FECompConsultar could not tell what became of the voucher."""

    @property
    def number(self):
        return (self.outcome or {}).get("CbteNro")


_ERRORS = {BAD_INPUT: InvoiceError, SALE_CONFLICT: SaleConflict, LEDGER_ERROR: LedgerError,
           OUTCOME_UNKNOWN: OutcomeUnknown}

_TEXT = ctypes.c_char_p
_HANDLE = ctypes.c_void_p
_OUT = ctypes.POINTER(ctypes.c_void_p)
_SIGNATURES = {
    "tarvo_invoicing_version": ([], ctypes.c_int),
    "tarvo_invoicing_open": ([_TEXT, ctypes.POINTER(_HANDLE)], ctypes.c_int),
    "tarvo_invoicing_close": ([_HANDLE], None),
    "tarvo_invoicing_message": ([_HANDLE], _TEXT),
    "tarvo_invoicing_authorise": ([_HANDLE, _TEXT, _OUT], ctypes.c_int),
    "tarvo_invoicing_authorise_batch": ([_HANDLE, _TEXT, _OUT], ctypes.c_int),
    "tarvo_invoicing_ledger_list": ([_HANDLE, _TEXT, _OUT], ctypes.c_int),
    "tarvo_invoicing_lookup": ([_HANDLE, _TEXT, _OUT], ctypes.c_int),
    "tarvo_invoicing_caea": ([_HANDLE, _TEXT, _OUT], ctypes.c_int),
    "tarvo_invoicing_receipt": ([_HANDLE, _TEXT, _OUT, ctypes.POINTER(ctypes.c_size_t)], ctypes.c_int),
    "tarvo_invoicing_ledger_show": ([_HANDLE, _TEXT, _OUT], ctypes.c_int),
    "tarvo_invoicing_read_answer": ([_HANDLE, _TEXT, _OUT], ctypes.c_int),
    "tarvo_invoicing_qr_url": ([_HANDLE, _TEXT, _OUT], ctypes.c_int),
    "tarvo_invoicing_qr_png": ([_HANDLE, _TEXT, _TEXT], ctypes.c_int),
    "tarvo_invoicing_transfer_log": ([_HANDLE, _OUT], ctypes.c_int),
    "tarvo_invoicing_free": ([ctypes.c_void_p], None),
}
_LOADED = {}


def _library(path=None):
    """The core: the path given, else TARVO_INVOICING_LIBRARY, else the installed one."""
    path = path or os.environ.get("TARVO_INVOICING_LIBRARY") or SONAME
    if path not in _LOADED:
        library = ctypes.CDLL(path)
        for name, (arguments, result) in _SIGNATURES.items():
            function = getattr(library, name)
            function.argtypes = arguments
            function.restype = result
        _LOADED[path] = library
    return _LOADED[path]


def _bytes(text):
    return text if isinstance(text, bytes) else text.encode("utf-8")


def _raise(code, message, outcome=None):
    if code in _ERRORS:
        raise _ERRORS[code](code, message, outcome)
    if 1 <= code <= 17:
        error = TarvoAfipError(code)
        error.message, error.outcome = message, outcome
        raise error
    raise InvoicingError(code, message, outcome)


def _call(library, handle, function, *arguments):
    """(code, text the core handed out or None, message)."""
    out = ctypes.c_void_p()
    code = getattr(library, function)(handle, *arguments, ctypes.byref(out))
    text = None
    if out.value:
        text = ctypes.string_at(out.value).decode("utf-8")
        library.tarvo_invoicing_free(out)
    message = library.tarvo_invoicing_message(handle) if handle else None
    return code, text, (message or b"").decode("utf-8", "replace")


class Invoicing:
    """One handle of the core: its settings are the keyword arguments (cuit, env, wsaa_url, url,
    certificate, password, service, ledger, proxy, tls_level, timeout_ms, headers, tls_verify,
    ca_file, ...) as tarvoafipinvoicing.h lists them. Close it, or use it in a with statement."""

    def __init__(self, library=None, **settings):
        self.library = _library(library)
        self.handle = ctypes.c_void_p()
        code = self.library.tarvo_invoicing_open(_bytes(json.dumps(settings)), ctypes.byref(self.handle))
        if code != OK:
            message = self.library.tarvo_invoicing_message(self.handle).decode("utf-8", "replace")
            self.close()
            _raise(code, message)

    def close(self):
        if self.handle:
            self.library.tarvo_invoicing_close(self.handle)
            self.handle = ctypes.c_void_p()

    def __enter__(self):
        return self

    def __exit__(self, *failure):
        self.close()

    def _json(self, function, argument, allowed=(OK,)):
        code, text, message = _call(self.library, self.handle, function, argument)
        value = json.loads(text) if text is not None else None
        if code not in allowed:
            _raise(code, message, value)
        return value

    def authorise(self, voucher, sale_id=None):
        """The outcome dict of one voucher (approved, rejected, or issued under a CAEA with the
        "contingency" setting); see the module's text."""
        if sale_id is not None:
            voucher = dict(voucher, sale_id=sale_id)
        return self._json("tarvo_invoicing_authorise", _bytes(json.dumps(voucher)), (OK, REJECTED, CAEA))

    def lookup(self, cuit, service="ws_sr_constancia_inscripcion", reuse=False):
        """What AFIP's registry says of a CUIT (a dict with its CondicionIVAReceptorId); an inactive
        key still returns the dict, with key_state INACTIVO."""
        return self._json("tarvo_invoicing_lookup", _bytes(json.dumps({"cuit": int(cuit), "service": service,
                                                                       "reuse": reuse})), (OK, INACTIVE_KEY))

    def caea(self, action, **arguments):
        """CAEA contingency: action request (period, order), show, inform, no_movement (point_of_sale,
        period, order) or status; the result as the core gives it (inform's refusals come back
        inside it, with code 20)."""
        return self._json("tarvo_invoicing_caea", _bytes(json.dumps(dict(arguments, action=action))),
                          (OK, REJECTED) if action == "inform" else (OK,))

    def receipt(self, sale_id, issuer, format="pdf-a4"):
        """The printed voucher's bytes: `issuer` a profile dict, or the path of a profile file."""
        request = {"sale_id": sale_id, "format": format}
        request["issuer" if isinstance(issuer, dict) else "issuer_file"] = issuer if isinstance(issuer, dict) \
            else os.fspath(issuer)
        out = ctypes.c_void_p()
        length = ctypes.c_size_t()
        code = self.library.tarvo_invoicing_receipt(self.handle, _bytes(json.dumps(request)), ctypes.byref(out),
                                                    ctypes.byref(length))
        if code != OK:
            _raise(code, self.library.tarvo_invoicing_message(self.handle).decode("utf-8", "replace"))
        data = ctypes.string_at(out.value, length.value)
        self.library.tarvo_invoicing_free(out)
        return data

    def authorise_batch(self, vouchers):
        """One outcome dict per voucher, in their order, each with its "status" and "message"."""
        code, text, message = _call(self.library, self.handle, "tarvo_invoicing_authorise_batch",
                                    _bytes(json.dumps(list(vouchers))))
        if text is None:
            _raise(code, message)
        return json.loads(text)

    def ledger_list(self, **selection):
        """The ledger's sales: from/to (yyyymmdd) and point_of_sale select."""
        return self._json("tarvo_invoicing_ledger_list", _bytes(json.dumps(selection)))

    def ledger_show(self, sale_id):
        return self._json("tarvo_invoicing_ledger_show", _bytes(sale_id))

    def transfer_log(self):
        code, text, message = _call(self.library, self.handle, "tarvo_invoicing_transfer_log")
        return text or ""


def _stateless(function, *arguments):
    code, text, _ = _call(_library(), None, function, *arguments)
    if code != OK:
        raise InvoicingError(code, "%s failed with result %d" % (function, code))
    return text


def read_answer(xml):
    """The outcome dict of a FECAESolicitar answer (bytes or str); None when it holds no
    FECAESolicitarResult (not XML, a SOAP fault). qr_url stays None: the answer lacks the amounts."""
    try:
        return json.loads(_stateless("tarvo_invoicing_read_answer", _bytes(xml)))
    except InvoicingError:
        return None


def qr_url(fecha, cuit, pto_vta, tipo_cmp, nro_cmp, importe, moneda, ctz, tipo_doc_rec, nro_doc_rec, cod_aut,
           tipo_cod_aut="E"):
    """AFIP's verification address of a voucher. `fecha` as yyyymmdd or yyyy-mm-dd; `importe` at most
    two decimals; `cod_aut` the CAE (or the CAEA, with tipo_cod_aut "A")."""
    voucher = {"fecha": fecha, "cuit": int(cuit), "ptoVta": int(pto_vta), "tipoCmp": int(tipo_cmp),
               "nroCmp": int(nro_cmp), "importe": str(importe), "moneda": moneda, "ctz": str(ctz),
               "tipoDocRec": int(tipo_doc_rec), "nroDocRec": int(nro_doc_rec), "tipoCodAut": tipo_cod_aut,
               "codAut": str(cod_aut)}
    return _stateless("tarvo_invoicing_qr_url", _bytes(json.dumps(voucher)))


def qr_png(url, path):
    """Writes `url` as a QR image (PNG) through the core."""
    library = _library()
    code = library.tarvo_invoicing_qr_png(None, _bytes(url), _bytes(os.fspath(path)))
    if code != OK:
        raise OSError("cannot write the QR image to %s" % path)


def authorise(driver, voucher, cuit, ledger=None, sale_id=None):
    """Authorises `voucher` for the issuer `cuit` with the settings `driver` (a tarvoafip.Driver) was
    given; see the module's text."""
    settings = dict(driver.settings(), cuit=int(cuit))
    if ledger is not None:
        settings["ledger"] = os.fspath(ledger)
    with Invoicing(**settings) as core:
        return core.authorise(voucher, sale_id)


def main(arguments=None):
    """python3 -m tarvoafip.invoicing: tarvoafip_cli invoice's options, output and exit statuses."""
    import argparse
    import sys
    parser = argparse.ArgumentParser(prog="python3 -m tarvoafip.invoicing", description=main.__doc__)
    for option in ("--wsaa-url", "--certificate", "--password", "--service", "--url", "--invoice", "--qr-png",
                   "--sale-id", "--ledger"):
        parser.add_argument(option)
    parser.add_argument("--cuit", type=int, required=True)
    parser.add_argument("--tls-verify", action="store_true")
    parser.add_argument("--ca-file")
    options = parser.parse_args(arguments)
    try:
        with (sys.stdin if options.invoice in (None, "-") else open(options.invoice)) as file:
            text = file.read()
    except OSError as error:
        print("cannot read the invoice: %s" % error, file=sys.stderr)
        return 66
    if options.qr_png and os.path.exists(options.qr_png):
        os.remove(options.qr_png)  # an older image is never to be taken for this voucher's
    settings = {"cuit": options.cuit, "wsaa_url": options.wsaa_url or "", "url": options.url or "",
                "certificate": options.certificate or "", "password": options.password or ""}
    for key, value in (("service", options.service), ("ledger", options.ledger), ("ca_file", options.ca_file)):
        if value is not None:
            settings[key] = value
    if options.tls_verify:
        settings["tls_verify"] = True
    with Invoicing(**settings) as core:
        try:
            voucher = json.loads(text)
        except ValueError:
            voucher = None
        if isinstance(voucher, dict) and options.sale_id:
            voucher["sale_id"] = options.sale_id
        code, output, message = _call(core.library, core.handle, "tarvo_invoicing_authorise",
                                      _bytes(json.dumps(voucher) if isinstance(voucher, dict) else text))
    if output is not None:
        print(output)
    if code == BAD_INPUT:
        print("bad invoice file: %s" % message, file=sys.stderr)
    elif code != OK:
        print(message, file=sys.stderr)
    if code == OK and options.qr_png:
        try:
            qr_png(json.loads(output)["qr_url"], options.qr_png)
        except OSError as error:  # the voucher exists all the same
            print("no QR image: %s" % error, file=sys.stderr)
    return code


if __name__ == "__main__":
    raise SystemExit(main())
