#!/usr/bin/env python3
"""Authorises the sample Factura B through the invoicing core and prints its number, CAE and QR address.

Usage: invoice.py [WSAA_URL [CERTIFICATE [PASSWORD [SERVICE [SERVICE_URL [SAMPLES]]]]]]

Settings left off come from TARVO_WSAA_URL, TARVO_CERTIFICATE, TARVO_PASSWORD, TARVO_SERVICE,
TARVO_SERVICE_URL and TARVO_SAMPLES (default /usr/share/tarvoafip/samples); TARVO_SALE_ID names the
sale (run again with the same one, it is not authorised twice); TARVO_INVOICING_LIBRARY names the core.
The exit status is the core's result code: 0 approved, 20 rejected, 21 outcome unknown, ...
"""
import json
import os
import sys
import time

try:
    from tarvoafip import invoicing
except ImportError:  # run from the repository without installing the module
    sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "bindings", "python"))
    from tarvoafip import invoicing

VARIABLES = ("TARVO_WSAA_URL", "TARVO_CERTIFICATE", "TARVO_PASSWORD", "TARVO_SERVICE", "TARVO_SERVICE_URL",
             "TARVO_SAMPLES")
ISSUER = 20111111112  # the CUIT of the samples' certificate


def main(arguments):
    wsaa_url, certificate, password, service, service_url, samples = (
        arguments[i] if i < len(arguments) else os.environ.get(name, "") for i, name in enumerate(VARIABLES))
    with open(os.path.join(samples or "/usr/share/tarvoafip/samples", "factura_b.json")) as file:
        voucher = json.load(file)  # no CbteNro: the next number; no CbteFch: today
    # The sale's name: the host's own (a till and ticket number); here one per run unless given.
    sale_id = os.environ.get("TARVO_SALE_ID") or "example-%d-%d" % (time.time(), os.getpid())
    try:
        with invoicing.Invoicing(cuit=ISSUER, wsaa_url=wsaa_url, certificate=certificate, password=password,
                                 service=service or "wsfe", url=service_url) as core:
            outcome = core.authorise(voucher, sale_id)
    except invoicing.InvoicingError as error:
        print("invoice.py: result %d: %s" % (error.code, error), file=sys.stderr)
        return error.code
    except invoicing.TarvoAfipError as error:
        print("invoice.py: result %d: %s" % (error.result, error.message), file=sys.stderr)
        return error.result
    if outcome["Resultado"] != "A":
        print("invoice.py: result 20: %s" % outcome["message"], file=sys.stderr)
        return 20
    print("CbteNro %d" % outcome["CbteNro"])
    print("CAE %s due %s" % (outcome["CAE"], outcome["CAEFchVto"]))
    print("QR %s" % outcome["qr_url"])
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
