"""A shop's first day through tarvoafip_cli, against the simulator: the customer's VAT condition from
AFIP's registry, printed vouchers read back, and selling on under a CAEA while WSFEv1 cannot be
reached, then informing what was sold."""
import base64
import json
import os
import subprocess
import tempfile
import unittest

from harness import CLI, SAMPLES, Simulator, fixture, run

CUIT = 20111111112
A5 = "/sr-padron/webservices/personaServiceA5"
UNREACHABLE = "http://127.0.0.1:1/wsfev1/service.asmx"
with open(os.path.join(SAMPLES, "factura_b.json")) as sample:
    FACTURA_B = json.load(sample)
FACTURA_A = dict(FACTURA_B, CbteTipo=1, DocTipo=80)
PROFILE = {"name": "Panadería La Señora S.R.L.", "address": "Av. Corrientes 1234, CABA", "cuit": "30-50001091-2",
           "iibb": "901-123456-7", "activities_start": "2020-03-01", "vat_condition": 1}


class Shop(unittest.TestCase):
    def setUp(self):
        self.scratch = tempfile.TemporaryDirectory()
        self.addCleanup(self.scratch.cleanup)

    def cli(self, simulator, *arguments, url=None, input=None, env=None):
        """(exit status, standard output parsed as JSON when it is, standard error)."""
        command = arguments[0].split()
        connection = []
        if command[0] != "receipt":
            connection = ["--wsaa-url", simulator.wsaa(), "--certificate", fixture("signer.p12"), "--password", "pw",
                          "--cuit", str(CUIT),
                          "--url", url or (simulator.url(A5) if command[0] == "padron" else simulator.wsfe())]
        result = run([CLI, *command, *connection, *arguments[1:]], cwd=self.scratch.name, input=input, env=env)
        try:
            output = json.loads(result.stdout)
        except ValueError:
            output = result.stdout
        return result.returncode, output, result.stderr

    def invoice(self, simulator, voucher, sale_id, *extra, url=None):
        path = os.path.join(self.scratch.name, "voucher.json")
        with open(path, "w") as file:
            json.dump(voucher, file)
        return self.cli(simulator, "invoice", "--invoice", path, "--sale-id", sale_id, *extra, url=url)

    def wsfe_bodies(self, simulator, operation):
        return [r["body"] for r in simulator.requests("/wsfev1/service.asmx") if "<ar:%s>" % operation in r["body"]]

    def test_the_registry_answers_and_invoices_take_the_condition_from_it(self):
        with Simulator("--services", "wsfe") as refusing:
            code, _, errors = self.cli(refusing, "padron 30500010912")
            self.assertEqual(code, 2, "a certificate not authorised for the registry: the library's code")
            self.assertIn("not authorised", errors)
        with Simulator() as simulator:
            # A clock WSAA reads three hours ahead: no ticket, and the registry's refusal says so.
            code, _, errors = self.cli(simulator, "padron 30500010912", env={"TZ": "UTC"})
            self.assertEqual(code, 28, errors)
            self.assertIn("WSAA gave no ticket", errors)
            # CUIT, service: exit status, the condition, what the name holds
            cases = {
                ("20111111112", "ws_sr_constancia_inscripcion"): (0, 1, "GOMEZ"),
                ("30500010912", "ws_sr_constancia_inscripcion"): (0, 1, "COMERCIAL DEL PLATA"),
                ("20222222223", "ws_sr_constancia_inscripcion"): (0, 6, "LOPEZ"),
                ("30711111111", "ws_sr_constancia_inscripcion"): (0, 4, "FUNDACION"),
                ("20333333334", "ws_sr_constancia_inscripcion"): (0, 5, "FERNANDEZ"),
                ("20888888889", "ws_sr_constancia_inscripcion"): (27, None, "BAJA"),
                ("20000000001", "ws_sr_constancia_inscripcion"): (26, None, None),
                ("30500010912", "ws_sr_padron_a13"): (0, None, "COMERCIAL DEL PLATA"),
                ("30500010912", "ws_sr_padron_a5"): (65, None, None),
            }
            for (cuit, service), (status, condition, name) in cases.items():
                with self.subTest(cuit=cuit, service=service):
                    url = simulator.url(A5.replace("A5", "A13") if service.endswith("a13") else A5)
                    code, person, errors = self.cli(simulator, "padron " + cuit, "--service", service, url=url)
                    self.assertEqual(code, status, errors)
                    if name is None:
                        self.assertTrue(errors.strip(), "a refusal says why")
                        continue
                    self.assertIn(name, person["name"])
                    self.assertEqual((person["cuit"], person["CondicionIVAReceptorId"]), (int(cuit), condition))

            # "padron", or no condition on a voucher to a CUIT: the registry's, checked against the class.
            registry = simulator.url(A5)
            for sale_id, voucher, status in [
                    ("a-inscripto", dict(FACTURA_A, DocNro=30500010912, CondicionIVAReceptorId="padron"), 0),
                    ("b-no-field", {k: v for k, v in dict(FACTURA_B, DocTipo=80, DocNro=20333333334).items()
                                    if k != "CondicionIVAReceptorId"}, 0),
                    ("a-consumidor", dict(FACTURA_A, DocNro=20333333334, CondicionIVAReceptorId="padron"), 29),
                    ("a-inactive", dict(FACTURA_A, DocNro=20888888889, CondicionIVAReceptorId="padron"), 27)]:
                with self.subTest(sale=sale_id):
                    sent = len(self.wsfe_bodies(simulator, "FECAESolicitar"))
                    code, outcome, errors = self.invoice(simulator, voucher, sale_id, "--registry-url", registry)
                    self.assertEqual(code, status, errors)
                    bodies = self.wsfe_bodies(simulator, "FECAESolicitar")
                    self.assertEqual(len(bodies), sent + (status == 0), "nothing is sent unless the condition fits")
                    if status == 0:
                        self.assertIn("<ar:CondicionIVAReceptorId>%d</ar:CondicionIVAReceptorId>"
                                      % (1 if sale_id == "a-inscripto" else 5), bodies[-1])
            asked = len(simulator.requests(A5))
            code, _, errors = self.invoice(simulator, dict(FACTURA_A, DocNro=30500010912, CondicionIVAReceptorId="padron"),
                                           "a-again", "--registry-url", registry)
            self.assertEqual((code, len(simulator.requests(A5))), (0, asked), "the ledger kept the answer for a day")
            code, _, errors = self.invoice(simulator, dict(FACTURA_A, DocNro=30000000007, CondicionIVAReceptorId="padron"),
                                           "a-unreachable", "--registry-url", "http://127.0.0.1:1/")
            self.assertEqual(code, 14, errors)

    def test_printed_vouchers_read_back(self):
        profile = os.path.join(self.scratch.name, "issuer.json")
        with open(profile, "w") as file:
            json.dump(PROFILE, file)
        voucher = dict(FACTURA_B, receptor={"name": "Martina Peña", "address": "Calle 5 nº 12"},
                       items=[{"description": "Medialunas de manteca", "quantity": 12, "unit_price": 8.25},
                              {"description": "Café con leche", "quantity": 1, "unit_price": 22}])
        with Simulator() as simulator:
            code, outcome, errors = self.invoice(simulator, voucher, "ticket-1")
            self.assertEqual(code, 0, errors)
            wrong = dict(voucher, items=[{"description": "Pan", "quantity": 1, "unit_price": 100}])
            self.assertEqual(self.invoice(simulator, wrong, "ticket-2")[0], 65, "items that do not add up: nothing sent")
        pdf = os.path.join(self.scratch.name, "ticket.pdf")
        for format in ("pdf-a4", "pdf-80mm", "escpos"):
            with self.subTest(format=format):
                code, _, errors = self.cli(None, "receipt", "--sale-id", "ticket-1", "--issuer", profile, "--format",
                                           format, "--out", pdf)
                self.assertEqual(code, 0, errors)
                with open(pdf, "rb") as file:
                    printed = file.read()
                if format == "escpos":  # GS ( k pL pH 49 80 48 and the data: the QR's store command
                    at = printed.index(b"1P0") - 5
                    self.assertEqual(printed[at:at + 3], b"\x1d(k")
                    length = printed[at + 3] + 256 * printed[at + 4]
                    self.assertEqual(printed[at + 8:at + 5 + length].decode(), outcome["qr_url"])
                    continue
                text = subprocess.run(["pdftotext", "-layout", pdf, "-"], capture_output=True, text=True).stdout
                for shown in ("CAE N°", outcome["CAE"], "Martina Peña", "Medialunas de manteca",
                              "%08d" % outcome["CbteNro"], "Ley 27.743"):
                    self.assertIn(shown, text)
                subprocess.run(["pdftoppm", "-r", "150", "-png", "-f", "1", "-l", "1", pdf,
                                os.path.join(self.scratch.name, "page")], check=True)
                page = next(f for f in os.listdir(self.scratch.name) if f.startswith("page"))
                scanned = subprocess.run(["zbarimg", "-q", "--raw", os.path.join(self.scratch.name, page)],
                                         capture_output=True, text=True).stdout.strip()
                os.remove(os.path.join(self.scratch.name, page))
                self.assertEqual(scanned, outcome["qr_url"])
        self.assertEqual(self.cli(None, "receipt", "--sale-id", "nope", "--issuer", profile, "--out", pdf)[0], 25)
        with open(profile, "w") as file:
            json.dump(dict(PROFILE, cuit="20111111113"), file)
        code, _, errors = self.cli(None, "receipt", "--sale-id", "ticket-1", "--issuer", profile, "--out", pdf)
        self.assertEqual(code, 65)
        self.assertIn("cuit", errors)

    def test_a_fortnight_of_contingency(self):
        """Request early, in time and twice; sell while WSFEv1 cannot be reached; inform in time,
        twice, and late."""
        state = os.path.join(self.scratch.name, "simulator.state")
        voucher = dict(FACTURA_B, CbteFch="20260705")
        # day: (command, extra, exit status, what the output holds)
        days = [
            ("2026-06-25", "caea request", ["--period", "202607", "--order", "1"], 20, {}),
            ("2026-06-26", "caea request", ["--period", "202607", "--order", "1"], 0, {"FchTopeInf": "20260723"}),
            ("2026-06-27", "caea request", ["--period", "202607", "--order", "1"], 0, {"FchTopeInf": "20260723"}),
            ("2026-07-05", "sell", ["offline-1"], 30, {"informed": False, "CbteNro": 1, "PtoVta": 7}),
            ("2026-07-05", "sell", ["offline-1"], 30, {"from_ledger": True, "CbteNro": 1}),
            ("2026-07-05", "sell", ["offline-2"], 30, {"CbteNro": 2}),
            ("2026-07-21", "caea status", [], 0, {"FchTopeInf": "20260723", "CbteNro": 1}),
            ("2026-07-21", "caea inform", [], 0, {"informed": ["yes", "yes"]}),
            ("2026-07-22", "caea inform", [], 0, {"informed": []}),
            ("2026-07-05", "sell", ["offline-3"], 30, {"CbteNro": 3}),
            ("2026-07-24", "caea inform", [], 20, {"informed": ["refused"]}),
        ]
        for day, command, extra, status, expected in days:
            with self.subTest(day=day, command=command, extra=extra), \
                    Simulator("--today", day, "--state", state, "--refuse-relogin-seconds", "0") as simulator:
                if command == "sell":
                    code, output, errors = self.invoice(simulator, voucher, extra[0], "--contingency",
                                                        "--caea-point-of-sale", "7", url=UNREACHABLE)
                    if code == 30:
                        payload = json.loads(base64.b64decode(output["qr_url"].split("?p=")[1]))
                        self.assertEqual((payload["tipoCodAut"], str(payload["codAut"])), ("A", output["CAEA"]))
                        self.assertNotIn("CAE", output)
                    without = self.invoice(simulator, voucher, extra[0] + "-plain", url=UNREACHABLE)[0]
                    self.assertEqual(without, 14, "without --contingency, never a CAEA")
                else:
                    code, output, errors = self.cli(simulator, command, *extra)
                self.assertEqual(code, status, errors)
                if command == "caea inform":
                    self.assertEqual([line["informed"] for line in output], expected["informed"])
                    continue
                if command == "caea status":
                    output = output["pending"][0]
                for key, value in expected.items():
                    self.assertEqual(output.get(key), value, key)


if __name__ == "__main__":
    unittest.main()
