"""Invoices, not XML: authorise one WSFEv1 voucher at most once, read FECAESolicitar's answer,
and make AFIP's QR code (RG 4892/2020).

    import tarvoafip, tarvoafip.invoicing as invoicing
    driver = tarvoafip.Driver(tls_verify=True if options.tls_verify else None, ca_file=options.ca_file)          # configured as usual: WSAA, certificate, service "wsfe", URL
    outcome = invoicing.authorise(driver, {"PtoVta": 1, "CbteTipo": 6, ...}, cuit=20111111112)
    if outcome["Resultado"] == "A":
        print(outcome["CbteNro"], outcome["CAE"], outcome["qr_url"])

The voucher is a dict with WSFEv1's field names, as `tarvoafip_cli invoice` reads them. Without
CbteNro the number is FECompUltimoAutorizado + 1; without CbteFch the date is today in Argentina.
A lost answer (result 14 or 15, a SOAP fault, Err 502) is settled by FECompConsultar: the same
voucher there is the outcome (recovered True); nothing there, the voucher is sent again, at most
ATTEMPTS times in all; another voucher there, the next number is taken. `authorise` returns the
outcome dict for approved and rejected vouchers, raises InvoiceError for a bad voucher (nothing
sent), OutcomeUnknown when the answer was lost for good, and tarvoafip.TarvoAfipError when the
exchange failed before AFIP could decide.
"""
import base64
import datetime
import decimal
import json
import time
import xml.etree.ElementTree as ElementTree
from xml.sax.saxutils import escape

from . import Result, TarvoAfipError

__all__ = ["authorise", "read_answer", "qr_url", "qr_png", "InvoiceError", "OutcomeUnknown", "ATTEMPTS"]

ATTEMPTS = 3
QR_ADDRESS = "https://www.afip.gob.ar/fe/qr/?p="
_FEV1 = "http://ar.gov.afip.dif.FEV1/"
_INT32 = 2 ** 31 - 1
_INT64 = 2 ** 63 - 1
_CENT = decimal.Decimal("0.01")


class InvoiceError(ValueError):
    """The voucher is not one: the message names the field. Nothing was sent."""


class OutcomeUnknown(Exception):
    """The answer was lost and FECompConsultar could not tell what became of the voucher."""

    def __init__(self, message, number):
        super().__init__(message)
        self.number = number


# --- the voucher --------------------------------------------------------------------------------

def _integer(where, name, value, highest=_INT32):
    if isinstance(value, bool) or not isinstance(value, int):
        raise InvoiceError("field %s%s must be a whole number" % (where, name))
    if not 0 <= value <= highest:
        raise InvoiceError("field %s%s is out of range 0..%d" % (where, name, highest))
    return value


def _amount(where, name, value):
    if isinstance(value, bool) or not isinstance(value, (int, float)) or abs(value) >= 1e13:
        raise InvoiceError("field %s%s must be a number below 10^13" % (where, name))
    return decimal.Decimal(str(value)).quantize(_CENT, rounding=decimal.ROUND_HALF_UP)


def _decimal_text(where, name, value):
    _amount(where, name, value)
    text = "%.6f" % value
    return text.rstrip("0").rstrip(".") or "0"


def _text(where, name, value):
    if not isinstance(value, str):
        raise InvoiceError("field %s%s must be a string" % (where, name))
    return value


def _date(where, name, value):
    if not (isinstance(value, str) and len(value) == 8 and value.isdigit() and value.isascii()):
        raise InvoiceError("field %s%s must be a date written yyyymmdd" % (where, name))
    return value


