"""Authorising vouchers against the simulator, through tarvoafip_cli invoice and through the Python module,
which take the same options and give the same output and exit statuses."""
import base64
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

from harness import CLI, SAMPLES, SOURCE, Simulator, fixture, run

CUIT = 20111111112
SERVICE = "/wsfev1/service.asmx"
HOSTS = {"cli": [CLI, "invoice"], "python": [sys.executable, "-m", "tarvoafip.invoicing"]}
ENVIRONMENT = {"PYTHONPATH": os.path.join(SOURCE, "bindings", "python")}
if os.environ.get("TARVO_PRELOAD"):
    ENVIRONMENT.update(LD_PRELOAD=os.environ["TARVO_PRELOAD"], ASAN_OPTIONS="detect_leaks=0")
with open(os.path.join(SAMPLES, "factura_b.json")) as sample:
    FACTURA_B = json.load(sample)
STALE_LAST = ('<soap:Envelope xmlns:soap="http://schemas.xmlsoap.org/soap/envelope/"><soap:Body>'
              '<FECompUltimoAutorizadoResponse xmlns="http://ar.gov.afip.dif.FEV1/"><FECompUltimoAutorizadoResult>'
              '<PtoVta>%d</PtoVta><CbteTipo>6</CbteTipo><CbteNro>0</CbteNro></FECompUltimoAutorizadoResult>'
              '</FECompUltimoAutorizadoResponse></soap:Body></soap:Envelope>')
LOST = dict(operation="FECAESolicitar", cut_after=0)
ANNOUNCEMENT = "IMPORTANTE: un anuncio"
WITH_TAX = dict(ImpTotal=126, ImpTrib=5, Tributos=[{"Id": 99, "Desc": "Percepción <IIBB> & co", "BaseImp": 100,
                                                   "Alic": 5, "Importe": 5}])


