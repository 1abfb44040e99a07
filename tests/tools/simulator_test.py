"""The simulator as users run it, held to AFIP's shapes: every answer is checked against the schema
of AFIP's published WSDLs, logins are signed with openssl."""
import base64
import calendar
import copy
import http.client
import os
import signal
import tempfile
import time
import unittest

from lxml import etree

from harness import SIMULATOR, SOURCE, Simulator, cli_command, login_envelope, login_ticket_request, post, run, signed

# AFIP's published WSDLs: given, beside the checkout, or the workplace's.
REFERENCE = next(path for path in (os.environ.get("TARVO_AFIP_REFERENCE", ""), SOURCE + "/../shared/reference/afip",
                                   "/work/shared/reference/afip") if os.path.isfile(path + "/wsfev1-service.wsdl"))
SOAP = "{http://schemas.xmlsoap.org/soap/envelope/}"
FEV1 = "http://ar.gov.afip.dif.FEV1/"
AXIS = "http://xml.apache.org/axis/"
WSDL = {"wsdl": "http://schemas.xmlsoap.org/wsdl/", "s": "http://www.w3.org/2001/XMLSchema",
        "soap": "http://schemas.xmlsoap.org/wsdl/soap/", "wsdlsoap": "http://schemas.xmlsoap.org/wsdl/soap/"}
CUIT = "20111111112"


def schema_of(wsdl_path):
    """The first schema of a WSDL, with the namespaces it inherits and without its unresolved imports."""
    found = etree.parse(wsdl_path).find(".//{http://www.w3.org/2001/XMLSchema}schema")
    schema = etree.Element(found.tag, dict(found.attrib), nsmap=found.nsmap)
    schema.extend(copy.deepcopy(child) for child in found if child.tag != "{http://www.w3.org/2001/XMLSchema}import")
    return etree.XMLSchema(schema)


WSFEV1_SCHEMA = schema_of(os.path.join(REFERENCE, "wsfev1-service.wsdl"))
WSAA_SCHEMA = schema_of(os.path.join(REFERENCE, "wsaa-LoginCms.wsdl"))


def body_of(answer, schema=None):
    """The Body's content of an answer; valid against `schema` when one is given."""
    content = etree.fromstring(answer).find(SOAP + "Body")[0]
    if schema is not None and not schema.validate(etree.ElementTree(content)):
        raise AssertionError("%s\n%s" % (schema.error_log, answer.decode()))
    return content


def login(simulator, service="wsfe", certificate="signer.p12", **times):
    """(status, Body content) of one loginCms; a ticket's content is checked against WSAA's schema."""
    status, answer, _ = post(simulator.wsaa(), login_envelope(signed(login_ticket_request(service, **times), certificate)))
    return status, body_of(answer, WSAA_SCHEMA if status == 200 else None)


def ticket_of(content):
    return etree.fromstring(content.findtext("{*}loginCmsReturn").encode())


def fev1(simulator, operation, content="", credentials=("", ""), cuit=CUIT, action=None):
    """(status, Body content, whole answer) of one WSFEv1 call; results are checked against the schema."""
    request = ('<soap:Envelope xmlns:soap="http://schemas.xmlsoap.org/soap/envelope/" xmlns:ar="%s"><soap:Body>'
               '<ar:%s><ar:Auth><ar:Token>%s</ar:Token><ar:Sign>%s</ar:Sign><ar:Cuit>%s</ar:Cuit></ar:Auth>%s</ar:%s>'
               '</soap:Body></soap:Envelope>' % (FEV1, operation, credentials[0], credentials[1], cuit, content, operation))
    status, answer, _ = post(simulator.wsfe(), request.encode(), {} if action is None else {"SOAPAction": action})
    return status, body_of(answer, WSFEV1_SCHEMA if status == 200 else None), answer


def text(node, path):
    return node.findtext(".//" + "/".join("{%s}%s" % (FEV1, step) for step in path.split("/")))


TODAY = "2026-06-10"  # the rules' simulators run --today this, so that no window moves with the calendar


def day(offset, today=TODAY):
    """The date `offset` days from `today`, as yyyymmdd."""
    return time.strftime("%Y%m%d", time.gmtime(calendar.timegm(time.strptime(today, "%Y-%m-%d")) + offset * 86400))


def alic(*rates):
    return "".join("<ar:AlicIva><ar:Id>%s</ar:Id><ar:BaseImp>%s</ar:BaseImp><ar:Importe>%s</ar:Importe></ar:AlicIva>" % r
                   for r in rates)


def trib(tax_id, amount):
    return ("<ar:Tributo><ar:Id>%s</ar:Id><ar:BaseImp>100</ar:BaseImp><ar:Alic>5</ar:Alic><ar:Importe>%s</ar:Importe>"
            "</ar:Tributo>" % (tax_id, amount))


# A Factura B of 100 + 21 % to a final consumer, field by field in the schema's order; None leaves a field out.
DETAIL = [("Concepto", "1"), ("DocTipo", "99"), ("DocNro", "0"), ("CbteDesde", "1"), ("CbteHasta", "1"), ("CbteFch", None),
          ("ImpTotal", "121"), ("ImpTotConc", "0"), ("ImpNeto", "100"), ("ImpOpEx", "0"), ("ImpTrib", "0"), ("ImpIVA", "21"),
          ("FchServDesde", None), ("FchServHasta", None), ("FchVtoPago", None), ("MonId", "PES"), ("MonCotiz", "1"),
          ("CondicionIVAReceptorId", "5"), ("CbtesAsoc", None), ("Tributos", None), ("Iva", alic((5, 100, 21))),
          ("PeriodoAsoc", None)]
ASSOCIATED = "<ar:CbteAsoc><ar:Tipo>6</ar:Tipo><ar:PtoVta>1</ar:PtoVta><ar:Nro>1</ar:Nro></ar:CbteAsoc>"
BIG = {"ImpNeto": "1000000", "ImpIVA": "210000", "Iva": alic((5, 1000000, 210000)), "ImpTotal": "1210000"}
DOLLARS = {"MonId": "DOL", "MonCotiz": "1045.5"}
# Just under and just over 10.000.000 pesos at 1045.5 pesos a dollar.
UNDER, OVER = [dict(DOLLARS, ImpNeto=net, ImpIVA=vat, ImpTotal=total, Iva=alic((5, net, vat))) for net, vat, total in (
    ("7904.13", "1659.87", "9564"), ("7905.79", "1660.22", "9566.01"))]
SERVICE = {"Concepto": "2", "FchServDesde": day(0), "FchServHasta": day(0), "FchVtoPago": day(0)}
C = {"CbteTipo": "11", "ImpIVA": "0", "ImpTotal": "100", "Iva": None}
A = {"CbteTipo": "1", "DocTipo": "80", "CondicionIVAReceptorId": "1"}