# Each field: (reader, required). A missing optional field is left out or takes its default.
_FIELDS = {
    "PtoVta": (_integer, True), "CbteTipo": (_integer, True), "Concepto": (_integer, True),
    "DocTipo": (_integer, True), "DocNro": (lambda w, n, v: _integer(w, n, v, _INT64), True),
    "CbteNro": (lambda w, n, v: _integer(w, n, v, _INT64), False), "CbteFch": (_date, False),
    "ImpTotal": (_amount, True), "ImpTotConc": (_amount, False), "ImpNeto": (_amount, False),
    "ImpOpEx": (_amount, False), "ImpTrib": (_amount, False), "ImpIVA": (_amount, False),
    "MonId": (_text, False), "MonCotiz": (_decimal_text, False), "CondicionIVAReceptorId": (_integer, False),
    "FchServDesde": (_date, False), "FchServHasta": (_date, False), "FchVtoPago": (_date, False),
}
_LISTS = {
    "Iva": {"Id": (_integer, True), "BaseImp": (_amount, True), "Importe": (_amount, True)},
    "Tributos": {"Id": (_integer, True), "Desc": (_text, False), "BaseImp": (_amount, True),
                 "Alic": (_decimal_text, True), "Importe": (_amount, True)},
    "CbtesAsoc": {"Tipo": (_integer, True), "PtoVta": (_integer, True),
                  "Nro": (lambda w, n, v: _integer(w, n, v, _INT64), True), "Cuit": (_text, False),
                  "CbteFch": (_date, False)},
    "Opcionales": {"Id": (_text, True), "Valor": (_text, True)},
}
_DEFAULTS = {"ImpTotConc": _amount("", "", 0), "ImpNeto": _amount("", "", 0), "ImpOpEx": _amount("", "", 0),
             "ImpTrib": _amount("", "", 0), "ImpIVA": _amount("", "", 0), "MonId": "PES", "MonCotiz": "1"}


def _read_object(value, fields, where):
    if not isinstance(value, dict):
        raise InvoiceError("%s must be an object" % (where[:-1] or "the voucher"))
    read = {}
    for name, (reader, required) in fields.items():
        if value.get(name) is None:
            if required:
                raise InvoiceError("field %s%s is required" % (where, name))
            continue
        read[name] = reader(where, name, value[name])
    for name in value:
        if name not in fields and not (where == "" and name in _LISTS):
            raise InvoiceError("field %s%s is not a field of a voucher" % (where, name))
    return read


def read_voucher(voucher):
    """The voucher checked and normalised (amounts as Decimal cents); raises InvoiceError."""
    read = dict(_DEFAULTS, **_read_object(voucher, _FIELDS, ""))
    for name, fields in _LISTS.items():
        items = voucher.get(name)
        if items is None:
            continue
        if not isinstance(items, list):
            raise InvoiceError("field %s must be a list" % name)
        read[name] = [_read_object(item, fields, "%s[%d]." % (name, index)) for index, item in enumerate(items)]
    return read


# --- requests -----------------------------------------------------------------------------------

def _elements(pairs):
    """Elements in the order given; the lists' content is XML already."""
    return "".join("<ar:%s>%s</ar:%s>" % (name, value if name in _LISTS else escape(str(value)), name)
                   for name, value in pairs)


_ITEM_TAGS = {"Iva": "AlicIva", "Tributos": "Tributo", "CbtesAsoc": "CbteAsoc", "Opcionales": "Opcional"}


def _envelope(operation, cuit, content):
    return ('<soapenv:Envelope xmlns:soapenv="http://schemas.xmlsoap.org/soap/envelope/" xmlns:ar="%s">'
            '<soapenv:Header/><soapenv:Body><ar:%s><ar:Auth><ar:Token></ar:Token><ar:Sign></ar:Sign>'
            '<ar:Cuit>%d</ar:Cuit></ar:Auth>%s</ar:%s></soapenv:Body></soapenv:Envelope>'
            % (_FEV1, operation, cuit, content, operation))


def _authorisation_request(voucher, cuit, number, date):
    detail = [("Concepto", voucher["Concepto"]), ("DocTipo", voucher["DocTipo"]), ("DocNro", voucher["DocNro"]),
              ("CbteDesde", number), ("CbteHasta", number), ("CbteFch", date)]
    detail += [(name, voucher[name]) for name in ("ImpTotal", "ImpTotConc", "ImpNeto", "ImpOpEx", "ImpTrib", "ImpIVA",
                                                  "FchServDesde", "FchServHasta", "FchVtoPago", "MonId", "MonCotiz",
                                                  "CondicionIVAReceptorId") if name in voucher]
    # Schema order; an empty list is left out, as AFIP refuses empty Iva or Tributos elements.
    for name in ("CbtesAsoc", "Tributos", "Iva", "Opcionales"):
        if voucher.get(name):
            fields = list(_LISTS[name])
            detail.append((name, "".join("<ar:%s>%s</ar:%s>" % (_ITEM_TAGS[name], _elements(
                (field, item[field]) for field in fields if field in item), _ITEM_TAGS[name]) for item in voucher[name])))
    return _envelope("FECAESolicitar", cuit, "<ar:FeCAEReq><ar:FeCabReq><ar:CantReg>1</ar:CantReg>%s</ar:FeCabReq>"
                     "<ar:FeDetReq><ar:FECAEDetRequest>%s</ar:FECAEDetRequest></ar:FeDetReq></ar:FeCAEReq>"
                     % (_elements([("PtoVta", voucher["PtoVta"]), ("CbteTipo", voucher["CbteTipo"])]),
                        _elements(detail)))