class Invoicing(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory()
        cls.simulator = Simulator("--refuse-relogin-seconds", "0", "--event", "41:" + ANNOUNCEMENT)
        cls.point_of_sale = 100

    @classmethod
    def tearDownClass(cls):
        cls.simulator.stop()
        cls.scratch.cleanup()

    def invoice(self, host, voucher, *extra, cwd=None, path=None, input=None):
        """(exit status, output object or None, standard error) of one voucher, written to a file unless
        `path` is given."""
        if path is None:
            path = os.path.join(self.scratch.name, "voucher.json")
            with open(path, "w") as file:
                file.write(voucher if isinstance(voucher, str) else json.dumps(voucher))
        result = run(HOSTS[host] + ["--wsaa-url", self.simulator.wsaa(), "--certificate", fixture("signer.p12"),
                                    "--password", "pw", "--service", "wsfe", "--url", self.simulator.wsfe(),
                                    "--cuit", str(CUIT), "--invoice", path, *extra],
                     env=ENVIRONMENT, cwd=cwd or self.scratch.name, input=input)
        return result.returncode, json.loads(result.stdout) if result.stdout.strip() else None, result.stderr

    def sent(self, point_of_sale, operation="FECAESolicitar"):
        """The requests of that operation for that point of sale."""
        return [r for r in self.simulator.requests(SERVICE)
                if "<ar:%s>" % operation in r["body"] and "<ar:PtoVta>%d</ar:PtoVta>" % point_of_sale in r["body"]]

    def test_outcomes_and_recovery(self):
        other = dict(FACTURA_B, DocTipo=96, DocNro=30111222)
        # name: (answers queued, a voucher authorised first, changes, exit, Resultado or (R, the code that
        # rejected it), CbteNro, recovered, sends)
        cases = {
            "approved": ([], None, WITH_TAX, 0, "A", 1, False, 1),
            "rejected with observations": ([], None, {"ImpTotal": 100}, 20, ("R", 10048), 1, False, 1),
            "number given and wrong": ([], None, {"CbteNro": 5}, 20, ("R", 10016), 5, False, 1),
            "lost but authorised": ([dict(operation="FECAESolicitar", process=1, cut_after=40)], None, {}, 0, "A", 1,
                                    True, 1),
            "lost and not authorised": ([LOST], None, {}, 0, "A", 1, False, 2),
            "number taken meanwhile": ([dict(operation="FECompUltimoAutorizado", body=STALE_LAST), LOST], other, {},
                                       0, "A", 2, False, 2),
            "lost for good": ([LOST] + [dict(operation="FECompConsultar", cut_after=0)] * 3, None, {}, 21, None, None,
                              None, 1),
            "last number lost": ([dict(operation="FECompUltimoAutorizado", cut_after=0)], None, {}, 14, None, None,
                                 None, 0),
        }
        for host in HOSTS:
            for name, (answers, first, changes, status, outcome, number, recovered, sends) in cases.items():
                with self.subTest(host=host, case=name):
                    Invoicing.point_of_sale += 1
                    voucher = dict(FACTURA_B, PtoVta=self.point_of_sale, **changes)
                    if first:
                        self.assertEqual(self.invoice(host, dict(first, PtoVta=self.point_of_sale))[0], 0)
                    for answer in answers:
                        answer = dict(answer)
                        body = answer.pop("body", "%d") % self.point_of_sale if "body" in answer else ""
                        self.simulator.answer(SERVICE, body.encode(), **answer)
                    image = os.path.join(self.scratch.name, "stale.png")
                    with open(image, "w") as stale:
                        stale.write("the image of an earlier voucher")
                    code, output, errors = self.invoice(host, voucher, "--qr-png", image)
                    self.assertEqual(code, status, errors)
                    self.assertEqual(os.path.exists(image), status == 0, "only an approved voucher leaves an image")
                    self.assertEqual(len(self.sent(self.point_of_sale)), sends + bool(first))
                    if changes is WITH_TAX:
                        self.assertIn("<ar:Desc>Percepción &lt;IIBB&gt; &amp; co</ar:Desc>",
                                      self.sent(self.point_of_sale)[0]["body"])
                    self.assertEqual(status == 21, "unknown" in errors, errors)
                    if outcome is None:
                        continue
                    self.assertEqual((output["Resultado"], output["CbteNro"], output["recovered"]),
                                     (outcome[0], number, recovered))
                    if outcome[0] == "R":
                        self.assertIn(outcome[1], [m["Code"] for m in output["Observaciones"] + output["Errors"]])
                        self.assertIsNone(output["qr_url"])
                        self.assertIn("rejected", errors)
                        continue
                    if not recovered:
                        self.assertEqual(output["Events"], [{"Code": 41, "Msg": ANNOUNCEMENT}])
                    self.assertRegex(output["CAE"], r"^\d{14}$")
                    self.assertRegex(output["CAEFchVto"], r"^\d{8}$")
                    # Exactly one voucher holds the number: the next invoice takes the one after it.
                    following = self.invoice(host, voucher)[1]
                    self.assertEqual((following["CbteNro"], following["recovered"]), (number + 1, False))

    def test_qr_code_wire_form_and_a_failure_before_afip(self):
        for host in HOSTS:
            with self.subTest(host=host):
                Invoicing.point_of_sale += 1
                image = os.path.join(self.scratch.name, host + ".png")
                voucher = dict(FACTURA_B, PtoVta=self.point_of_sale, DocTipo=80, DocNro=20333333334, ImpTotal=121.004)
                header = ("--header", "X-Till: 7") if host == "cli" else ()
                code, output, errors = self.invoice(host, voucher, "--qr-png", image, *header)
                self.assertEqual(code, 0, errors)
                sent = self.sent(self.point_of_sale, "FECompUltimoAutorizado") + self.sent(self.point_of_sale)
                self.assertEqual([["X-Till", "7"] in r["headers"] for r in sent], [bool(header)] * 2)
                body = sent[1]["body"]
                self.assertIn("<ar:DocNro>20333333334</ar:DocNro>", body, "DocNro is 64-bit")
                self.assertIn("<ar:ImpTotal>121.00</ar:ImpTotal>", body)
                address, payload = output["qr_url"].split("?p=")
                self.assertEqual(address, "https://www.afip.gob.ar/fe/qr/")
                date = output["CbteFch"]
                expected = {"ver": 1, "fecha": "%s-%s-%s" % (date[:4], date[4:6], date[6:]), "cuit": CUIT,
                            "ptoVta": self.point_of_sale, "tipoCmp": 6, "nroCmp": output["CbteNro"], "importe": 121,
                            "moneda": "PES", "ctz": 1, "tipoDocRec": 80, "nroDocRec": 20333333334, "tipoCodAut": "E",
                            "codAut": int(output["CAE"])}
                decoded = json.loads(base64.b64decode(payload, validate=True))
                self.assertEqual(list(decoded.items()), list(expected.items()))
                if shutil.which("zbarimg"):
                    scanned = subprocess.run(["zbarimg", "-q", "--raw", image], capture_output=True, text=True)
                    self.assertEqual(scanned.stdout.strip(), output["qr_url"])

                no_wsaa = self.invoice(host, voucher, "--wsaa-url", "")
                self.assertEqual(no_wsaa[0], 7, "a failure before AFIP decides comes back as the library's result code")

    def test_bad_invoice_files_send_nothing(self):
        cases = [("not JSON", "{", "not JSON"), ("a list", "[]", "must be an object"),
                 ("DocNro as text", dict(FACTURA_B, DocNro="20"), "DocNro must be a whole number"),
                 ("no total", {k: v for k, v in FACTURA_B.items() if k != "ImpTotal"}, "ImpTotal is required"),
                 ("misspelt", dict(FACTURA_B, ImpIva=21), "ImpIva is not a field"),
                 ("rate without amount", dict(FACTURA_B, Iva=[{"Id": 5, "BaseImp": 100}]), "Iva[0].Importe"),
                 ("date with dashes", dict(FACTURA_B, CbteFch="2026-11-23"), "CbteFch must be a date"),
                 ("32-bit field too large", dict(FACTURA_B, PtoVta=2 ** 31), "PtoVta is out of range"),
                 ("negative number", dict(FACTURA_B, CbteNro=-1), "CbteNro is out of range")]
        before = len(self.simulator.requests(SERVICE))
        for host in HOSTS:
            for name, voucher, message in cases:
                with self.subTest(host=host, case=name):
                    code, output, errors = self.invoice(host, voucher)
                    self.assertEqual((code, output), (65, None), errors)
                    self.assertIn("bad invoice file", errors)
                    self.assertIn(message, errors)
            from_input = self.invoice(host, None, path="-", input="[]")
            self.assertEqual((from_input[0], "must be an object" in from_input[2]), (65, True), "standard input")
            self.assertEqual(self.invoice(host, None, path=os.path.join(self.scratch.name, "missing"))[0], 66)
        self.assertEqual(len(self.simulator.requests(SERVICE)), before)


if __name__ == "__main__":
    unittest.main()
