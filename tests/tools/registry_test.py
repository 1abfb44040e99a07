"""The simulator as AFIP's taxpayer registry: the constancia de inscripción (personaServiceA5) and A13,
every answer held to the schema of AFIP's published WSDLs."""
import json
import os
import tempfile
import unittest

from lxml import etree

import simulator_test as sim
from harness import SIMULATOR, Simulator, post, run

A5 = ("/sr-padron/webservices/personaServiceA5", "http://a5.soap.ws.server.puc.sr/")
A13 = ("/sr-padron/webservices/personaServiceA13", "http://a13.soap.ws.server.puc.sr/")
SCHEMA = {A5: sim.schema_of(os.path.join(sim.REFERENCE, "ws_sr_constancia_inscripcion-personaServiceA5.wsdl")),
          A13: sim.schema_of(os.path.join(sim.REFERENCE, "ws_sr_padron_a13-personaServiceA13.wsdl"))}
SERVICE = {A5: "ws_sr_constancia_inscripcion", A13: "ws_sr_padron_a13"}


def ask(simulator, endpoint, operation, credentials, represented=sim.CUIT, ids=(), tag="idPersona"):
    """(status, Body content) of one registry call; answers are checked against the endpoint's schema."""
    fields = "".join("<%s>%s</%s>" % (tag, i, tag) for i in ids)
    auth = "" if operation == "dummy" else "<token>%s</token><sign>%s</sign><cuitRepresentada>%s</cuitRepresentada>" % (
        credentials + (represented,))
    request = ('<soapenv:Envelope xmlns:soapenv="http://schemas.xmlsoap.org/soap/envelope/" xmlns:r="%s"><soapenv:Body>'
               '<r:%s>%s%s</r:%s></soapenv:Body></soapenv:Envelope>' % (endpoint[1], operation, auth, fields, operation))
    status, answer, _ = post(simulator.url(endpoint[0]), request.encode(), {"SOAPAction": '""'})
    return status, sim.body_of(answer, SCHEMA[endpoint] if status == 200 else None)


def credentials_for(simulator, service):
    ticket = sim.ticket_of(sim.login(simulator, service)[1])
    return ticket.findtext("credentials/token"), ticket.findtext("credentials/sign")


def condition(persona):
    """CondicionIVAReceptorId as a host derives it from a constancia (the reference's mapping)."""
    taxes = {int(i.text) for i in persona.iterfind("datosRegimenGeneral/impuesto/idImpuesto")}
    return 6 if persona.find("datosMonotributo") is not None else 1 if 30 in taxes else 4 if 32 in taxes else 5


def name(persona):
    general = persona.find("datosGenerales")
    return general.findtext("razonSocial") or "%s %s" % (general.findtext("apellido"), general.findtext("nombre"))


def fault(content):
    """(faultstring, whether the detail is an SRValidationException) of a SOAP fault."""
    return content.findtext("faultstring"), content.find("detail/{*}SRValidationException") is not None