# --- answers ------------------------------------------------------------------------------------

def _local(tag):
    return tag.rsplit("}", 1)[-1]


def _child(node, name):
    if node is not None:
        for child in node:
            if _local(child.tag) == name:
                return child
    return None


def _text_of(node, name):
    child = _child(node, name)
    return (child.text or "").strip() if child is not None else ""


def _find(xml, name):
    try:
        root = ElementTree.fromstring(xml)
    except ElementTree.ParseError:
        return None
    return next((node for node in root.iter() if _local(node.tag) == name), None)


def _messages(node):
    return [{"Code": int(_text_of(item, "Code") or 0), "Msg": _text_of(item, "Msg")}
            for item in (node if node is not None else [])]


def _outcome(**values):
    outcome = {"Resultado": "", "PtoVta": 0, "CbteTipo": 0, "CbteNro": 0, "CbteFch": "", "CAE": "", "CAEFchVto": "",
               "Observaciones": [], "Errors": [], "Events": [], "recovered": False, "qr_url": None}
    outcome.update(values)
    return outcome


def _number(text):
    return int(text) if text.isdigit() else 0


def read_answer(xml):
    """The outcome dict of a FECAESolicitar answer (bytes or str); None when it holds no
    FECAESolicitarResult (not XML, a SOAP fault). qr_url stays None: the answer lacks the amounts."""
    result = _find(xml, "FECAESolicitarResult")
    if result is None:
        return None
    header = _child(result, "FeCabResp")
    detail = _child(_child(result, "FeDetResp"), "FECAEDetResponse")
    return _outcome(Resultado=_text_of(detail, "Resultado") or _text_of(header, "Resultado"),
                    PtoVta=_number(_text_of(header, "PtoVta")), CbteTipo=_number(_text_of(header, "CbteTipo")),
                    CbteNro=_number(_text_of(detail, "CbteDesde")), CbteFch=_text_of(detail, "CbteFch"),
                    CAE=_text_of(detail, "CAE"), CAEFchVto=_text_of(detail, "CAEFchVto"),
                    Observaciones=_messages(_child(detail, "Observaciones")),
                    Errors=_messages(_child(result, "Errors")), Events=_messages(_child(result, "Events")))


# --- the QR code --------------------------------------------------------------------------------

def qr_url(fecha, cuit, pto_vta, tipo_cmp, nro_cmp, importe, moneda, ctz, tipo_doc_rec, nro_doc_rec, cod_aut):
    """AFIP's verification address of a voucher. `fecha` as yyyymmdd or yyyy-mm-dd; `importe` at most
    two decimals; `ctz` as given; `cod_aut` the CAE."""
    fecha = fecha if "-" in fecha else "%s-%s-%s" % (fecha[:4], fecha[4:6], fecha[6:])
    importe = decimal.Decimal(str(importe)).quantize(_CENT, rounding=decimal.ROUND_HALF_UP)
    ctz = decimal.Decimal(str(ctz))
    payload = ('{"ver":1,"fecha":%s,"cuit":%d,"ptoVta":%d,"tipoCmp":%d,"nroCmp":%d,"importe":%s,"moneda":%s,'
               '"ctz":%s,"tipoDocRec":%d,"nroDocRec":%d,"tipoCodAut":"E","codAut":%d}'
               % (json.dumps(fecha), int(cuit), int(pto_vta), int(tipo_cmp), int(nro_cmp), importe, json.dumps(moneda),
                  ctz, int(tipo_doc_rec), int(nro_doc_rec), int(cod_aut)))
    return QR_ADDRESS + base64.b64encode(payload.encode()).decode("ascii")


