#include "command_line.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>
#include <sstream>

#include "util/wsfev1.h"

namespace {

// strtol/strtoul accept leading blanks, signs and trailing junk; a number option must be digits only.
long long parse_integer(const std::string& option, const std::string& text, long long lowest, long long highest)
{
    const bool negative = !text.empty() && text[0] == '-';
    const std::string digits = negative ? text.substr(1) : text;
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos)
        throw UsageError(option + " needs a whole number, not '" + text + "'");
    errno = 0;
    const long long value = std::strtoll(text.c_str(), nullptr, 10);
    if (errno == ERANGE || value < lowest || value > highest)
        throw UsageError(option + " value " + text + " is out of range " + std::to_string(lowest) + ".." +
                         std::to_string(highest));
    return value;
}

// AFIP's addresses for each environment: WSAA, then WSFEv1.
struct Environment {
    const char* name;
    const char* wsaa_url;
    const char* service_url;
};
const Environment environments[] = {
    {"homologation", "https://wsaahomo.afip.gov.ar/ws/services/LoginCms", "https://wswhomo.afip.gov.ar/wsfev1/service.asmx"},
    {"production", "https://wsaa.afip.gov.ar/ws/services/LoginCms", "https://servicios1.afip.gov.ar/wsfev1/service.asmx"},
};

} // namespace

CliOptions parse_command_line(int argc, const char* const* argv)
{
    CliOptions options;
    const Environment* environment = nullptr;
    std::string operation;
    int first = 1;
    if (argc > 1 && std::string(argv[1]) == "invoice") {
        options.invoice = true;
        first = 2;
    }
    for (int index = first; index < argc; ++index) {
        std::string name = argv[index];
        std::optional<std::string> attached;
        const size_t equals = name.find('=');
        if (name.rfind("--", 0) == 0 && equals != std::string::npos) {
            attached = name.substr(equals + 1);
            name.erase(equals);
        }

        auto value = [&]() -> std::string {
            if (attached)
                return *attached;
            if (index + 1 >= argc)
                throw UsageError(name + " needs a value");
            return argv[++index];
        };
        auto flag = [&]() {
            if (attached)
                throw UsageError(name + " takes no value");
        };

        if (name == "--library")
            options.library_path = value();
        else if (name == "--wsaa-url")
            options.wsaa_url = value();
        else if (name == "--certificate")
            options.certificate_path = value();
        else if (name == "--password")
            options.certificate_password = value();
        else if (name == "--password-file")
            options.password_file = value();
        else if (name == "--env") {
            const std::string wanted = value();
            environment = nullptr;
            for (const Environment& candidate : environments)
                if (wanted == candidate.name)
                    environment = &candidate;
            if (environment == nullptr)
                throw UsageError("--env takes homologation or production, not '" + wanted + "'");
        }
        else if (name == "--operation" && !options.invoice) {
            operation = value();
            if (!is_wsfev1_operation(operation))
                throw UsageError("--operation takes a WSFEv1 operation such as FECAESolicitar or FEDummy, not '" +
                                 operation + "'");
        }
        else if (name == "--service")
            options.service = value();
        else if (name == "--url")
            options.service_url = value();
        else if (name == "--proxy")
            options.proxy_url = value();
        else if (name == "--proxy-user")
            options.proxy_user = value();
        else if (name == "--proxy-password")
            options.proxy_password = value();
        else if (name == "--tls-level")
            options.tls_level = static_cast<int32_t>(parse_integer(name, value(), 1, 4));
        else if (name == "--timeout-ms")
            options.timeout_ms =
                static_cast<uint32_t>(parse_integer(name, value(), 0, std::numeric_limits<uint32_t>::max()));
        else if (name == "--tls-verify") {
            flag();
            options.tls_verify = true;
        }
        else if (name == "--ca-file")
            options.ca_file = value();
        else if (name == "--header")
            options.headers.push_back(value());
        else if (name == "--request" && !options.invoice)
            options.request_file = value();
        else if (name == "--cuit" && options.invoice)
            options.cuit = parse_integer(name, value(), 1, 99999999999LL);
        else if (name == "--invoice" && options.invoice)
            options.invoice_file = value();
        else if (name == "--qr-png" && options.invoice)
            options.qr_png_file = value();
        else if (name == "--log") {
            flag();
            options.print_log = true;
        }
        else if (name == "--log-file")
            options.log_file = value();
        else if (name == "--version") {
            flag();
            options.show_version = true;
        }
        else if (name == "--help" || name == "-h") {
            flag();
            options.show_help = true;
        }
        else
            throw UsageError("unknown option '" + name + "'" +
                             (options.invoice ? " for invoice" : ""));
    }
    if (options.invoice && !options.show_help && !options.show_version && (!options.cuit || options.invoice_file.empty()))
        throw UsageError("invoice needs --cuit CUIT and --invoice FILE");
    if (environment != nullptr) {
        options.wsaa_url = options.wsaa_url.value_or(environment->wsaa_url);
        options.service_url = options.service_url.value_or(environment->service_url);
    }
    if (!operation.empty())
        options.headers.push_back(wsfev1_soap_action(operation));
    return options;
}