class Registry(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.simulator = Simulator()
        cls.credentials = {endpoint: credentials_for(cls.simulator, SERVICE[endpoint]) for endpoint in (A5, A13)}

    @classmethod
    def tearDownClass(cls):
        cls.simulator.stop()

    def ask(self, endpoint, operation, *ids, represented=sim.CUIT, credentials=None, tag="idPersona"):
        return ask(self.simulator, endpoint, operation, credentials or self.credentials[endpoint], represented, ids, tag)

    def test_the_built_in_padron_as_the_constancia_shows_it(self):
        # (CUIT, name, tipoPersona, estadoClave, condition derived from the answer)
        for cuit, expected_name, kind, state, derived in (
                ("20111111112", "GOMEZ JUAN CARLOS", "FISICA", "ACTIVO", 1),
                ("30500010912", "COMERCIAL DEL PLATA SA", "JURIDICA", "ACTIVO", 1),
                ("30711111111", "FUNDACION AYUDA MUTUA", "JURIDICA", "ACTIVO", 4),
                ("20333333334", "FERNANDEZ ANA MARIA", "FISICA", "ACTIVO", 5),
                ("20222222223", "LOPEZ MARTIN", "FISICA", "ACTIVO", 6),
                ("30000000007", "MONOTRIBUTO DE HOMOLOGACION SH", "JURIDICA", "ACTIVO", 6)):
            for operation in ("getPersona_v2", "getPersona"):
                status, content = self.ask(A5, operation, cuit)
                persona = content.find("personaReturn")
                general = persona.find("datosGenerales")
                self.assertEqual((status, name(persona), general.findtext("tipoPersona"), general.findtext("estadoClave"),
                                  general.findtext("idPersona"), condition(persona)),
                                 (200, expected_name, kind, state, cuit, derived), (operation, cuit))
                self.assertIsNotNone(persona.find("metadata/fechaHora"))
                self.assertIsNone(persona.find("errorConstancia"), cuit)
        persona = self.ask(A5, "getPersona_v2", "20222222223")[1].find("personaReturn")
        self.assertEqual([persona.findtext("datosMonotributo/categoriaMonotributo/" + f) for f in (
            "descripcionCategoria", "idCategoria", "idImpuesto")] + [persona.findtext("datosMonotributo/impuesto/idImpuesto")],
            ["D", "4", "20", "20"])
        address = self.ask(A5, "getPersona_v2", "30500010912")[1].find("personaReturn/datosGenerales/domicilioFiscal")
        self.assertEqual([address.findtext(f) for f in ("direccion", "localidad", "codPostal", "idProvincia")],
                         ["SAN MARTIN 500", "ROSARIO", "2000", "12"])

    def test_an_inactive_key_lists_and_a13(self):
        inactive = self.ask(A5, "getPersona_v2", "20888888889")[1].find("personaReturn")
        self.assertEqual((inactive.findtext("datosGenerales/estadoClave"), inactive.findtext("errorConstancia/error"),
                          inactive.find("datosRegimenGeneral")), ("INACTIVO", "La clave se encuentra inactiva", None))
        for operation in ("getPersonaList_v2", "getPersonaList"):
            listed = self.ask(A5, operation, "20111111112", "20000000001")[1].find("personaListReturn")
            self.assertEqual([(p.findtext("datosGenerales/idPersona"), p.findtext("errorConstancia/error"))
                              for p in listed.iterfind("persona")],
                             [("20111111112", None), (None, "No existe persona con ese Id")], operation)
        persona = self.ask(A13, "getPersona", "20111111112")[1].find("personaReturn/persona")
        self.assertEqual([persona.findtext(f) for f in ("apellido", "nombre", "numeroDocumento", "tipoPersona",
                                                        "domicilio/direccion", "domicilio/codigoPostal")],
                         ["GOMEZ", "JUAN CARLOS", "11111111", "FISICA", "AV CORRIENTES 1234 Piso:3 Dpto:B", "1043"])
        found = self.ask(A13, "getIdPersonaListByDocumento", "33333333", tag="documento")[1]
        self.assertEqual([i.text for i in found.iterfind("idPersonaListReturn/idPersona")], ["20333333334"])
        for endpoint in (A5, A13):
            self.assertEqual(self.ask(endpoint, "dummy")[1].findtext("return/appserver"), "OK")

    def test_refusals_are_soap_faults(self):
        token, sign = self.credentials[A5]
        wsfe = credentials_for(self.simulator, "wsfe")
        cases = [(A5, {"ids": ("20000000001",)}, "No existe persona con ese Id"),
                 (A13, {"ids": ("20000000001",)}, "No existe persona con ese Id"),
                 (A5, {"ids": ("20111111112",), "credentials": ("", sign)}, "El token y el sign son obligatorios"),
                 (A5, {"ids": ("20111111112",), "credentials": (token, sign[:-4] + "AAA=")},
                  "No se pudo validar el token: token o sign invalidos"),
                 (A5, {"ids": ("20111111112",), "credentials": wsfe},
                  "El token no corresponde al servicio ws_sr_constancia_inscripcion (es de wsfe)"),
                 (A13, {"ids": ("20111111112",), "credentials": self.credentials[A5]},
                  "El token no corresponde al servicio ws_sr_padron_a13 (es de ws_sr_constancia_inscripcion)"),
                 (A5, {"ids": ("20111111112",), "represented": "30500010912"},
                  "La CUIT representada 30500010912 no esta incluida en el token"),
                 (A5, {"ids": ("x",)}, "idPersona debe ser un numero (xs:long)")]
        for endpoint, arguments, message in cases:
            status, content = ask(self.simulator, endpoint, "getPersona", arguments.get("credentials", self.credentials[endpoint]),
                                  arguments.get("represented", sim.CUIT), arguments["ids"])
            self.assertEqual((status, content.tag) + fault(content), (500, sim.SOAP + "Fault", message, True), arguments)
        status, content = ask(self.simulator, (A5[0], A13[1]), "getPersona", self.credentials[A5], ids=("20111111112",))
        self.assertEqual((status, content.findtext("faultcode")), (500, "soap:Client"))

    def test_logins_and_service_descriptions(self):
        status, content = sim.login(self.simulator, "ws_sr_padron_a5")
        self.assertEqual((status, content.findtext("faultcode"), content.findtext("faultstring")),
                         (500, "ns1:coe.notAuthorized", "Computador no autorizado a acceder al servicio"))
        for endpoint, reference in ((A5, "ws_sr_constancia_inscripcion-personaServiceA5.wsdl"),
                                    (A13, "ws_sr_padron_a13-personaServiceA13.wsdl")):
            for query in ("?WSDL", "?wsdl"):
                status, answer, _ = post(self.simulator.url(endpoint[0] + query), method="GET")
                served = etree.fromstring(answer)
                location = served.find(".//wsdl:port/soap:address", sim.WSDL)
                self.assertEqual((status, location.get("location")), (200, self.simulator.url(endpoint[0])))
                expected = etree.parse(os.path.join(sim.REFERENCE, reference)).getroot()
                expected.find(".//wsdl:port/soap:address", sim.WSDL).set("location", location.get("location"))
                self.assertEqual(etree.tostring(served, method="c14n"), etree.tostring(expected, method="c14n"))


class PadronFile(unittest.TestCase):
    PADRON = {
        "20111111112": 1,
        "30712345678": {"tipoPersona": "JURIDICA", "razonSocial": "EJEMPLO SRL", "impuestos": [{"idImpuesto": 32}],
                        "domicilioFiscal": {"direccion": "SARMIENTO 10", "localidad": "SALTA", "idProvincia": 17}},
        "20301234561": {"tipoPersona": "FISICA", "apellido": "RUIZ", "nombre": "EVA",
                        "categoriaMonotributo": {"descripcionCategoria": "C", "idImpuesto": 20}},
        "20401234565": {"tipoPersona": "FISICA", "apellido": "GIL", "estadoClave": "INACTIVO", "impuestos": [{"idImpuesto": 30}]},
        "20501234568": 6,
    }

    def test_a_richer_padron_serves_the_registry_and_the_invoicing_rules(self):
        with tempfile.TemporaryDirectory() as work:
            path = os.path.join(work, "padron.json")
            with open(path, "w") as file:
                json.dump(self.PADRON, file)
            with Simulator("--padron", path) as simulator:
                credentials = credentials_for(simulator, SERVICE[A5])
                derived = {cuit: condition(ask(simulator, A5, "getPersona_v2", credentials, ids=(cuit,))[1].find(
                    "personaReturn")) for cuit in ("30712345678", "20301234561", "20501234568", "20111111112")}
                self.assertEqual(derived, {"30712345678": 4, "20301234561": 6, "20501234568": 6, "20111111112": 1})
                self.assertEqual(ask(simulator, A5, "getPersona_v2", credentials, ids=("30500010912",))[0], 500,
                                 "the built-in padron is replaced")
                wsfe = credentials_for(simulator, "wsfe")
                # (receptor, voucher changes, the observation codes WSFEv1 gives)
                for point_of_sale, (receptor, changes, codes) in enumerate((
                        ("20301234561", dict(sim.A, CondicionIVAReceptorId="6"), ["10217"]),
                        ("30712345678", sim.A, ["10063"]),
                        ("20401234565", sim.A, ["10017"]),
                        ("20401234565", {"DocTipo": "80", "CondicionIVAReceptorId": "1", "CbteTipo": "6"}, ["10015", "10243"])), 1):
                    result = sim.fev1(simulator, "FECAESolicitar", sim.invoice(
                        point_of_sale, **dict(changes, DocNro=receptor)), wsfe)[1]
                    self.assertEqual([c for c, _ in sim.observations(result)], codes, receptor)

    def test_bad_padron_files_are_refused_with_a_clear_message(self):
        for content, message in (
                ("[1, 2]", "is not a JSON object of CUITs"),
                ('{"2011111111": 1}', "'2011111111' is not a CUIT of 11 digits"),
                ('{"20111111112": 2}', "20111111112 is neither a taxpayer"),
                ('{"20111111112": {"apellido": "X"}}', "20111111112: tipoPersona is missing"),
                ('{"20111111112": {"tipoPersona": "JURIDICA"}}', "20111111112: razonSocial is missing"),
                ('{"20111111112": {"tipoPersona": "FISICA", "apellido": "X", "estadoClave": "BAJA"}}', "estadoClave must be"),
                ('{"20111111112": {"tipoPersona": "FISICA", "apellido": "X", "condicionIva": 1}}', "condicionIva states only"),
                ('{"20111111112": {"tipoPersona": "FISICA", "apellido": "X", "impuestos": [{"periodo": 1}]}}',
                 "idImpuesto is missing"),
                ('{"20111111112": {"tipoPersona": "FISICA", "apellido": "X", "edad": 3}}', "unknown field edad")):
            with tempfile.NamedTemporaryFile("w", suffix=".json") as file:
                file.write(content)
                file.flush()
                refused = run([SIMULATOR, "--padron", file.name, "--max-seconds", "1"])
                self.assertEqual(refused.returncode, 1, content)
                self.assertIn(message, refused.stderr, content)


if __name__ == "__main__":
    unittest.main()
