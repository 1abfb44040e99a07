"""The example hosts of every language against the simulator: the same positional arguments, or every
setting from TARVO_* variables, and TARVO_SOAP_ACTION."""
import base64
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

from harness import LIBRARY, SAMPLES, SOURCE, Simulator, fixture, run

PRELOAD = {"LD_PRELOAD": os.environ["TARVO_PRELOAD"], "ASAN_OPTIONS": "detect_leaks=0"} \
    if os.environ.get("TARVO_PRELOAD") else {}
VARIABLES = ("TARVO_WSAA_URL", "TARVO_CERTIFICATE", "TARVO_PASSWORD", "TARVO_SERVICE", "TARVO_SERVICE_URL",
             "TARVO_REQUEST")
JNA = "/usr/share/java/jna.jar"
EMULATION = os.environ.get("TARVO_I386_EMULATION")
FEV1 = "http://ar.gov.afip.dif.FEV1/"
LIBRARIES = {"TARVO_LIBRARY": LIBRARY, "TARVO_INVOICING_LIBRARY": os.environ["TARVO_INVOICING_LIBRARY"]}
QR = "https://www.afip.gob.ar/fe/qr/?p="
ISSUER = {"name": "Panadería La Señora S.R.L.", "address": "Av. Corrientes 1234, CABA", "cuit": "30-50001091-2",
          "iibb": "901-123456-7", "activities_start": "2020-03-01", "vat_condition": 1}


def compile_pascal(scratch, source, variant):
    """`source` compiled into its own folder: linked against the build's libraries, or (loaded) with
    -dTARVO_DYNAMIC; the program's path."""
    library_directory = os.path.dirname(LIBRARY)
    flags = {"pascal linked": ["-Fl" + library_directory, "-k-rpath=" + library_directory],
             "pascal loaded": ["-dTARVO_DYNAMIC"]}[variant]
    name = os.path.splitext(os.path.basename(source))[0]
    output = os.path.join(scratch, name + "-" + variant.replace(" ", "-"))
    os.mkdir(output)
    subprocess.run(["fpc", "-v0", "-Fu" + os.path.join(SOURCE, "bindings", "pascal"), "-FE" + output] + flags + [source],
                   check=True, capture_output=True)
    return [os.path.join(output, name)]


def compile_java(scratch, source):
    """`source` compiled with the binding's classes; the command that runs it."""
    classes = os.path.join(scratch, os.path.basename(source) + "-classes")
    binding = os.path.join(SOURCE, "bindings", "java", "ar", "tarvo", "afip")
    subprocess.run(["javac", "-cp", JNA, "-d", classes, os.path.join(binding, "TarvoAfip.java"),
                    os.path.join(binding, "Invoicing.java"), source], check=True, capture_output=True)
    return ["java", "-cp", classes + ":" + JNA, os.path.splitext(os.path.basename(source))[0]]


def build_examples(scratch, program="minimal_host"):
    """Each example's command line for `program` (minimal_host or invoice); the Pascal and Java ones
    compiled here, the Pascal one twice, the Java one unless under emulation. Free
    Pascal's run-time library deadlocks at exit beside a preloaded sanitizer runtime: a sanitized build
    leaves the Pascal examples to the plain one."""
    java_class = {"minimal_host": "MinimalHost", "invoice": "Invoice"}[program]
    examples = {"c": [os.environ["TARVO_C_EXAMPLE" if program == "minimal_host" else "TARVO_C_INVOICE_EXAMPLE"]],
                "python": [sys.executable, os.path.join(SOURCE, "examples", "python", program + ".py")]}
    for variant in () if PRELOAD else ("pascal linked", "pascal loaded"):
        examples[variant] = compile_pascal(scratch, os.path.join(SOURCE, "examples", "pascal", program + ".pas"), variant)
    if not EMULATION:
        examples["java"] = compile_java(scratch, os.path.join(SOURCE, "examples", "java", java_class + ".java"))
    return examples


