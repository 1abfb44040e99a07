"""The simulator as users run it, held to AFIP's shapes: every answer is checked against the schema
of AFIP's published WSDLs, logins are signed with openssl."""
import base64
import copy
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


def voucher(number):
    return ("<ar:FeCAEReq><ar:FeCabReq><ar:CantReg>1</ar:CantReg><ar:PtoVta>3</ar:PtoVta><ar:CbteTipo>6</ar:CbteTipo>"
            "</ar:FeCabReq><ar:FeDetReq><ar:FECAEDetRequest><ar:Concepto>1</ar:Concepto><ar:DocTipo>99</ar:DocTipo>"
            "<ar:DocNro>0</ar:DocNro><ar:CbteDesde>%d</ar:CbteDesde><ar:CbteHasta>%d</ar:CbteHasta>"
            "<ar:ImpTotal>121</ar:ImpTotal><ar:ImpTotConc>0</ar:ImpTotConc><ar:ImpNeto>100</ar:ImpNeto>"
            "<ar:ImpOpEx>0</ar:ImpOpEx><ar:ImpTrib>0</ar:ImpTrib><ar:ImpIVA>21</ar:ImpIVA><ar:MonId>PES</ar:MonId>"
            "<ar:MonCotiz>1</ar:MonCotiz><ar:Iva><ar:AlicIva><ar:Id>5</ar:Id><ar:BaseImp>100</ar:BaseImp>"
            "<ar:Importe>21</ar:Importe></ar:AlicIva></ar:Iva></ar:FECAEDetRequest></ar:FeDetReq></ar:FeCAEReq>"
            % (number, number))


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
        with Simulator("--refuse-relogin-seconds", "1") as simulator, tempfile.TemporaryDirectory() as work:
            send = lambda: run(cli_command(simulator), cwd=work).returncode
            self.assertEqual(send(), 0)
            os.remove(os.path.join(work, "credentials.json"))
            self.assertEqual(send(), 9)
            time.sleep(2)
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
        self.simulator = self.enterContext(Simulator("--ticket-seconds", "3"))
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
        }
        for operation, (content, path, expected) in answers.items():
            result = self.call(operation, content)
            self.assertEqual(text(result, path), expected, operation)
            self.assertIsNone(text(result, "Errors/Err/Code"), operation)
        for operation, content, code in (("FEParamGetCotizacion", "<ar:MonId>XXX</ar:MonId>", "602"),
                                         ("FECompConsultar", "<ar:FeCompConsReq><ar:CbteTipo>6</ar:CbteTipo><ar:CbteNro>9"
                                                             "</ar:CbteNro><ar:PtoVta>3</ar:PtoVta></ar:FeCompConsReq>", "602")):
            self.assertEqual(text(self.call(operation, content), "Errors/Err/Code"), code, operation)

    def test_authorising_consulting_and_refusing_a_wrong_number(self):
        _, approved, answer = fev1(self.simulator, "FECAESolicitar", voucher(1), self.credentials)
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

        refused = self.call("FECAESolicitar", voucher(1))
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
        self.assertEqual(text(self.call("FEParamGetTiposCbte", cuit="30500010912"), "Errors/Err/Msg"),
                         "ValidacionDeToken: No aparecio CUIT en lista de relaciones: 30500010912")
        time.sleep(3)
        stamp = r"\d+ \(\d{1,2}/\d{1,2}/\d{4} \d{1,2}:\d\d:\d\d [AP]M\)"
        self.assertRegex(text(self.call("FEParamGetTiposCbte"), "Errors/Err/Msg"),
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
        status, fault, _ = fev1(self.simulator, "FECAEASolicitar", action="http://ar.gov.afip.dif.FEV1/FECAEASolicitar")
        self.assertEqual(status, 500)
        self.assertIn("FECAEASolicitar", fault.findtext("faultstring"))

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
        # Fourteen of AFIP's operations with AFIP's SOAPActions, and every type AFIP's, element for element.
        ours = actions(served["/wsfev1/service.asmx"])
        self.assertEqual((len(ours), ours), (14, {name: actions(reference)[name] for name in ours}))
        for definition in served["/wsfev1/service.asmx"].find(".//s:schema", WSDL):
            self.assertEqual(shape(definition), afip_types[(definition.tag, definition.get("name"))], definition.get("name"))


class Options(unittest.TestCase):
    def test_delay_and_plain_text_options(self):
        with Simulator("--service-delay-ms", "800", "--non-xml-answer") as simulator:
            started = time.monotonic()
            status, body, _ = post(simulator.wsfe(), b"<x/>")
            self.assertGreaterEqual(time.monotonic() - started, 0.8)
            self.assertEqual(status, 200)
            self.assertFalse(body.startswith(b"<"))


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
        for option in ("--tls", "--legacy-tls", "--refuse-relogin-seconds", "--relations", "/simulator/answers", "--cuit"):
            self.assertIn(option, help_text)
        for arguments in (["--no-such-option"], ["--port", "70000"], ["--make-certificate", "x.p12"],
                          ["--legacy-tls"], ["--cuit", "123"], ["--relations", "1,2"]):
            self.assertEqual(run([SIMULATOR] + arguments).returncode, 2, arguments)


if __name__ == "__main__":
    unittest.main()