const char* usage_text()
{
    return "Usage: tarvoafip_cli [options] [--request FILE]\n"
           "       tarvoafip_cli invoice [options] --cuit CUIT --invoice FILE [--qr-png FILE]\n"
           "Sends one SOAP request through libtarvoafipdriver and prints the answer; or, with invoice,\n"
           "authorises one voucher given as JSON with WSFEv1's field names and prints the outcome as JSON.\n"
           "\n"
           "  --library PATH          the shared library (default: TARVO_LIBRARY, else the one built next\n"
           "                          to this program, else libtarvoafipdriver.so.1 from the system)\n"
           "  --env ENVIRONMENT       homologation or production: AFIP's WSAA and WSFEv1 addresses\n"
           "                          (--wsaa-url and --url still win)\n"
           "  --wsaa-url URL          WSAA loginCms address                      (SetWSAA)\n"
           "  --certificate PATH      PKCS#12 certificate file                   (SetWSAACredentials)\n"
           "  --password PASS         its password (visible to other users in ps; prefer the next two)\n"
           "  --password-file FILE    the password from the file's first line\n"
           "                          (else the TARVO_PASSWORD environment variable) (SetWSAACredentials)\n"
           "  --service NAME          WSAA service name, e.g. wsfe               (SetWSAAService)\n"
           "  --url URL               business web-service address               (SetWSUrl)\n"
           "  --proxy URL             proxy address                              (SetWebProxy)\n"
           "  --proxy-user NAME       proxy user name                            (SetWebProxy)\n"
           "  --proxy-password PASS   proxy password                             (SetWebProxy)\n"
           "  --tls-level N           1 TLS 1.0, 2 TLS 1.1, 3 TLS 1.2, 4 TLS 1.3  (SetSecurity)\n"
           "  --tls-verify            verify the servers' certificates and host names (TARVO_TLS_VERIFY=1)\n"
           "  --ca-file FILE          verify against the PEM certificates in FILE rather than the\n"
           "                          system's store (TARVO_CA_FILE); implies --tls-verify\n"
           "  --timeout-ms N          whole-transfer time-out, 0 none            (SetTimeOut)\n"
           "  --header LINE           extra HTTP header \"Name: value\"; repeatable (AddSOAPHeader)\n"
           "  --operation NAME        adds the SOAPAction line of a WSFEv1 operation, e.g. FECAESolicitar\n"
           "  --request FILE          the SOAP request; '-' or absent: standard input, which must not be\n"
           "                          a terminal unless '-' is given\n"
           "  --cuit CUIT             invoice: the issuer, sent in Auth/Cuit\n"
           "  --invoice FILE          invoice: the voucher as a JSON object; '-': standard input\n"
           "  --qr-png FILE           invoice: also write AFIP's QR code of the voucher as a PNG image\n"
           "  --log                   print the transfer log on standard error after the answer\n"
           "                          (invoice: the log of its last request)\n"
           "  --log-file FILE         write the transfer log to FILE, readable by its owner only: it\n"
           "                          holds the live token and sign\n"
           "  --version               print the library's version\n"
           "  --help                  print this text\n"
           "\n"
           "The answer goes to standard output. The exit status is the library's result code\n"
           "(0 success, 1-17 see the library's header), or 64 bad usage, 66 unreadable request,\n"
           "invoice: 0 approved, 20 rejected by AFIP, 21 outcome unknown, 65 bad invoice file,\n"
           "73 QR image not writable, 1-17 the exchange failed before AFIP decided; also:\n"
           "69 library not loadable, 70 answer or log not readable, 74 log file not writable.\n"
           "credentials.json (the ticket cache) is read and written in the working directory,\n"
           "which must be writable: otherwise every run logs in again and WSAA refuses the second.\n"
           "Run with TZ=America/Argentina/Buenos_Aires: WSAA reads ticket times as Argentina's time.\n"
           "The library writes the ticket only into elements named exactly ar:Token/token and\n"
           "ar:Sign/sign; a warning says when the request has none.\n";
}

bool read_file_or_input(const std::string& file, std::string& text)
{
    if (file == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
        return !std::cin.bad();
    }
    std::ifstream input(file, std::ios::binary);
    if (!input)
        return false;
    std::ostringstream content;
    content << input.rdbuf();
    text = content.str();
    return !input.bad();
}