def invoice(point_of_sale, count=1, operation="FECAESolicitar", **changes):
    """A FECAESolicitar (or FECAEARegInformativo) body of `count` vouchers numbered from CbteDesde."""
    header = {"CantReg": str(count), "PtoVta": str(point_of_sale), "CbteTipo": "6"}
    header.update((k, changes.pop(k)) for k in list(changes) if k in header)
    first, caea = int(changes.pop("CbteDesde", "1")), operation != "FECAESolicitar"
    tag = lambda name, content: "<ar:%s>%s</ar:%s>" % (name, content, name)
    details = "".join(tag("FECAEADetRequest" if caea else "FECAEDetRequest", "".join(
        tag(k, v) for k, v in dict(DETAIL + [("CAEA", None), ("CbteFchHsGen", None)], CbteDesde=n, CbteHasta=n,
                                   **changes).items() if v is not None))
        for n in range(first, first + count))
    return tag("FeCAEARegInfReq" if caea else "FeCAEReq", tag("FeCabReq", "".join(tag(k, header[k]) for k in (
        "CantReg", "PtoVta", "CbteTipo"))) + tag("FeDetReq", details))


def observations(result):
    return [(o.findtext("{%s}Code" % FEV1), o.findtext("{%s}Msg" % FEV1)) for o in result.iter("{%s}Obs" % FEV1)]


# (voucher changes, code, kind, message): AFIP's message whole, the simulator's own by its start ("…").
RULES = [
    ({"CantReg": "0"}, 10001, "Err", "El campo CantReg debe estar…"),
    ({"CantReg": "2"}, 10002, "Err", "Campo CantReg debe ser igual a lo informado en detalle. Informado: 2, Enviado: 1"),
    ({"count": 251}, 10003, "Err", "La cantidad de comprobantes del lote…"),
    ({"CbteDesde": "2"}, 10016, "Err", "El numero o fecha del comprobante no se corresponde con el proximo a autorizar. "
     "Consultar metodo FECompUltimoAutorizado."),
    ({"CbteFch": day(-6)}, 10016, "R", "Campo CbteFch Debe estar comprendido  en el  rango  N-5 y N+5 siendo N la fecha de "
     "envio del pedido  de autorizacion para 1 - Productos"),
    (dict(SERVICE, CbteFch=day(11)), 10016, "R", "Campo CbteFch Debe estar comprendido  en el  rango  N-10 y N+10…"),
    ({"CbteTipo": "208", "CbteFch": day(1), "CbtesAsoc": ASSOCIATED}, 10016, "R", "Campo CbteFch Debe estar comprendido  en "
     "el  rango  N-5 y N siendo N la fecha de envio del pedido de autorizacion para Facturas de Credito del tipo Nota de "
     "Debito o Nota de Credito"),
    ({"Concepto": "3"}, 10049, "R", "Si el Concepto es 2 o 3…"),
    (dict(SERVICE, FchServDesde=None), 10031, "R", "El campo FchServDesde es obligatorio…"),
    (dict(SERVICE, FchServHasta=None), 10033, "R", "El campo FchServHasta es obligatorio…"),
    (dict(SERVICE, FchVtoPago="2026-1-1"), 10034, "R", "Las fechas FchServDesde, FchServHasta y FchVtoPago…"),
    (dict(SERVICE, FchVtoPago=None), 10035, "R", "El campo FchVtoPago es obligatorio…"),
    (dict(SERVICE, FchServDesde=day(1)), 10032, "R", "El campo FchServDesde no puede ser posterior…"),
    (dict(SERVICE, FchVtoPago=day(-1)), 10036, "R", "El campo FchVtoPago no puede ser anterior…"),
    ({"ImpTotal": "121.02"}, 10048, "R", "El campo  'Importe Total' ImpTotal, debe ser igual  a la  suma de ImpTotConc + "
     "ImpNeto + ImpOpEx + ImpTrib + ImpIVA."),
    ({"ImpTotal": "120.99"}, None, "A", None),
    (dict(C, ImpTotal="100.02"), 10048, "R", "El campo  'Importe Total' ImpTotal, debe ser igual  a la  suma de ImpNeto + "
     "ImpTrib. Donde ImpNeto es igual al Sub Total"),
    ({"Iva": None}, 10018, "R", "Si ImpIva es mayor a 0 el objeto Iva y AlicIva son obligatorios."),
    ({"ImpIVA": "0", "ImpTotal": "100", "Iva": alic((4, 100, 0))}, 10018, "R",
     "Si ImpIva es igual a 0 el objeto Iva y AlicIva son obligatorios. Id iva = 3 (iva 0)"),
    ({"Iva": alic((5, 100, 21), (3, 0, 0.05))}, 10023, "R", "La suma de los campos Importe en AlicIva…"),
    ({"Iva": alic((5, 90, 18.9), (3, 10.03, 0))}, 10061, "R", "La suma de los campos BaseImp en AlicIva…"),
    ({"ImpTotal": "120", "ImpIVA": "20", "Iva": alic((5, 100, 20))}, 10051, "R",
     "Los importes informados en AlicIVA no se corresponden con los porcentajes."),
    ({"ImpIVA": "0", "ImpNeto": "0.5", "ImpTotal": "0.5", "Iva": None}, 10070, "R",
     "Si ImpNeto es mayor a 0 el objeto IVA es obligatorio."),
    (dict(C, Iva=""), 10071, "R", "Para comprobantes tipo C el objeto IVA no debe informarse."),
    (dict(C, ImpOpEx="5", ImpNeto="95"), 10044, "R",
     "El campo ImpOpEx (importe exento) para comprobantes tipo C debe ser igual a cero (0)."),
    (dict(C, ImpTotConc="5", ImpNeto="95"), 10043, "R", "El campo ImpTotConc (importe neto no gravado)…"),
    (dict(C, ImpIVA="21", ImpTotal="121"), 10047, "R", "El campo ImpIVA (Importe de IVA) para comprobantes tipo C…"),
    ({"ImpTrib": "5", "ImpTotal": "126"}, 10024, "R", "Si ImpTrib es mayor a 0 el objeto Tributos y Tributo son obligatorios."),
    ({"Tributos": ""}, 10024, "R", "Si ImpTrib es igual a 0 el objeto Tributos y Tributo no deben informarse."),
    ({"ImpTrib": "5", "ImpTotal": "126", "Tributos": trib(77, 5)}, 10025, "R", "El campo Id en Tributo es obligatorio y "
     "debe ser alguno de los devueltos por el metodo FEParamGetTiposTributos."),
    ({"ImpTrib": "5", "ImpTotal": "126", "Tributos": trib(99, 4.98)}, 10029, "R",
     "La suma de los importes en Tributo debe ser igual al valor ingresado en ImpTrib."),
    (dict(A, DocTipo="96", DocNro="30111222"), 10013, "R", "Para comprobantes clase A el campo DocTipo…"),
    ({"DocTipo": "80", "DocNro": "20402908323"}, 10015, "R", "Factura B (CbteDesde igual a CbteHasta), DocTipo: 80, DocNro "
     "20402908323 no se encuentra registrado en los padrones de AFIP y no corresponde a una cuit pais."),
    (dict(C, DocTipo="86", DocNro="20402908323"), 10015, "R", "Comprobante C (CbteDesde igual a CbteHasta), DocTipo: 86…"),
    ({"ImpTotal": "10000000", "ImpNeto": "8264462.81", "ImpIVA": "1735537.19", "Iva": alic((5, 8264462.81, 1735537.19))}, 10015,
     "R", "Factura B: desde $10.000.000…"),
    (dict(A, DocNro="20000000001"), 10017, "A",
     "Factura individual, DocTipo: 80, DocNro 20000000001 no se encuentra registrado en los padrones de AFIP."),
    (dict(A, DocNro="30711111111"), 10063, "A", "El receptor del comprobante no se encuentra activo…"),
    (dict(A, DocNro="20222222223", CondicionIVAReceptorId="6"), 10217, "A", "El credito fiscal discriminado en el presente "
     "comprobante solo podra ser computado a efectos del Procedimiento permanente de transicion al Regimen General."),
    ({"DocTipo": "80", "DocNro": CUIT}, 10069, "R", "El campo DocNro no puede ser igual a la CUIT del emisor."),
    ({"MonId": "XYZ"}, 10037, "R", "El campo MonId debe ser alguno…"),
    ({"MonId": "DOL", "MonCotiz": None}, 10038, "R", "El campo MonCotiz es obligatorio…"),
    ({"MonCotiz": "2"}, 10039, "R", "Si MonId es PES el campo MonCotiz debe ser igual a 1."),
    ({"CbteTipo": "8"}, 10197, "R", "Si el comprobante es Debito o Credito, enviar estructura CbteAsoc o PeriodoAsoc."),
    ({"CbteTipo": "208"}, 10197, "R", "Si el comprobante es Debito o Credito…"),
    ({"CbteTipo": "8", "PeriodoAsoc": "<ar:FchDesde>%s</ar:FchDesde>" % day(-30)}, None, "A", None),
    ({"CondicionIVAReceptorId": "99"}, 10242, "R",
     "El campo Condicion IVA receptor no es un valor valido. Consular metodo FEParamGetCondicionIvaReceptor"),
    ({"CondicionIVAReceptorId": "1"}, 10243, "R", "El campo Condicion IVA receptor no corresponde…"),
    ({"CondicionIVAReceptorId": None}, 10245, "A", "El campo Condicion Frente al IVA del receptor resultara obligatorio "
     "conforme lo reglamentado por la Resolucion General Nro 5616. Para mas informacion consular metodo "
     "FEParamGetCondicionIvaReceptor"),
    ({"CbteTipo": "14"}, 10007, "Err", "El campo CbteTipo debe ser alguno…"),
    ({"Concepto": "4"}, 10010, "R", "El campo Concepto debe ser alguno…"),
    ({"CbteTipo": "206"}, 10163, "R", "El campo FchVtoPago es obligatorio informar si es una Factura de Credito."),
    ({"Iva": alic((7, 100, 21))}, 10019, "R", "El campo Id en AlicIva debe ser alguno…"),
    ({"DocTipo": "95", "DocNro": "1"}, 10015, "R", "El campo DocTipo debe ser alguno…"),
    ({"DocTipo": "96", "DocNro": "0"}, 10015, "R", "El campo DocNro es obligatorio…"),
    (OVER, 10015, "R", "Factura B: desde $10.000.000…"),
    ({"CanMisMonExt": "X"}, 10239, "R", "El campo CanMisMonExt solo puede ser S o N."),
    ({"CanMisMonExt": "S"}, 10241, "R", "Si MonId es PES el campo CanMisMonExt no puede ser S."),
    (dict(DOLLARS, MonCotiz="20.9"), 10119, "R", "El campo MonCotiz no se corresponde…"),
    (dict(DOLLARS, MonCotiz="1046.51", CanMisMonExt="S"), 10240, "R", "El campo MonCotiz no puede superar…"),
    ({"CbteTipo": "8", "CbtesAsoc": ASSOCIATED.replace(">6<", ">1<")}, 10040, "R", "El tipo de comprobante asociado…"),
    ({"CbteTipo": "8", "CbtesAsoc": ASSOCIATED}, 10041, "A", "El comprobante asociado no se encuentra autorizado."),
    ({"CbteTipo": "49", "CondicionIVAReceptorId": "1"}, 10243, "R", "El campo Condicion IVA receptor no corresponde…"),
] + [({field: "-1"}, code, "R", "El campo %s no puede ser menor a cero (0)." % field) for field, code in (
    ("ImpTotal", 10065), ("ImpTotConc", 10043), ("ImpNeto", 10045), ("ImpOpEx", 10044), ("ImpTrib", 10046), ("ImpIVA", 10047))]

