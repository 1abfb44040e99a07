#!/usr/bin/env python3
"""Authorises the next Factura B of the samples and prints its number, CAE and QR address.

Usage: invoice.py [WSAA_URL [CERTIFICATE [PASSWORD [SERVICE [SERVICE_URL [SAMPLES]]]]]]

Settings left off come from TARVO_WSAA_URL, TARVO_CERTIFICATE, TARVO_PASSWORD, TARVO_SERVICE,
TARVO_SERVICE_URL and TARVO_SAMPLES (default /usr/share/tarvoafip/samples); TARVO_LIBRARY names the
library. The exit status is 0 approved, 20 rejected, 21 outcome unknown, or the library's result code.
"""
import json
import os
import sys

try:
    import tarvoafip
except ImportError:  # run from the repository without installing the module
    sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "bindings", "python"))
    import tarvoafip
from tarvoafip import invoicing

VARIABLES = ("TARVO_WSAA_URL", "TARVO_CERTIFICATE", "TARVO_PASSWORD", "TARVO_SERVICE", "TARVO_SERVICE_URL",
             "TARVO_SAMPLES")
ISSUER = 20111111112  # the CUIT of the samples' certificate


def main(arguments):
    wsaa_url, certificate, password, service, service_url, samples = (
        arguments[i] if i < len(arguments) else os.environ.get(name, "") for i, name in enumerate(VARIABLES))
    with open(os.path.join(samples or "/usr/share/tarvoafip/samples", "factura_b.json")) as file:
        voucher = json.load(file)  # no CbteNro: the next number; no CbteFch: today

    driver = tarvoafip.Driver()
    driver.set_wsaa(wsaa_url)
    driver.set_credentials(certificate, password)
    driver.set_service(service)
    driver.set_service_url(service_url)
    try:
        outcome = invoicing.authorise(driver, voucher, ISSUER)
    except invoicing.OutcomeUnknown as error:
        print("invoice.py: %s" % error, file=sys.stderr)
        return 21
    except tarvoafip.TarvoAfipError as error:
        print("invoice.py: %s" % error, file=sys.stderr)
        return error.result
    for kind in ("Observaciones", "Errors"):
        for message in outcome[kind]:
            print("%s %d: %s" % (kind, message["Code"], message["Msg"]))
    if outcome["Resultado"] != "A":
        print("invoice.py: AFIP did not approve the voucher", file=sys.stderr)
        return 20
    print("CbteNro %d%s" % (outcome["CbteNro"], " (recovered after a lost answer)" if outcome["recovered"] else ""))
    print("CAE %s due %s" % (outcome["CAE"], outcome["CAEFchVto"]))
    print("QR %s" % outcome["qr_url"])
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
