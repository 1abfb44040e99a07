"""The example hosts against the simulator: positional arguments, or every setting from TARVO_* variables."""
import os
import sys
import tempfile
import unittest

from harness import LIBRARY, SAMPLES, SOURCE, Simulator, fixture, run

PRELOAD = {"LD_PRELOAD": os.environ["TARVO_PRELOAD"], "ASAN_OPTIONS": "detect_leaks=0"} \
    if os.environ.get("TARVO_PRELOAD") else {}
EXAMPLES = {
    "c": [os.environ["TARVO_C_EXAMPLE"]],
    "python": [sys.executable, os.path.join(SOURCE, "examples", "python", "minimal_host.py")],
}
VARIABLES = ("TARVO_WSAA_URL", "TARVO_CERTIFICATE", "TARVO_PASSWORD", "TARVO_SERVICE", "TARVO_SERVICE_URL",
             "TARVO_REQUEST")


class Examples(unittest.TestCase):
    def test_every_example_completes_both_operations(self):
        with Simulator() as simulator, tempfile.TemporaryDirectory() as work:
            for language, program in EXAMPLES.items():
                settings = [simulator.wsaa(), fixture("signer.p12"), "pw", "wsfe", simulator.wsfe()]
                dummy = run(program + settings + [os.path.join(SAMPLES, "fe_dummy.xml")], cwd=work,
                            env=dict(PRELOAD, TARVO_LIBRARY=LIBRARY))
                self.assertEqual(dummy.returncode, 0, (language, dummy.stderr))
                self.assertIn("FEDummyResponse", dummy.stdout, language)

                settings.append(os.path.join(SAMPLES, "fe_comp_ultimo_autorizado.xml"))
                last = run(program, cwd=work, env=dict(PRELOAD, TARVO_LIBRARY=LIBRARY, **dict(zip(VARIABLES, settings))))
                self.assertEqual(last.returncode, 0, (language, last.stderr))
                self.assertIn("<CbteNro>", last.stdout, language)
                self.assertNotIn("<Errors>", last.stdout, language)
            self.assertEqual(len(simulator.requests("/ws/services/LoginCms")), 1, "the hosts share one ticket")


if __name__ == "__main__":
    unittest.main()
