"""The example hosts of every language against the simulator: the same positional arguments, or every
setting from TARVO_* variables, and TARVO_SOAP_ACTION."""
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
FEV1 = "http://ar.gov.afip.dif.FEV1/"


def build_examples(scratch):
    """Each example's command line; the Pascal and Java ones compiled here, the Pascal one twice. Free
    Pascal's run-time library deadlocks at exit beside a preloaded sanitizer runtime: a sanitized build
    leaves the Pascal examples to the plain one."""
    library_directory = os.path.dirname(LIBRARY)
    pascal = os.path.join(SOURCE, "examples", "pascal", "minimal_host.pas")
    examples = {"c": [os.environ["TARVO_C_EXAMPLE"]],
                "python": [sys.executable, os.path.join(SOURCE, "examples", "python", "minimal_host.py")]}
    pascal_variants = () if PRELOAD else (("pascal linked", ["-Fl" + library_directory, "-k-rpath=" + library_directory]),
                                          ("pascal loaded", ["-dTARVO_DYNAMIC"]))
    for variant, flags in pascal_variants:
        output = os.path.join(scratch, variant.replace(" ", "-"))
        os.mkdir(output)
        subprocess.run(["fpc", "-v0", "-Fu" + os.path.join(SOURCE, "bindings", "pascal"), "-FE" + output] + flags +
                       [pascal], check=True, capture_output=True)
        examples[variant] = [os.path.join(output, "minimal_host")]
    classes = os.path.join(scratch, "classes")
    subprocess.run(["javac", "-cp", JNA, "-d", classes, os.path.join(SOURCE, "bindings", "java", "ar", "tarvo", "afip",
                                                                      "TarvoAfip.java"),
                    os.path.join(SOURCE, "examples", "java", "MinimalHost.java")], check=True, capture_output=True)
    examples["java"] = ["java", "-cp", classes + ":" + JNA, "MinimalHost"]
    return examples


class Examples(unittest.TestCase):
    def test_every_example_completes_both_operations(self):
        with Simulator("--refuse-relogin-seconds", "0") as simulator, tempfile.TemporaryDirectory() as scratch:
            for language, program in build_examples(scratch).items():
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
            self.assertEqual(sum(["SOAPAction", '"%sFEDummy"' % FEV1] in headers for headers in actions), 3 if PRELOAD else 5)


if __name__ == "__main__":
    unittest.main()