def qr_png(url, path):
    """Writes `url` as a QR image, through python3-qrcode (ImportError when it is not installed)."""
    import qrcode
    import qrcode.image.pure
    image = qrcode.make(url, image_factory=qrcode.image.pure.PyPNGImage,
                        error_correction=qrcode.constants.ERROR_CORRECT_M)
    with open(path, "wb") as file:
        image.save(file)


# --- the flow -----------------------------------------------------------------------------------

def _send(driver, operation, request):
    """(answer, None), or (None, the TarvoAfipError) when the answer was lost (result 14 or 15)."""
    driver.add_header('SOAPAction: "%s%s"' % (_FEV1, operation))
    try:
        return driver.send_soap(request), None
    except TarvoAfipError as error:
        if error.result in (Result.RESPONSE_NOT_XML, Result.TIMEOUT):
            return None, error
        raise


def _next_number(driver, cuit, voucher):
    """(FECompUltimoAutorizado + 1, []) or (None, its errors); raises when the exchange failed."""
    answer, failure = _send(driver, "FECompUltimoAutorizado", _envelope("FECompUltimoAutorizado", cuit, _elements(
        [("PtoVta", voucher["PtoVta"]), ("CbteTipo", voucher["CbteTipo"])])))
    if failure is not None:
        raise failure
    result = _find(answer, "FECompUltimoAutorizadoResult")
    errors = _messages(_child(result, "Errors"))
    if result is None or errors or not _text_of(result, "CbteNro").isdigit():
        return None, errors
    return int(_text_of(result, "CbteNro")) + 1, []


def _consult(driver, cuit, voucher, number):
    """The ResultGet node, False when no voucher has that number (Err 602), None when it is not known."""
    request = _envelope("FECompConsultar", cuit, "<ar:FeCompConsReq>%s</ar:FeCompConsReq>" % _elements(
        [("CbteTipo", voucher["CbteTipo"]), ("CbteNro", number), ("PtoVta", voucher["PtoVta"])]))
    for attempt in range(ATTEMPTS):
        if attempt:
            time.sleep(0.5)
        try:
            answer, _ = _send(driver, "FECompConsultar", request)
        except TarvoAfipError:
            continue
        result = _find(answer, "FECompConsultarResult") if answer is not None else None
        if result is None:
            continue
        found = _child(result, "ResultGet")
        if found is not None:
            return found
        if any(error["Code"] == 602 for error in _messages(_child(result, "Errors"))):
            return False
    return None


def _same_voucher(found, voucher, date):
    def amount(name):
        text = _text_of(found, name)
        try:
            return decimal.Decimal(text).quantize(_CENT, rounding=decimal.ROUND_HALF_UP) if text else voucher[name]
        except decimal.InvalidOperation:
            return None
    return (_text_of(found, "CbteFch") == date and amount("ImpTotal") == voucher["ImpTotal"]
            and all(_text_of(found, name) == str(voucher[name]) for name in ("Concepto", "DocTipo", "DocNro"))
            and all(amount(name) == voucher[name] for name in ("ImpTotConc", "ImpNeto", "ImpOpEx", "ImpTrib", "ImpIVA"))
            and _text_of(found, "MonId") in ("", voucher["MonId"]))


def _today_in_argentina():
    return (datetime.datetime.now(datetime.timezone.utc) - datetime.timedelta(hours=3)).strftime("%Y%m%d")