# (simulator options, voucher changes, result, every code the answer carries): each rule's edge from both sides, and
# approved vouchers with no stray observation.
AT = ("--today", TODAY)
MONTH_END = ("--today", "2026-06-28")
CUT_OVER = ("--receptor-condition-required-from", "2026-12-01", "--today")
EDGES = [
    (AT, {"CbteFch": day(-5)}, "A", []), (AT, {"CbteFch": day(-6)}, "R", ["10016"]),
    (AT, {"CbteFch": day(5)}, "A", []), (AT, {"CbteFch": day(6)}, "R", ["10016"]),
    (AT, dict(SERVICE, CbteFch=day(-10)), "A", []), (AT, dict(SERVICE, CbteFch=day(-11)), "R", ["10016"]),
    (AT, dict(SERVICE, CbteFch=day(10), FchVtoPago=day(10)), "A", []),
    (AT, dict(SERVICE, CbteFch=day(11), FchVtoPago=day(11)), "R", ["10016"]),
    (AT, {"CbteTipo": "208", "PeriodoAsoc": "", "CbteFch": day(0)}, "A", []),
    (AT, {"CbteTipo": "208", "PeriodoAsoc": "", "CbteFch": day(-6)}, "R", ["10016"]),
    (MONTH_END, {"CbteFch": "20260630"}, "A", []), (MONTH_END, {"CbteFch": "20260701"}, "R", ["10152"]),
    (CUT_OVER + ("2026-11-30",), {"CondicionIVAReceptorId": None}, "A", ["10245"]),
    (CUT_OVER + ("2026-12-01",), {"CondicionIVAReceptorId": None}, "R", ["10246"]),
    (AT, {"ImpTotal": "121.01"}, "A", []), (AT, {"ImpTotal": "121.02"}, "R", ["10048"]),
    (AT, dict(BIG, ImpTotal="1210121"), "A", []), (AT, dict(BIG, ImpTotal="1210121.02"), "R", ["10048"]),
    (AT, dict(BIG, ImpIVA="210021", Iva=alic((5, 1000000, 210021)), ImpTotal="1210021"), "A", []),
    (AT, UNDER, "A", []), (AT, dict(DOLLARS, MonCotiz="20.92"), "A", []), (AT, dict(DOLLARS, MonCotiz="4182"), "A", []),
    (AT, dict(DOLLARS, MonCotiz="4182.01"), "R", ["10119"]),
    (AT, dict(DOLLARS, MonCotiz="1046.5", CanMisMonExt="S"), "A", []),
    (AT, {"FchVtoPago": day(0)}, "A", []), (AT, {"FchServDesde": day(0)}, "R", ["10033"]),
    (AT, dict(C, DocTipo="80", DocNro="23000000000"), "A", []), (AT, {"Iva": alic((7, 100, 21))}, "R", ["10019"]),
    (AT, dict(C, CbteTipo="15", Iva=""), "R", ["10071"]),
    (AT, {"CbteTipo": "8", "CbtesAsoc": ASSOCIATED}, "A", []),  # the Factura B 1 of point of sale 1, approved above
]