class Examples(unittest.TestCase):
    if EMULATION:
        def test_java_example(self):
            self.skipTest("not runnable under %s: the 32-bit Java VM aborts (SIGABRT) under user-mode emulation; "
                          "the Java examples (minimal host and invoice) run on amd64 and where 32-bit x86 code runs "
                          "natively" % EMULATION)

    def test_every_example_completes_both_operations(self):
        with Simulator("--refuse-relogin-seconds", "0") as simulator, tempfile.TemporaryDirectory() as scratch:
            examples = build_examples(scratch)
            for language, program in examples.items():
                work = os.path.join(scratch, "run-" + language.replace(" ", "-"))
                os.mkdir(work)
                settings = [simulator.wsaa(), fixture("signer.p12"), "pw", "wsfe", simulator.wsfe()]
                dummy = run(program + settings + [os.path.join(SAMPLES, "fe_dummy.xml")], cwd=work,
                            env=dict(PRELOAD, TARVO_LIBRARY=LIBRARY, TARVO_SOAP_ACTION=FEV1 + "FEDummy"))
                self.assertEqual(dummy.returncode, 0, (language, dummy.stderr))
                self.assertIn("FEDummyResponse", dummy.stdout, language)

                settings.append(os.path.join(SAMPLES, "fe_comp_ultimo_autorizado.xml"))
                last = run(program, cwd=work, env=dict(PRELOAD, TARVO_LIBRARY=LIBRARY, **dict(zip(VARIABLES, settings))))
                self.assertEqual(last.returncode, 0, (language, last.stderr))
                self.assertIn("<CbteNro>", last.stdout, language)
                self.assertNotIn("<Errors>", last.stdout, language)

                # A failure comes back as the result code, through each language's own error.
                refused = run(program + settings[:4] + ["http://127.0.0.1:1/", settings[5]], cwd=work,
                              env=dict(PRELOAD, TARVO_LIBRARY=LIBRARY))
                self.assertEqual(refused.returncode, 14, (language, refused.stderr))
            actions = [r["headers"] for r in simulator.requests("/wsfev1/service.asmx")]
            self.assertEqual(sum(["SOAPAction", '"%sFEDummy"' % FEV1] in headers for headers in actions), len(examples))

    def test_every_invoice_example_prints_its_cae_and_qr_address(self):
        with Simulator("--refuse-relogin-seconds", "0") as simulator, tempfile.TemporaryDirectory() as scratch:
            # A certificate whose name the examples must escape in the settings' JSON.
            certificate = os.path.join(scratch, 'signer "quoted" \\ name.p12')
            shutil.copy(fixture("signer.p12"), certificate)
            settings = [simulator.wsaa(), certificate, "pw", "wsfe", simulator.wsfe(), SAMPLES]
            for number, (language, program) in enumerate(build_examples(scratch, "invoice").items(), 1):
                work = os.path.join(scratch, "run-" + language.replace(" ", "-"))
                os.mkdir(work)
                result = run(program + settings, cwd=work, env=dict(PRELOAD, **LIBRARIES))
                self.assertEqual(result.returncode, 0, (language, result.stderr))
                lines = result.stdout.splitlines()
                self.assertEqual(lines[0], "CbteNro %d" % number, language)
                self.assertRegex(lines[1], r"^CAE \d{14} due \d{8}$", language)
                cae = lines[1].split()[1]
                payload = json.loads(base64.b64decode(lines[2].split(QR, 1)[1]))
                self.assertEqual((payload["nroCmp"], payload["codAut"], payload["importe"], payload["cuit"]),
                                 (number, int(cae), 121, 20111111112), language)

    def test_each_binding_hands_over_the_cores_results_codes_and_messages(self):
        """What the invoice examples leave out, through each binding's own class: every function, the
        code and the core's message of a failure, the outcome a failure still carries, and a printed
        voucher's bytes whole (its NULs included)."""
        with open(os.path.join(SAMPLES, "factura_b.json")) as file:
            voucher = json.load(file)
        sale = lambda sale_id, **changes: json.dumps(dict(voucher, sale_id=sale_id, **changes))
        receipt = lambda sale_id, format: json.dumps({"sale_id": sale_id, "issuer": ISSUER, "format": format})
        rejected_answer = "<FECAESolicitarResult><FeCabResp><Resultado>R</Resultado></FeCabResp></FECAESolicitarResult>"
        qr_voucher = {"fecha": "20240102", "cuit": 20111111112, "ptoVta": 1, "tipoCmp": 6, "nroCmp": 7, "importe": "1.5",
                      "tipoDocRec": 99, "nroDocRec": 0, "codAut": "12345678901234"}
        with tempfile.TemporaryDirectory() as scratch, Simulator("--refuse-relogin-seconds", "0") as simulator:
            png = os.path.join(scratch, "qr.png")
            cases = (  # action, argument, code, what its line holds (code, message and output, tab-separated)
                ("batch", "[%s,%s]" % (sale("b1"), sale("b2")), 0, '"sale_id":"b2","Resultado":"A"'),
                ("batch", "{}", 65, "must be a JSON list\t"),
                ("authorise", sale("b1", ImpTotal=122), 22, "b1 belongs to another voucher"),
                ("authorise", sale("r1", ImpTotal=122), 20, '\tAFIP rejected the voucher\t{"sale_id":"r1","Resultado":"R"'),
                ("log", "", 0, "FECAESolicitar"),
                ("list", "", 0, '"sale_id":"r1","state":"rejected"'),
                ("list", '{"point_of_sale":2}', 0, "\t\t[]"),
                ("show", "b2", 0, '"sale_id":"b2","state":"approved"'),
                ("show", "nope", 25, "no sale 'nope'\t"),
                ("read", rejected_answer, 0, '"Resultado":"R"'),
                ("read", "no xml", 65, "no FECAESolicitarResult\t"),
                ("qr", json.dumps(qr_voucher), 0, "\t\t" + QR),
                ("qr", "{}", 65, "fecha"),
                ("png", os.path.join(scratch, "none", "qr.png"), 73, scratch),
                ("png", png, 0, "\t\t"),
                ("lookup", '{"cuit":30500010912}', 0, '"CondicionIVAReceptorId":1'),
                ("lookup", '{"cuit":20888888889}', 27, '"key_state":"INACTIVO"'),
                # The bytes in hexadecimal, whole to their end: NULs come early in both.
                ("receipt", receipt("b2", "pdf-a4"), 0, ("\t\t" + b"%PDF".hex(), b"%%EOF\n".hex() + "\n")),
                ("receipt", receipt("b2", "escpos"), 0, (b"\x1d(k".hex(), b"\x1dVB\x00".hex() + "\n")),
                ("receipt", receipt("nope", "escpos"), 25, "nope"),
                ("caea", '{"action":"show"}', 0, "\t\t[]"),
                ("caea", '{"action":"request"}', 0, '\t\t{"CAEA":"'),
                ("caea", '{"action":"bogus"}', 65, "bogus"))
            settings = {"cuit": 20111111112, "wsaa_url": simulator.wsaa(), "certificate": fixture("signer.p12"),
                        "password": "pw", "url": simulator.wsfe(),
                        "registry_url": simulator.url("/sr-padron/webservices/personaServiceA5")}
            # Then WSFEv1 out of reach: the sale goes out under that CAEA, and informing it fails; both
            # failures carry what the core has to say of the sale.
            offline = (dict(settings, url="http://127.0.0.1:1/wsfev1/service.asmx", contingency=True),
                       (("authorise", sale("c1"), 30, ('"sale_id":"c1","Resultado":"A"', '"informed":false')),
                        ("caea", '{"action":"inform"}', 14, '[ {"sale_id":"c1"')))
            probes = {variant: compile_pascal(scratch, os.path.join(SOURCE, "tests", "tools", "invoicing_probe.pas"), variant)
                      for variant in (() if PRELOAD else ("pascal linked", "pascal loaded"))}
            if not EMULATION:
                probes["java"] = compile_java(scratch, os.path.join(SOURCE, "tests", "tools", "InvoicingProbe.java"))
            if not probes:
                self.skipTest("no binding runs here: Pascal beside a preloaded sanitizer, Java under emulation")
            for language, probe in probes.items():
                work = os.path.join(scratch, "run-" + language.replace(" ", "-"))
                os.mkdir(work)
                refused = run(probe + ['{"bogus": 1}'], cwd=work, env=dict(PRELOAD, **LIBRARIES))
                self.assertEqual(refused.stdout, "65\tunknown setting 'bogus'\t\n", (language, refused.stderr))
                for run_settings, run_cases in ((settings, cases), offline):
                    arguments = [word for action, argument, _, _ in run_cases for word in (action, argument)]
                    result = run(probe + [json.dumps(run_settings)] + arguments, cwd=work,
                                 env=dict(PRELOAD, **LIBRARIES))
                    lines = result.stdout.splitlines(keepends=True)
                    self.assertEqual(len(lines), len(run_cases), (language, result.stdout, result.stderr))
                    for (action, argument, code, holds), line in zip(run_cases, lines):
                        self.assertEqual(line.split("\t")[0], str(code), (language, action, line))
                        for piece in holds if isinstance(holds, tuple) else (holds,):
                            self.assertIn(piece, line, (language, action))
                with open(png, "rb") as image:
                    self.assertEqual(image.read(8), b"\x89PNG\r\n\x1a\n", language)
                os.remove(png)


if __name__ == "__main__":
    unittest.main()
