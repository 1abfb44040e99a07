#!/usr/bin/env python3
"""The smallest Python host of libtarvoafipdriver (ctypes); one SendSOAP, answer on standard output.

Usage: minimal_host.py [--library PATH] [WSAA_URL [CERTIFICATE [PASSWORD [SERVICE [SERVICE_URL [REQUEST_FILE]]]]]]

The library path comes from --library or TARVO_LIBRARY. A setting left off the command line is
read from the environment: TARVO_WSAA_URL, TARVO_CERTIFICATE, TARVO_PASSWORD, TARVO_SERVICE,
TARVO_SERVICE_URL, TARVO_REQUEST. The exit status is the library's result code.
"""
import argparse
import ctypes
import os
import sys

SETTINGS = [
    ("wsaa_url", "TARVO_WSAA_URL"),
    ("certificate", "TARVO_CERTIFICATE"),
    ("password", "TARVO_PASSWORD"),
    ("service", "TARVO_SERVICE"),
    ("service_url", "TARVO_SERVICE_URL"),
    ("request_file", "TARVO_REQUEST"),
]


def load_driver(path):
    driver = ctypes.CDLL(path)
    # Declared types: without them ctypes would pass Python ints as C int and guess the results.
    text_setters = {"SetWSAA": 1, "SetWSAACredentials": 2, "SetWSAAService": 1, "SetWSUrl": 1}
    for name, count in text_setters.items():
        function = getattr(driver, name)
        function.argtypes = [ctypes.c_char_p] * count
        function.restype = None
    driver.GetAFIPVersion.argtypes = [ctypes.c_char_p]
    driver.GetAFIPVersion.restype = None
    driver.SendSOAP.argtypes = [ctypes.c_char_p]
    driver.SendSOAP.restype = ctypes.c_int32
    driver.ReceivedSOAP.argtypes = [ctypes.c_char_p, ctypes.c_uint32, ctypes.POINTER(ctypes.c_uint32)]
    driver.ReceivedSOAP.restype = ctypes.c_int32
    return driver


def received_soap(driver):
    """The buffer protocol: size query with NULL, allocate, copy exactly that size, terminate."""
    size = ctypes.c_uint32(0)
    result = driver.ReceivedSOAP(None, 0, ctypes.byref(size))
    if result != 0:
        raise RuntimeError("size query failed with result %d" % result)
    # One byte more than the data for the terminator that the library does not write.
    buffer = ctypes.create_string_buffer(size.value + 1)
    copied = ctypes.c_uint32(0)
    if size.value > 0:  # a zero length would only ask for the size again
        result = driver.ReceivedSOAP(buffer, size.value, ctypes.byref(copied))
        if result != 0:
            raise RuntimeError("copy failed with result %d" % result)
    buffer[size.value] = b"\0"
    # The data may hold NUL bytes: slice by the reported size, never by the terminator.
    return buffer.raw[: size.value]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--library", default=os.environ.get("TARVO_LIBRARY"))
    for name, variable in SETTINGS:
        parser.add_argument(name, nargs="?", default=os.environ.get(variable, ""))
    arguments = parser.parse_args()
    if not arguments.library:
        parser.error("give --library or set TARVO_LIBRARY")

    try:
        with open(arguments.request_file, "rb") as request_file:
            request = request_file.read()
    except OSError as error:
        print("minimal_host.py: cannot read the request file: %s" % error, file=sys.stderr)
        return 66

    driver = load_driver(arguments.library)
    version = ctypes.create_string_buffer(6)
    driver.GetAFIPVersion(version)
    print("minimal_host.py: libtarvoafipdriver %s" % version.value.decode(), file=sys.stderr)

    driver.SetWSAA(arguments.wsaa_url.encode())
    driver.SetWSAACredentials(arguments.certificate.encode(), arguments.password.encode())
    driver.SetWSAAService(arguments.service.encode())
    driver.SetWSUrl(arguments.service_url.encode())

    result = driver.SendSOAP(request)
    answer = received_soap(driver)
    sys.stdout.buffer.write(answer + b"\n")
    sys.stdout.flush()
    if result != 0:
        print("minimal_host.py: result %d" % result, file=sys.stderr)
    return result


if __name__ == "__main__":
    sys.exit(main())