def authorise(driver, voucher, cuit):
    """Authorises `voucher` (a dict) for the issuer `cuit` at most once; see the module's text."""
    voucher = read_voucher(voucher)
    cuit = _integer("", "cuit", cuit, 99999999999)
    date = voucher.get("CbteFch") or _today_in_argentina()
    base = dict(PtoVta=voucher["PtoVta"], CbteTipo=voucher["CbteTipo"], CbteFch=date)
    number = voucher.get("CbteNro")
    if number is None:
        number, errors = _next_number(driver, cuit, voucher)
        if number is None:
            return _outcome(Errors=errors, **base)

    sends, renumbers = ATTEMPTS, ATTEMPTS
    outcome = None
    while sends > 0:
        sends -= 1
        answer, _ = _send(driver, "FECAESolicitar", _authorisation_request(voucher, cuit, number, date))
        outcome = read_answer(answer) if answer is not None else None
        lost = outcome is None or any(error["Code"] == 502 for error in outcome["Errors"])
        if not lost:
            outcome.update(base, CbteNro=number)
            if outcome["Resultado"] == "A":
                break
            if not any(error["Code"] == 10016 for error in outcome["Errors"]):
                return outcome
        found = _consult(driver, cuit, voucher, number)
        if found is None or found is False:
            if not lost:
                return outcome
            if found is None:
                raise OutcomeUnknown("the answer was lost and FECompConsultar did not answer: whether voucher %d "
                                     "exists is unknown" % number, number)
            if sends:
                time.sleep(0.5)
            continue
        if _same_voucher(found, voucher, date):
            outcome = _outcome(Resultado=_text_of(found, "Resultado"), CbteNro=number, CAE=_text_of(found, "CodAutorizacion"),
                               CAEFchVto=_text_of(found, "FchVto"), Observaciones=_messages(_child(found, "Observaciones")),
                               recovered=True, **base)
            break
        if voucher.get("CbteNro") is not None or renumbers == 0:
            return outcome or _outcome(CbteNro=number, **base)
        renumbers -= 1
        number, errors = _next_number(driver, cuit, voucher)
        if number is None:
            return _outcome(Errors=errors, **base)
        sends += 1
    else:
        raise OutcomeUnknown("voucher %d was not authorised after %d attempts whose answers were lost"
                             % (number, ATTEMPTS), number)
    outcome["qr_url"] = qr_url(date, cuit, voucher["PtoVta"], voucher["CbteTipo"], number, voucher["ImpTotal"],
                               voucher["MonId"], voucher["MonCotiz"], voucher["DocTipo"], voucher["DocNro"],
                               outcome["CAE"] or 0)
    return outcome


def main(arguments=None):
    """python3 -m tarvoafip.invoicing: tarvoafip_cli invoice's options, output and exit statuses."""
    import argparse
    import os
    import sys
    import tarvoafip
    parser = argparse.ArgumentParser(prog="python3 -m tarvoafip.invoicing", description=main.__doc__)
    for option in ("--wsaa-url", "--certificate", "--password", "--service", "--url", "--invoice", "--qr-png"):
        parser.add_argument(option, default="")
    parser.add_argument("--cuit", type=int, required=True)
    parser.add_argument("--tls-verify", action="store_true")
    parser.add_argument("--ca-file")
    options = parser.parse_args(arguments)
    try:
        with (sys.stdin if options.invoice in ("", "-") else open(options.invoice)) as file:
            voucher = json.load(file)
    except OSError as error:
        print("cannot read the invoice: %s" % error, file=sys.stderr)
        return 66
    except ValueError as error:
        print("bad invoice file: the invoice file is not JSON: %s; nothing was sent" % error, file=sys.stderr)
        return 65
    if options.qr_png and os.path.exists(options.qr_png):
        os.remove(options.qr_png)  # an older image is never to be taken for this voucher's
    driver = tarvoafip.Driver(tls_verify=True if options.tls_verify else None, ca_file=options.ca_file)
    driver.set_wsaa(options.wsaa_url)
    driver.set_credentials(options.certificate, options.password)
    driver.set_service(options.service)
    driver.set_service_url(options.url)
    try:
        outcome = authorise(driver, voucher, options.cuit)
    except InvoiceError as error:
        print("bad invoice file: %s; nothing was sent" % error, file=sys.stderr)
        return 65
    except OutcomeUnknown as error:
        print(error, file=sys.stderr)
        return 21
    except TarvoAfipError as error:
        print(error, file=sys.stderr)
        return int(error.result)
    print(json.dumps(outcome))
    if outcome["Resultado"] != "A":
        print("AFIP rejected the voucher", file=sys.stderr)
        return 20
    if options.qr_png:
        try:
            qr_png(outcome["qr_url"], options.qr_png)
        except (ImportError, OSError) as error:  # the voucher exists all the same
            print("no QR image: %s" % error, file=sys.stderr)
    return 0


if __name__ == "__main__":
    raise SystemExit(main())
