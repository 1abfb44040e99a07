"""The example hosts of every language against the simulator: the same positional arguments, or every
setting from TARVO_* variables, and TARVO_SOAP_ACTION."""
import base64
import json
import os
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


def build_examples(scratch, program="minimal_host"):
    """Each example's command line for `program` (minimal_host or invoice); the Pascal and Java ones
    compiled here, the Pascal one twice, the Java one unless under emulation. Free
    Pascal's run-time library deadlocks at exit beside a preloaded sanitizer runtime: a sanitized build
    leaves the Pascal examples to the plain one."""
    library_directory = os.path.dirname(LIBRARY)
    pascal = os.path.join(SOURCE, "examples", "pascal", program + ".pas")
    java_class = {"minimal_host": "MinimalHost", "invoice": "Invoice"}[program]
    examples = {"c": [os.environ["TARVO_C_EXAMPLE" if program == "minimal_host" else "TARVO_C_INVOICE_EXAMPLE"]],
                "python": [sys.executable, os.path.join(SOURCE, "examples", "python", program + ".py")]}
    pascal_variants = () if PRELOAD else (("pascal linked", ["-Fl" + library_directory, "-k-rpath=" + library_directory]),
                                          ("pascal loaded", ["-dTARVO_DYNAMIC"]))
    for variant, flags in pascal_variants:
        output = os.path.join(scratch, program + "-" + variant.replace(" ", "-"))
        os.mkdir(output)
        subprocess.run(["fpc", "-v0", "-Fu" + os.path.join(SOURCE, "bindings", "pascal"), "-FE" + output] + flags +
                       [pascal], check=True, capture_output=True)
        examples[variant] = [os.path.join(output, program)]
    if EMULATION:
        return examples
    classes = os.path.join(scratch, program + "-classes")
    binding = os.path.join(SOURCE, "bindings", "java", "ar", "tarvo", "afip")
    subprocess.run(["javac", "-cp", JNA, "-d", classes, os.path.join(binding, "TarvoAfip.java"),
                    os.path.join(binding, "Invoicing.java"), os.path.join(SOURCE, "examples", "java", java_class + ".java")],
                   check=True, capture_output=True)
    examples["java"] = ["java", "-cp", classes + ":" + JNA, java_class]
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
            settings = [simulator.wsaa(), fixture("signer.p12"), "pw", "wsfe", simulator.wsfe(), SAMPLES]
            for number, (language, program) in enumerate(build_examples(scratch, "invoice").items(), 1):
                work = os.path.join(scratch, "run-" + language.replace(" ", "-"))
                os.mkdir(work)
                result = run(program + settings, cwd=work, env=dict(PRELOAD, TARVO_LIBRARY=LIBRARY))
                self.assertEqual(result.returncode, 0, (language, result.stderr))
                lines = result.stdout.splitlines()
                self.assertEqual(lines[0], "CbteNro %d" % number, language)
                self.assertRegex(lines[1], r"^CAE \d{14} due \d{8}$", language)
                cae = lines[1].split()[1]
                payload = json.loads(base64.b64decode(lines[2].split("https://www.afip.gob.ar/fe/qr/?p=", 1)[1]))
                self.assertEqual((payload["nroCmp"], payload["codAut"], payload["importe"], payload["cuit"]),
                                 (number, int(cae), 121, 20111111112), language)


if __name__ == "__main__":
    unittest.main()