class Login(unittest.TestCase):
    def test_ticket_and_token_as_afip_makes_them(self):
        with Simulator("--relations", "30500010912") as simulator:
            before = int(time.time())
            status, content = login(simulator)
            self.assertEqual((status, content.tag), (200, "{http://wsaa.view.sua.dvadac.desein.afip.gov}loginCmsResponse"))
            ticket = ticket_of(content)
            self.assertEqual(ticket.findtext("header/source"), "CN=wsaahomo, O=AFIP, C=AR, SERIALNUMBER=CUIT 33693450239")
            self.assertEqual(ticket.findtext("header/destination"), "SERIALNUMBER=CUIT %s, CN=signer" % CUIT)
            for stamp in ("generationTime", "expirationTime"):
                self.assertRegex(ticket.findtext("header/" + stamp), r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}-03:00$")
            self.assertGreater(len(ticket.findtext("credentials/sign")), 100)

            sso = etree.fromstring(base64.b64decode(ticket.findtext("credentials/token")))
            identity, login_element = sso.find("id"), sso.find("operation/login")
            self.assertEqual((sso.tag, sso.get("version")), ("sso", "2.0"))
            self.assertEqual((identity.get("src"), identity.get("dst")),
                             ("CN=wsaahomo, O=AFIP, C=AR, SERIALNUMBER=CUIT 33693450239", "CN=wsfe, O=AFIP, C=AR"))
            self.assertEqual(identity.get("unique_id"), ticket.findtext("header/uniqueId"))
            generated = int(identity.get("gen_time"))
            self.assertLessEqual(abs(generated - before), 5)
            self.assertEqual(int(identity.get("exp_time")) - generated, 43200)
            self.assertEqual(dict(sso.find("operation").attrib), {"type": "login", "value": "granted"})
            self.assertEqual(dict(login_element.attrib), {"entity": "33693450239", "service": "wsfe", "authmethod": "cms",
                                                          "uid": "SERIALNUMBER=CUIT %s, CN=signer" % CUIT, "regmethod": "22"})
            self.assertEqual([dict(r.attrib) for r in login_element.findall("relations/relation")],
                             [{"key": CUIT, "reltype": "4"}, {"key": "30500010912", "reltype": "4"}])

    def test_refusals_are_axis_faults(self):
        with Simulator("--services", "wsfe,wsfex") as simulator:
            self.assertEqual(login(simulator)[0], 200)
            cases = [({}, "coe.alreadyAuthenticated", "El CEE ya posee un TA valido para el acceso al WSN solicitado"),
                     ({"service": "ws_sr_padron_a4"}, "coe.notAuthorized", "Computador no autorizado a acceder al servicio"),
                     ({"certificate": "expired.p12"}, "cms.cert.expired", "Certificado expirado")]
            for arguments, code, message in cases:
                status, fault = login(simulator, **arguments)
                self.assertEqual((status, fault.tag, fault.findtext("faultstring")), (500, SOAP + "Fault", message))
                faultcode = fault.find("faultcode")
                self.assertEqual((faultcode.text, faultcode.nsmap["ns1"]), ("ns1:" + code, AXIS))
                self.assertEqual(fault.findtext("detail/{%s}exceptionName" % AXIS),
                                 "gov.afip.desein.dvadac.sua.view.wsaa.LoginFault")
                self.assertTrue(fault.findtext("detail/{%s}hostname" % AXIS))
            self.assertEqual(login(simulator, "wsfex")[0], 200, "another service is not refused")

    def test_relogin_is_refused_only_within_the_window(self):
        # A window wide enough for a slow machine (emulation) to log in again within it.
        with Simulator("--refuse-relogin-seconds", "5") as simulator, tempfile.TemporaryDirectory() as work:
            send = lambda: run(cli_command(simulator), cwd=work).returncode
            self.assertEqual(send(), 0)
            os.remove(os.path.join(work, "credentials.json"))
            self.assertEqual(send(), 9)
            time.sleep(5)
            self.assertEqual(send(), 0)
            self.assertEqual(len(simulator.requests("/ws/services/LoginCms")), 3)

    def test_times_outside_the_window_and_damaged_messages(self):
        now, hour = time.time(), 3600
        cases = [(-25 * hour, hour, 500), (600, 12 * hour, 500), (-hour, -hour, 500), (-hour, -2 * hour, 500),
                 (-3 * hour, -hour, 500), (240, 12 * hour, 200), (-23 * hour, hour, 200)]
        good = signed(login_ticket_request("wsfe"))
        damaged = [b"this is not XML", b'<s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/"><s:Body/>'
                   b'</s:Envelope>', login_envelope("@@@@"), login_envelope("ZGVmaW5pdGVseSBub3QgREVS"),
                   login_envelope(good[: len(good) // 2])]
        with Simulator("--services", ",".join("s%d" % i for i in range(len(cases)))) as simulator:
            for i, (generated, expires, expected) in enumerate(cases):
                status, content = login(simulator, "s%d" % i, generated=now + generated, expires=now + expires)
                self.assertEqual(status, expected, (generated, expires, etree.tostring(content)))
            for body in damaged:
                status, answer, _ = post(simulator.wsaa(), body)
                self.assertEqual(status, 500, body)
                self.assertRegex(body_of(answer).findtext("faultcode"), r"^ns1:(soap|cms|xml)\.", body)


class Invoicing(unittest.TestCase):
    def setUp(self):
        self.simulator = self.enterContext(Simulator())
        ticket = ticket_of(login(self.simulator)[1])
        self.credentials = (ticket.findtext("credentials/token"), ticket.findtext("credentials/sign"))

    def call(self, operation, content="", **options):
        options.setdefault("credentials", self.credentials)
        status, result, answer = fev1(self.simulator, operation, content, **options)
        self.assertEqual(status, 200, answer)
        return result

    def test_every_operation_answers_in_the_schemas_shape(self):
        answers = {
            "FEDummy": ("", "FEDummyResult/AppServer", "OK"),
            "FECompTotXRequest": ("", "RegXReq", "250"),
            "FEParamGetPtosVenta": ("", "PtoVenta/Nro", "1"),
            "FEParamGetTiposCbte": ("", "CbteTipo/Id", "1"),
            "FEParamGetTiposDoc": ("", "DocTipo/Id", "80"),
            "FEParamGetTiposIva": ("", "IvaTipo/Desc", "0%"),
            "FEParamGetTiposMonedas": ("", "Moneda/Id", "PES"),
            "FEParamGetTiposConcepto": ("", "ConceptoTipo/Desc", "Producto"),
            "FEParamGetTiposTributos": ("", "TributoTipo/Id", "1"),
            "FEParamGetCondicionIvaReceptor": ("<ar:ClaseCmp>B</ar:ClaseCmp>", "CondicionIvaReceptor/Id", "4"),
            "FEParamGetCotizacion": ("<ar:MonId>DOL</ar:MonId>", "MonId", "DOL"),
            "FECompUltimoAutorizado": ("<ar:PtoVta>3</ar:PtoVta><ar:CbteTipo>6</ar:CbteTipo>", "CbteNro", "0"),
            "FEParamGetTiposOpcional": ("", "OpcionalTipo/Id", "22"),
            "FEParamGetTiposPaises": ("", "PaisTipo/Id", "200"),
            "FEParamGetActividades": ("", "ActividadesTipo/Orden", "1"),
        }
        for operation, (content, path, expected) in answers.items():
            result = self.call(operation, content)
            self.assertEqual(text(result, path), expected, operation)
            self.assertIsNone(text(result, "Errors/Err/Code"), operation)
        consult = "<ar:FeCompConsReq><ar:CbteTipo>%s</ar:CbteTipo><ar:CbteNro>%s</ar:CbteNro><ar:PtoVta>%s</ar:PtoVta>" \
                  "</ar:FeCompConsReq>"
        last = "<ar:PtoVta>%s</ar:PtoVta><ar:CbteTipo>%s</ar:CbteTipo>"
        for operation, content, code, message in (
                ("FEParamGetCotizacion", "<ar:MonId>XXX</ar:MonId>", "602", None),
                ("FEParamGetCotizacion", "<ar:MonId>PES</ar:MonId>", "602",
                 "Sin Resultados: - Metodo FEParamGetCotizacion.Codigo de moneda (PES) inexistente o SIN cotización"),
                ("FECompConsultar", consult % (6, 9, 3), "602", None), ("FECompConsultar", consult % (6, 1, 0), "10200", None),
                ("FECompConsultar", consult % (6, 1, 99999), "10200", None), ("FECompConsultar", consult % (14, 1, 3), "10201", None),
                ("FECompConsultar", consult % (6, 0, 3), "10202", None),
                ("FECompConsultar", consult % (6, 100000000, 3), "10202", None),
                ("FECompUltimoAutorizado", last % (99999, 6), "11000", None), ("FECompUltimoAutorizado", last % (0, 6), "11000", None),
                ("FECompUltimoAutorizado", last % (3, 14), "11001", None),
                ("FEParamGetCondicionIvaReceptor", "<ar:ClaseCmp>A/M</ar:ClaseCmp>", "10244", None),
                ("FECAEAConsultar", "<ar:Periodo>202601</ar:Periodo><ar:Orden>1</ar:Orden>", "602", None),
                ("FECAEASinMovimientoConsultar", "<ar:PtoVta>0</ar:PtoVta>", "602", None)):
            result = self.call(operation, content)
            self.assertEqual(text(result, "Errors/Err/Code"), code, (operation, content))
            self.assertIsNone(text(result, "ResultGet"), operation)
            if message:
                self.assertEqual(text(result, "Errors/Err/Msg"), message)
        self.assertEqual([i.text for i in self.call("FEParamGetCondicionIvaReceptor", "<ar:ClaseCmp>49</ar:ClaseCmp>").iter(
            "{%s}Id" % FEV1)], ["5"])

    def test_authorising_consulting_and_refusing_a_wrong_number(self):
        _, approved, answer = fev1(self.simulator, "FECAESolicitar", invoice(3), self.credentials)
        header = etree.fromstring(answer).find(SOAP + "Header/{%s}FEHeaderInfo" % FEV1)
        self.assertEqual([child.tag.split("}")[1] for child in header], ["ambiente", "fecha", "id"])
        self.assertRegex(header.findtext("{*}fecha"), r"T\d\d:\d\d:\d\d.*-03:00$")
        self.assertEqual((text(approved, "FeCabResp/Resultado"), text(approved, "FECAEDetResponse/Resultado")), ("A", "A"))
        self.assertRegex(text(approved, "FeCabResp/FchProceso"), r"^20\d{12}$")
        cae = text(approved, "FECAEDetResponse/CAE")
        self.assertRegex(cae, r"^\d{14}$")

        consulted = self.call("FECompConsultar", "<ar:FeCompConsReq><ar:CbteTipo>6</ar:CbteTipo><ar:CbteNro>1</ar:CbteNro>"
                                                 "<ar:PtoVta>3</ar:PtoVta></ar:FeCompConsReq>")
        self.assertEqual((text(consulted, "CodAutorizacion"), text(consulted, "ImpTotal"), text(consulted, "AlicIva/Id")),
                         (cae, "121", "5"))
        self.assertEqual(text(self.call("FECompUltimoAutorizado", "<ar:PtoVta>3</ar:PtoVta><ar:CbteTipo>6</ar:CbteTipo>"),
                              "CbteNro"), "1")
        self.assertIn("3", [n.text for n in self.call("FEParamGetPtosVenta").iter("{%s}Nro" % FEV1)])

        refused = self.call("FECAESolicitar", invoice(3))
        self.assertEqual((text(refused, "FeCabResp/Resultado"), text(refused, "FECAEDetResponse/Resultado")), ("R", "R"))
        self.assertEqual((text(refused, "FECAEDetResponse/CAE"), text(refused, "FECAEDetResponse/CAEFchVto")), ("", ""))
        self.assertIsNone(text(refused, "Observaciones"))
        self.assertEqual((text(refused, "Errors/Err/Code"), text(refused, "Errors/Err/Msg")),
                         ("10016", "El numero o fecha del comprobante no se corresponde con el proximo a autorizar. "
                                   "Consultar metodo FECompUltimoAutorizado."))

    def test_tokens_are_checked_as_afip_checks_them(self):
        last = "<ar:PtoVta>3</ar:PtoVta><ar:CbteTipo>6</ar:CbteTipo>"
        for operation in ("FECompUltimoAutorizado", "FECAESolicitar", "FEParamGetTiposCbte", "FECompTotXRequest"):
            refused = self.call(operation, last if operation == "FECompUltimoAutorizado" else "", credentials=("x", "y"))
            self.assertEqual(text(refused, "Errors/Err/Code"), "600", operation)
        refused = self.call("FECompUltimoAutorizado", last, credentials=("x", "y"))
        self.assertEqual([text(refused, name) for name in ("PtoVta", "CbteTipo", "CbteNro")], ["0", "0", "0"])
        token, sign = self.credentials
        for credentials, cuit, message in (
                (self.credentials, "30500010912", "ValidacionDeToken: No aparecio CUIT en lista de relaciones: 30500010912"),
                (("", sign), CUIT, "ValidacionDeToken: Parametro nulo o vacio"),
                ((token, sign[:-4] + "AAA="), CUIT,
                 "ValidacionDeToken: Error al verificar hash: VerificacionDeHash: No validó la firma digital."),
                (("x", "y"), CUIT, "ValidacionDeToken: No validaron las credenciales")):
            self.assertEqual(text(self.call("FEParamGetTiposCbte", cuit=cuit, credentials=credentials), "Errors/Err/Msg"),
                             message)
        # Expired for certain once a second has passed after the login, however slow the machine.
        with Simulator("--ticket-seconds", "1") as short_lived:
            ticket = ticket_of(login(short_lived)[1])
            time.sleep(2)
            expired = fev1(short_lived, "FEParamGetTiposCbte", credentials=(
                ticket.findtext("credentials/token"), ticket.findtext("credentials/sign")))[1]
        stamp = r"\d+ \(\d{1,2}/\d{1,2}/\d{4} \d{1,2}:\d\d:\d\d [AP]M\)"
        self.assertRegex(text(expired, "Errors/Err/Msg"),
                         r"^ValidacionDeToken: No validaron las fechas del token GenTime, ExpTime, NowUTC: %s, %s, %s$"
                         % (stamp, stamp, stamp))

    def test_soap_action_selects_the_operation(self):
        for action in ('"http://ar.gov.afip.dif.FEV1/FEDummy"', "http://ar.gov.afip.dif.FEV1/FEDummy"):
            dummy = fev1(self.simulator, "FEParamGetTiposCbte", action=action)[1]
            self.assertEqual(dummy.tag, "{%s}FEDummyResponse" % FEV1, action)
        for action in ('""', "http://ar.gov.afip.dif.FEV1/FENada"):
            status, fault, _ = fev1(self.simulator, "FEDummy", action=action)
            self.assertEqual((status, fault.findtext("faultcode"), fault.findtext("faultstring")),
                             (500, "soap:Client", "Server did not recognize the value of HTTP Header SOAPAction: %s."
                              % action.strip('"')))

    def test_service_descriptions(self):
        actions = lambda wsdl: {op.getparent().get("name"): op.get("soapAction") for op in wsdl.iterfind(
            ".//wsdl:binding/wsdl:operation/soap:operation", WSDL)}
        shape = lambda node: [(e.get("name"), e.get("type"), e.get("minOccurs"), e.get("maxOccurs")) for e in node.iter()]
        reference = etree.parse(os.path.join(REFERENCE, "wsfev1-service.wsdl"))
        afip_types = {(t.tag, t.get("name")): shape(t) for t in reference.find(".//s:schema", WSDL)}
        served = {}
        for path, query in (("/wsfev1/service.asmx", "?WSDL"), ("/wsfev1/service.asmx", "?wsdl"),
                            ("/ws/services/LoginCms", "?wsdl")):
            status, answer, _ = post(self.simulator.url(path + query), method="GET")
            served[path] = etree.fromstring(answer)
            self.assertEqual(status, 200)
            self.assertEqual(served[path].find(".//wsdl:port/*", WSDL).get("location"), self.simulator.url(path))
        self.assertEqual(served["/ws/services/LoginCms"].find(".//wsdl:operation/wsdlsoap:operation", WSDL).get(
            "soapAction"), "")
        # All 22 of AFIP's operations with AFIP's SOAPActions, and every type AFIP's, element for element.
        ours = actions(served["/wsfev1/service.asmx"])
        self.assertEqual((len(ours), ours), (22, {name: actions(reference)[name] for name in ours}))
        for definition in served["/wsfev1/service.asmx"].find(".//s:schema", WSDL):
            self.assertEqual(shape(definition), afip_types[(definition.tag, definition.get("name"))], definition.get("name"))


class Rules(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.simulator = Simulator("--receptor-condition-required-from", "2100-01-01", "--today", TODAY)
        ticket = ticket_of(login(cls.simulator)[1])
        cls.credentials = (ticket.findtext("credentials/token"), ticket.findtext("credentials/sign"))

    @classmethod
    def tearDownClass(cls):
        cls.simulator.stop()

    def call(self, operation, content=""):
        status, result, answer = fev1(self.simulator, operation, content, self.credentials)
        self.assertEqual(status, 200, answer)
        return result

    def test_each_rule_with_its_code_kind_and_text(self):
        for point_of_sale, (changes, code, kind, message) in enumerate(RULES, 100):
            result = self.call("FECAESolicitar", invoice(point_of_sale, **dict(changes)))
            verdicts = {text(d, "Resultado") for d in result.iter("{%s}FECAEDetResponse" % FEV1)}
            error = (text(result, "Errors/Err/Code"), text(result, "Errors/Err/Msg"))
            found = error if kind == "Err" else next((o for o in observations(result) if o[0] == str(code)), (None, None))
            verdict = "R" if kind == "Err" else kind
            self.assertEqual((verdicts, text(result, "FeCabResp/Resultado")), ({verdict}, verdict), changes)
            self.assertEqual(found[0], code and str(code), (changes, observations(result), error))
            if message:
                self.assertEqual(found[1][:len(message.rstrip("…"))], message.rstrip("…"), changes)
            if kind == "Err":
                self.assertEqual(observations(result), [], changes)

    def test_each_edge_from_both_sides(self):
        for options in dict.fromkeys(row[0] for row in EDGES):
            with Simulator(*options) as simulator:
                ticket = ticket_of(login(simulator)[1])
                credentials = (ticket.findtext("credentials/token"), ticket.findtext("credentials/sign"))
                for point_of_sale, (_, changes, verdict, codes) in enumerate((r for r in EDGES if r[0] == options), 1):
                    result = fev1(simulator, "FECAESolicitar", invoice(point_of_sale, **changes), credentials)[1]
                    found = [code for code, _ in observations(result)] + [e.text for e in result.iter("{%s}Code" % FEV1)
                                                                          if e.getparent().tag.endswith("Err")]
                    self.assertEqual((text(result, "FECAEDetResponse/Resultado"), found), (verdict, codes), (options, changes))

    def test_a_wrong_number_in_the_middle_of_a_batch_refuses_it_whole(self):
        batch = invoice(92, 3).replace("<ar:CbteDesde>2</ar:CbteDesde><ar:CbteHasta>2</ar:CbteHasta>",
                                       "<ar:CbteDesde>4</ar:CbteDesde><ar:CbteHasta>4</ar:CbteHasta>")
        result = self.call("FECAESolicitar", batch)
        self.assertEqual([d.findtext("{%s}Resultado" % FEV1) for d in result.iter("{%s}FECAEDetResponse" % FEV1)], ["R"] * 3)
        self.assertEqual((text(result, "Errors/Err/Code"), observations(result)), ("10016", []))
        last = self.call("FECompUltimoAutorizado", "<ar:PtoVta>92</ar:PtoVta><ar:CbteTipo>6</ar:CbteTipo>")
        self.assertEqual(text(last, "CbteNro"), "0")
        self.assertNotIn("92", [n.text for n in self.call("FEParamGetPtosVenta", "").iter("{%s}Nro" % FEV1)])

    def test_a_batch_stops_at_its_first_rejected_voucher_and_consulting_gives_observations(self):
        result = self.call("FECAESolicitar", invoice(90, 3, **dict(A, DocNro="20222222223", CondicionIVAReceptorId="6")))
        self.assertEqual(text(result, "FeCabResp/Resultado"), "A")
        self.assertEqual(text(result, "CAEFchVto"), day(10))
        consulted = self.call("FECompConsultar", "<ar:FeCompConsReq><ar:CbteTipo>1</ar:CbteTipo><ar:CbteNro>3</ar:CbteNro>"
                                                 "<ar:PtoVta>90</ar:PtoVta></ar:FeCompConsReq>")
        self.assertEqual((text(consulted, "DocNro"), observations(consulted)[0][0]), ("20222222223", "10217"))
        batch = invoice(91, 3).replace("<ar:ImpTotal>121</ar:ImpTotal>", "<ar:ImpTotal>99</ar:ImpTotal>", 2)
        batch = batch.replace("<ar:ImpTotal>99</ar:ImpTotal>", "<ar:ImpTotal>121</ar:ImpTotal>", 1)
        result = self.call("FECAESolicitar", batch)
        self.assertEqual([text(result, "FeCabResp/Resultado")] + [d.findtext("{%s}Resultado" % FEV1) for d in result.iter(
            "{%s}FECAEDetResponse" % FEV1)], ["P", "A", "R", "R"])
        self.assertEqual(text(self.call("FECompUltimoAutorizado", "<ar:PtoVta>91</ar:PtoVta><ar:CbteTipo>6</ar:CbteTipo>"),
                              "CbteNro"), "1")

    def test_the_readme_holds_the_rules_table_of_the_code(self):
        with open(os.path.join(SOURCE, "tools", "simulator", "README.md"), encoding="utf-8") as readme:
            self.assertTrue(run([SIMULATOR, "--rules"]).stdout in readme.read(), "the README's rules differ from --rules")


class LostAnswer(unittest.TestCase):
    def test_a_voucher_whose_answer_was_lost_is_found_by_consulting(self):
        with Simulator() as simulator:
            ticket = ticket_of(login(simulator)[1])
            credentials = (ticket.findtext("credentials/token"), ticket.findtext("credentials/sign"))
            for number, loss in enumerate(({"cut_after": 60}, {"status": 503}, {"hang_ms": 300}), 1):
                simulator.answer("/wsfev1/service.asmx", operation="FECAESolicitar", process=1, **loss)
                self.assertEqual(text(fev1(simulator, "FEDummy")[1], "AppServer"), "OK", "only the operation named")
                try:
                    status = fev1(simulator, "FECAESolicitar", invoice(3, CbteDesde=number), credentials)[0]
                except (OSError, http.client.HTTPException, etree.XMLSyntaxError):
                    status = None
                self.assertEqual(status, loss.get("status"), loss)
                consulted = fev1(simulator, "FECompConsultar", "<ar:FeCompConsReq><ar:CbteTipo>6</ar:CbteTipo><ar:CbteNro>"
                                 "%d</ar:CbteNro><ar:PtoVta>3</ar:PtoVta></ar:FeCompConsReq>" % number, credentials)[1]
                self.assertRegex(text(consulted, "CodAutorizacion") or "", r"^\d{14}$", loss)
            self.assertIn("answer lost", simulator.stop())


class Options(unittest.TestCase):
    def test_delay_and_plain_text_options(self):
        with Simulator("--service-delay-ms", "800", "--non-xml-answer") as simulator:
            started = time.monotonic()
            status, body, _ = post(simulator.wsfe(), b"<x/>")
            self.assertGreaterEqual(time.monotonic() - started, 0.8)
            self.assertEqual(status, 200)
            self.assertFalse(body.startswith(b"<"))

    def test_cut_over_padron_file_and_events(self):
        with tempfile.TemporaryDirectory() as work:
            padron = os.path.join(work, "padron.json")
            with open(padron, "w") as file:
                file.write('{"20402908323": 1, "%s": 1}' % CUIT)
            with Simulator("--receptor-condition-required-from", "2000-01-01", "--padron", padron, "--event",
                           "41:IMPORTANTE: aviso") as simulator:
                ticket = ticket_of(login(simulator)[1])
                credentials = (ticket.findtext("credentials/token"), ticket.findtext("credentials/sign"))
                cases = [({"CondicionIVAReceptorId": None}, "R", [("10246", "Campo Condicion Frente al IVA del receptor es "
                          "obligatorio conforme a lo reglamentado por la Resolucion General N° 5616.")]),
                         ({"DocTipo": "80", "DocNro": "20402908323"}, "A", []),
                         ({"DocTipo": "80", "DocNro": "20222222223"}, "R", [("10015", None)]),
                         ({"CbteDesde": "9"}, "R", [])]
                for point_of_sale, (changes, verdict, expected) in enumerate(cases, 1):
                    result = fev1(simulator, "FECAESolicitar", invoice(point_of_sale, **changes), credentials)[1]
                    self.assertEqual(text(result, "FECAEDetResponse/Resultado"), verdict, changes)
                    self.assertEqual([(c, m if expected and expected[0][1] else None) for c, m in observations(result)],
                                     expected, changes)
                    self.assertEqual(text(result, "Events/Evt/Code"), "41")
                self.assertEqual(text(fev1(simulator, "FECompTotXRequest", "", credentials)[1], "Events/Evt/Msg"),
                                 "IMPORTANTE: aviso")
                self.assertIsNone(text(fev1(simulator, "FEDummy")[1], "Events/Evt/Code"))


class Registration(unittest.TestCase):
    def test_points_of_sale_and_issuers_as_registered(self):
        with Simulator("--points-of-sale", "1,2", "--caea-points-of-sale", "5", "--relations", "20222222223,20999999998",
                       "--services", "wsfe,wsfex") as simulator:
            credentials = [(t.findtext("credentials/token"), t.findtext("credentials/sign")) for t in (
                ticket_of(login(simulator, service)[1]) for service in ("wsfe", "wsfex"))]
            call = lambda operation, content="", cuit=CUIT: fev1(simulator, operation, content, credentials[0], cuit)[1]
            self.assertEqual([(p.findtext("{*}Nro"), p.findtext("{*}EmisionTipo")) for p in call(
                "FEParamGetPtosVenta").iter("{%s}PtoVenta" % FEV1)], [("1", "CAE"), ("2", "CAE"), ("5", "CAEA")])
            for operation, content, code in (
                    ("FECompUltimoAutorizado", "<ar:PtoVta>3</ar:PtoVta><ar:CbteTipo>6</ar:CbteTipo>", "11002"),
                    ("FECompConsultar", "<ar:FeCompConsReq><ar:CbteTipo>6</ar:CbteTipo><ar:CbteNro>1</ar:CbteNro>"
                                        "<ar:PtoVta>3</ar:PtoVta></ar:FeCompConsReq>", "10104")):
                self.assertEqual(text(call(operation, content), "Errors/Err/Code"), code, operation)
            not_enrolled = ("NO AUTORIZADO A EMITIR COMPROBANTES - LA CUIT INFORMADA NO SE ENCUENTRA AUTORIZADA A EMITIR "
                            "COMPROBANTES ELECTRONICOS ORIGINALES O EL PERIODO DE INICIO AUTORIZADO ES POSTERIOR AL DE LA "
                            "GENERACION DE LA SOLICITUD")
            not_registered = ("NO AUTORIZADO A EMITIR COMPROBANTES - LA CUIT INFORMADA NO CORRESPONDE A UN RESPONSABLE "
                              "INSCRIPTO EN EL IMPUESTO IVA.")
            wrong_point = "NO AUTORIZADO A EMITIR COMPROBANTES - EL PUNTO DE VENTA INFORMADO DEBE ESTAR DADO DE ALTA Y SER DEL TIPO RECE"
            for point_of_sale, cuit, changes, code, message in (
                    (3, CUIT, {}, "10005", wrong_point), (5, CUIT, {}, "10005", wrong_point),
                    (1, "20999999998", {}, "10000", not_enrolled), (1, "20222222223", {}, "10000", not_registered),
                    (1, "20222222223", C, None, None), (2, CUIT, {}, None, None)):
                result = call("FECAESolicitar", invoice(point_of_sale, **changes), cuit)
                self.assertEqual((text(result, "Errors/Err/Code"), text(result, "Errors/Err/Msg")), (code, message),
                                 (point_of_sale, cuit))
            self.assertEqual(text(fev1(simulator, "FEParamGetTiposCbte", "", credentials[1])[1], "Errors/Err/Msg"),
                             "ValidacionDeToken: No valido Id Sistema: wsfe(Id Sistema de token es: wsfex)")

    def test_the_state_outlives_a_restart(self):
        with tempfile.TemporaryDirectory() as work:
            state = os.path.join(work, "state.json")
            consult = "<ar:FeCompConsReq><ar:CbteTipo>6</ar:CbteTipo><ar:CbteNro>1</ar:CbteNro><ar:PtoVta>4</ar:PtoVta>" \
                      "</ar:FeCompConsReq>"
            with Simulator("--state", state) as simulator:
                ticket = ticket_of(login(simulator)[1])
                credentials = (ticket.findtext("credentials/token"), ticket.findtext("credentials/sign"))
                cae = text(fev1(simulator, "FECAESolicitar", invoice(4), credentials)[1], "CAE")
            with Simulator("--state", state) as simulator:
                self.assertEqual(text(fev1(simulator, "FECompConsultar", consult, credentials)[1], "CodAutorizacion"), cae)
                self.assertEqual(text(fev1(simulator, "FECAESolicitar", invoice(4, CbteDesde=2), credentials)[1],
                                      "FeCabResp/Resultado"), "A")
                self.assertEqual(login(simulator)[1].findtext("faultstring"),
                                 "El CEE ya posee un TA valido para el acceso al WSN solicitado")
            with Simulator() as simulator:
                self.assertEqual(text(fev1(simulator, "FECompConsultar", consult, credentials)[1], "Errors/Err/Code"), "600")
            with open(state, "w") as file:
                file.write("{}")
            refused = run([SIMULATOR, "--state", state, "--max-seconds", "1"])
            self.assertEqual((refused.returncode, refused.stderr.count("is not a state file of this simulator")), (1, 1))


class Process(unittest.TestCase):
    def test_stops_cleanly_on_signals_and_its_time_limit(self):
        for stop, reason in ((signal.SIGTERM, "stopped: SIGTERM"), (signal.SIGINT, "stopped: SIGINT"), (None, "1 s elapsed")):
            with Simulator("--max-seconds", "1", tls=False) as simulator:
                if stop:
                    simulator.process.send_signal(stop)
                self.assertEqual(simulator.process.wait(timeout=10), 0)
                self.assertRegex(simulator.stop(), r"^listening on http://127\.0\.0\.1:\d+\n(.|\n)*" + reason)

    def test_command_line(self):
        help_text = run([SIMULATOR, "--help"]).stdout
        for option in ("--tls", "--legacy-tls", "--refuse-relogin-seconds", "--relations", "/simulator/answers", "--cuit",
                       "process=1", "(default 2026-12-01", "20222222223", "--event"):
            self.assertIn(option, help_text)
        for arguments in (["--no-such-option"], ["--port", "70000"], ["--make-certificate", "x.p12"],
                          ["--legacy-tls"], ["--cuit", "123"], ["--relations", "1,2"], ["--event", "x:y"],
                          ["--receptor-condition-required-from", "2026-02-30"], ["--today", "2026-6-1"],
                          ["--points-of-sale", "0"], ["--points-of-sale", "2", "--caea-points-of-sale", "3,2"]):
            self.assertEqual(run([SIMULATOR] + arguments).returncode, 2, arguments)
        self.assertEqual(run([SIMULATOR, "--padron", "/nonexistent.json"]).returncode, 1)


if __name__ == "__main__":
    unittest.main()
