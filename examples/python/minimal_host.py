#!/usr/bin/env python3
"""The smallest Python host of libtarvoafipdriver: one request, the answer on standard output.

Usage: minimal_host.py [WSAA_URL [CERTIFICATE [PASSWORD [SERVICE [SERVICE_URL [REQUEST_FILE]]]]]]

A setting left off the command line comes from TARVO_WSAA_URL, TARVO_CERTIFICATE, TARVO_PASSWORD,
TARVO_SERVICE, TARVO_SERVICE_URL or TARVO_REQUEST; TARVO_SOAP_ACTION adds a SOAPAction line and
TARVO_LIBRARY names the library (else libtarvoafipdriver.so.1). The exit status is the result code.
"""
import os
import sys

try:
    import tarvoafip
except ImportError:  # run from the repository without installing the module
    sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "bindings", "python"))
    import tarvoafip

VARIABLES = ("TARVO_WSAA_URL", "TARVO_CERTIFICATE", "TARVO_PASSWORD", "TARVO_SERVICE", "TARVO_SERVICE_URL",
             "TARVO_REQUEST")


def main(arguments):
    wsaa_url, certificate, password, service, service_url, request_file = (
        arguments[i] if i < len(arguments) else os.environ.get(name, "") for i, name in enumerate(VARIABLES))
    try:
        with open(request_file, "rb") as file:
            request = file.read()
    except OSError as error:
        print("minimal_host.py: cannot read the request: %s" % error, file=sys.stderr)
        return 66

    driver = tarvoafip.Driver()
    driver.set_wsaa(wsaa_url)
    driver.set_credentials(certificate, password)
    driver.set_service(service)
    driver.set_service_url(service_url)
    if os.environ.get("TARVO_SOAP_ACTION"):
        driver.add_header('SOAPAction: "%s"' % os.environ["TARVO_SOAP_ACTION"])
    try:
        answer = driver.send_soap(request)
    except tarvoafip.TarvoAfipError as error:
        print("minimal_host.py: %s" % error, file=sys.stderr)
        sys.stdout.buffer.write(error.answer)
        return error.result
    sys.stdout.buffer.write(answer + b"\n")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
