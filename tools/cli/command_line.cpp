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

#include "util/afip_environments.h"
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

// Which commands take an option.
constexpr unsigned for_request = 1u << static_cast<unsigned>(Command::request);
constexpr unsigned for_invoice = 1u << static_cast<unsigned>(Command::invoice);
constexpr unsigned for_list = 1u << static_cast<unsigned>(Command::ledger_list);
constexpr unsigned for_show = 1u << static_cast<unsigned>(Command::ledger_show);
constexpr unsigned for_padron = 1u << static_cast<unsigned>(Command::padron);
constexpr unsigned for_receipt = 1u << static_cast<unsigned>(Command::receipt);
constexpr unsigned for_caea = 1u << static_cast<unsigned>(Command::caea);
constexpr unsigned for_afip = for_request | for_invoice | for_padron | for_caea;
constexpr unsigned for_ledger = for_invoice | for_list | for_show | for_padron | for_receipt | for_caea;
constexpr unsigned for_all = for_afip | for_list | for_show | for_receipt;

// What parsing keeps beside the options themselves.
struct ParseState {
    const AfipEnvironment* environment = nullptr;
    std::string operation;
};

// One option: its name, whether it takes a value, the commands it belongs to and what it sets.
struct OptionRule {
    const char* name;
    bool takes_value;
    unsigned commands;
    void (*apply)(CliOptions&, ParseState&, const std::string& name, const std::string& value);
};

bool is_date(const std::string& text)
{
    return text.size() == 8 && text.find_first_not_of("0123456789") == std::string::npos;
}

const OptionRule option_rules[] = {
    {"--library", true, for_request, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.library_path = v; }},
    {"--wsaa-url", true, for_afip, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.wsaa_url = v; }},
    {"--certificate", true, for_afip, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.certificate_path = v; }},
    {"--password", true, for_afip, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.certificate_password = v; }},
    {"--password-file", true, for_afip, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.password_file = v; }},
    {"--env", true, for_afip,
     [](CliOptions&, ParseState& state, const std::string&, const std::string& v) {
         state.environment = find_afip_environment(v.c_str());
         if (state.environment == nullptr)
             throw UsageError("--env takes homologation or production, not '" + v + "'");
     }},
    {"--operation", true, for_request,
     [](CliOptions&, ParseState& state, const std::string&, const std::string& v) {
         if (!is_wsfev1_operation(v))
             throw UsageError("--operation takes a WSFEv1 operation such as FECAESolicitar or FEDummy, not '" + v + "'");
         state.operation = v;
     }},
    {"--service", true, for_afip, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.service = v; }},
    {"--url", true, for_afip, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.service_url = v; }},
    {"--proxy", true, for_afip, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.proxy_url = v; }},
    {"--proxy-user", true, for_afip, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.proxy_user = v; }},
    {"--proxy-password", true, for_afip, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.proxy_password = v; }},
    {"--tls-level", true, for_afip,
     [](CliOptions& o, ParseState&, const std::string& n, const std::string& v) { o.tls_level = static_cast<int32_t>(parse_integer(n, v, 1, 4)); }},
    {"--timeout-ms", true, for_afip,
     [](CliOptions& o, ParseState&, const std::string& n, const std::string& v) {
         o.timeout_ms = static_cast<uint32_t>(parse_integer(n, v, 0, std::numeric_limits<uint32_t>::max()));
     }},
    {"--tls-verify", false, for_afip, [](CliOptions& o, ParseState&, const std::string&, const std::string&) { o.tls_verify = true; }},
    {"--ca-file", true, for_afip, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.ca_file = v; }},
    {"--header", true, for_afip, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.headers.push_back(v); }},
    {"--request", true, for_request, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.request_file = v; }},
    {"--cuit", true, for_invoice | for_padron | for_caea,
     [](CliOptions& o, ParseState&, const std::string& n, const std::string& v) { o.cuit = parse_integer(n, v, 1, 99999999999LL); }},
    {"--invoice", true, for_invoice, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.invoice_file = v; }},
    {"--registry-url", true, for_invoice, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.registry_url = v; }},
    {"--batch", true, for_invoice, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.batch_file = v; }},
    {"--qr-png", true, for_invoice, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.qr_png_file = v; }},
    {"--issuer", true, for_receipt, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.issuer_file = v; }},
    {"--out", true, for_receipt, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.out_file = v; }},
    {"--sale-id", true, for_invoice | for_receipt, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.sale_id = v; }},
    {"--ledger", true, for_ledger, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.ledger_path = v; }},
    {"--from", true, for_list,
     [](CliOptions& o, ParseState&, const std::string& n, const std::string& v) {
         if (!is_date(v))
             throw UsageError(n + " takes a date written YYYYMMDD, not '" + v + "'");
         o.from_date = v;
     }},
    {"--to", true, for_list,
     [](CliOptions& o, ParseState&, const std::string& n, const std::string& v) {
         if (!is_date(v))
             throw UsageError(n + " takes a date written YYYYMMDD, not '" + v + "'");
         o.to_date = v;
     }},
    {"--period", true, for_caea,
     [](CliOptions& o, ParseState&, const std::string& n, const std::string& v) { o.period = static_cast<int>(parse_integer(n, v, 190001, 999912)); }},
    {"--order", true, for_caea,
     [](CliOptions& o, ParseState&, const std::string& n, const std::string& v) { o.order = static_cast<int>(parse_integer(n, v, 1, 2)); }},
    {"--contingency", false, for_invoice, [](CliOptions& o, ParseState&, const std::string&, const std::string&) { o.contingency = true; }},
    {"--caea-point-of-sale", true, for_invoice,
     [](CliOptions& o, ParseState&, const std::string& n, const std::string& v) { o.caea_point_of_sale = static_cast<int>(parse_integer(n, v, 1, 99998)); }},
    {"--point-of-sale", true, for_list | for_caea,
     [](CliOptions& o, ParseState&, const std::string& n, const std::string& v) { o.point_of_sale = static_cast<int>(parse_integer(n, v, 1, 99999)); }},
    {"--format", true, for_list,
     [](CliOptions& o, ParseState&, const std::string& n, const std::string& v) {
         if (v != "json" && v != "csv")
             throw UsageError(n + " takes json or csv, not '" + v + "'");
         o.format = v;
     }},
    {"--format", true, for_receipt,
     [](CliOptions& o, ParseState&, const std::string& n, const std::string& v) {
         if (v != "pdf-a4" && v != "pdf-80mm" && v != "escpos")
             throw UsageError(n + " takes pdf-a4, pdf-80mm or escpos, not '" + v + "'");
         o.format = v;
     }},
    {"--log", false, for_afip, [](CliOptions& o, ParseState&, const std::string&, const std::string&) { o.print_log = true; }},
    {"--log-file", true, for_afip, [](CliOptions& o, ParseState&, const std::string&, const std::string& v) { o.log_file = v; }},
    {"--version", false, for_request, [](CliOptions& o, ParseState&, const std::string&, const std::string&) { o.show_version = true; }},
    {"--help", false, for_all, [](CliOptions& o, ParseState&, const std::string&, const std::string&) { o.show_help = true; }},
    {"-h", false, for_all, [](CliOptions& o, ParseState&, const std::string&, const std::string&) { o.show_help = true; }},
};

const char* command_name(Command command)
{
    switch (command) {
    case Command::request: return "";
    case Command::invoice: return "invoice";
    case Command::ledger_list: return "ledger list";
    case Command::ledger_show: return "ledger show";
    case Command::padron: return "padron";
    case Command::receipt: return "receipt";
    case Command::caea: return "caea";
    }
    return "";
}

} // namespace

CliOptions parse_command_line(int argc, const char* const* argv)
{
    CliOptions options;
    ParseState state;
    int first = 1;
    const std::string word = argc > 1 ? argv[1] : "";
    if (word == "invoice") {
        options.command = Command::invoice;
        first = 2;
    } else if (word == "caea") {
        const std::string what = argc > 2 ? argv[2] : "";
        if (what != "request" && what != "show" && what != "inform" && what != "no-movement" && what != "status")
            throw UsageError("caea takes request, show, inform, no-movement or status, not '" + what + "'");
        options.command = Command::caea;
        options.caea_action = what == "no-movement" ? "no_movement" : what;
        first = 3;
    } else if (word == "receipt") {
        options.command = Command::receipt;
        options.format = "pdf-a4";
        first = 2;
    } else if (word == "padron") {
        options.command = Command::padron;
        first = 2;
    } else if (word == "ledger") {
        const std::string what = argc > 2 ? argv[2] : "";
        if (what != "list" && what != "show")
            throw UsageError("ledger takes list or show, not '" + what + "'");
        options.command = what == "list" ? Command::ledger_list : Command::ledger_show;
        first = 3;
    }
    const unsigned mask = 1u << static_cast<unsigned>(options.command);
    for (int index = first; index < argc; ++index) {
        std::string name = argv[index];
        std::optional<std::string> attached;
        const size_t equals = name.find('=');
        if (name.rfind("--", 0) == 0 && equals != std::string::npos) {
            attached = name.substr(equals + 1);
            name.erase(equals);
        }
        if (options.command == Command::ledger_show && name.rfind("-", 0) != 0 && options.sale_id.empty()) {
            options.sale_id = name;
            continue;
        }
        if (options.command == Command::padron && name.rfind("-", 0) != 0 && !options.looked_up_cuit) {
            options.looked_up_cuit = parse_integer("the CUIT", name, 1, 99999999999LL);
            continue;
        }
        const OptionRule* rule = nullptr;
        for (const OptionRule& candidate : option_rules)
            if (name == candidate.name && (candidate.commands & mask) != 0)
                rule = &candidate;
        if (rule == nullptr) {
            const std::string command = command_name(options.command);
            throw UsageError("unknown option '" + name + "'" + (command.empty() ? "" : " for " + command));
        }
        std::string value;
        if (rule->takes_value) {
            if (!attached && index + 1 >= argc)
                throw UsageError(name + " needs a value");
            value = attached ? *attached : argv[++index];
        } else if (attached) {
            throw UsageError(name + " takes no value");
        }
        rule->apply(options, state, name, value);
    }
    if (!options.show_help && !options.show_version) {
        if (options.command == Command::invoice &&
            (!options.cuit || options.invoice_file.empty() == options.batch_file.empty()))
            throw UsageError("invoice needs --cuit CUIT and either --invoice FILE or --batch FILE");
        if (options.command == Command::invoice && !options.batch_file.empty() &&
            (!options.sale_id.empty() || !options.qr_png_file.empty()))
            throw UsageError("--batch takes the sale ids from its lines and makes no QR image");
        if (options.command == Command::ledger_show && options.sale_id.empty())
            throw UsageError("ledger show needs a SALE_ID");
        if (options.command == Command::caea && !options.cuit)
            throw UsageError("caea needs --cuit, the issuer");
        if (options.command == Command::caea && options.caea_action == "no_movement" && !options.point_of_sale)
            throw UsageError("caea no-movement needs --point-of-sale N");
        if (options.command == Command::caea && options.period.has_value() != options.order.has_value())
            throw UsageError("--period and --order go together");
        if (options.command == Command::receipt &&
            (options.sale_id.empty() || options.issuer_file.empty() || options.out_file.empty()))
            throw UsageError("receipt needs --sale-id ID, --issuer FILE and --out FILE ('-': standard output)");
        if (options.command == Command::padron && (!options.looked_up_cuit || !options.cuit))
            throw UsageError("padron needs the CUIT to look up and --cuit, the issuer it is asked for");
    }
    if (state.environment != nullptr) {
        options.wsaa_url = options.wsaa_url.value_or(state.environment->wsaa_url);
        const bool a13 = options.service.value_or("") == "ws_sr_padron_a13";
        options.service_url = options.service_url.value_or(
            options.command != Command::padron ? state.environment->wsfev1_url
            : a13                              ? state.environment->padron_a13_url
                                               : state.environment->constancia_url);
        if (options.command == Command::invoice && options.registry_url.empty())
            options.registry_url = state.environment->constancia_url;
    }
    if (!state.operation.empty())
        options.headers.push_back(wsfev1_soap_action(state.operation));
    return options;
}

const char* usage_text()
{
    return "Usage: tarvoafip_cli [options] [--request FILE]\n"
           "       tarvoafip_cli invoice [options] --cuit CUIT --invoice FILE [--sale-id ID] [--qr-png FILE]\n"
           "       tarvoafip_cli invoice [options] --cuit CUIT --batch FILE\n"
           "       tarvoafip_cli ledger list [--ledger PATH] [--from YYYYMMDD] [--to YYYYMMDD]\n"
           "                                 [--point-of-sale N] [--format json|csv]\n"
           "       tarvoafip_cli ledger show SALE_ID [--ledger PATH]\n"
           "       tarvoafip_cli padron CUIT --cuit ISSUER [options] [--service NAME] [--url URL]\n"
           "       tarvoafip_cli caea request|show|inform|no-movement|status --cuit CUIT [options]\n"
           "                          [--period YYYYMM --order 1|2] [--point-of-sale N]\n"
           "       tarvoafip_cli receipt --sale-id ID --issuer FILE --out FILE [--ledger PATH]\n"
           "                             [--format pdf-a4|pdf-80mm|escpos]\n"
           "Sends one SOAP request through libtarvoafipdriver and prints the answer; invoice authorises\n"
           "vouchers given as JSON with WSFEv1's field names through the invoicing core, at most once per\n"
           "sale, recorded in the ledger, and prints each outcome as a JSON line; ledger lists what was sold.\n"
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
           "  --sale-id ID            invoice: the host's name for the sale (or \"sale_id\" in the JSON);\n"
           "                          the same sale run again returns its recorded outcome\n"
           "  --batch FILE            invoice: one voucher with its \"sale_id\" a line (JSON lines);\n"
           "                          '-': standard input; one outcome line each, in their order\n"
           "  --registry-url URL      invoice: AFIP's registry (ws_sr_constancia_inscripcion), asked for a\n"
           "                          receptor's VAT condition (\"CondicionIVAReceptorId\": \"padron\", or none\n"
           "                          on a voucher to DocTipo 80); --env gives AFIP's\n"
           "  --ledger PATH           the ledger (default ledger.sqlite in the working directory)\n"
           "  --qr-png FILE           invoice: also write AFIP's QR code of the voucher as a PNG image\n"
           "  --contingency           invoice: when WSFEv1 cannot be reached (nothing sent), issue under\n"
           "                          the fortnight's CAEA kept in the ledger (status 30)\n"
           "  --caea-point-of-sale N  invoice: the point of sale contingency vouchers go to\n"
           "  --period YYYYMM, --order 1|2  caea: the fortnight (default: today's)\n"
           "  --issuer FILE           receipt: the issuer's profile (JSON: name, address, cuit, iibb,\n"
           "                          activities_start, vat_condition, logo, footer)\n"
           "  --out FILE              receipt: where the printout goes; '-': standard output\n"
           "  --from, --to YYYYMMDD   ledger list: voucher dates, inclusive\n"
           "  --point-of-sale N       ledger list: one point of sale; caea no-movement: the one declared\n"
           "  --format json|csv       ledger list: a JSON object a line (default), or CSV with a header;\n"
           "                          receipt: pdf-a4 (default), pdf-80mm or escpos\n"
           "  --log                   print the transfer log on standard error after the answer\n"
           "                          (invoice: the log of its last request)\n"
           "  --log-file FILE         write the transfer log to FILE, readable by its owner only: it\n"
           "                          holds the live token and sign\n"
           "  --version               print the library's version\n"
           "  --help                  print this text\n"
           "\n"
           "The answer goes to standard output. The exit status is the library's result code\n"
           "(0 success, 1-17 see the library's header), or 64 bad usage, 66 unreadable request,\n"
           "invoice: 0 approved, 20 rejected by AFIP, 21 outcome unknown (run the same sale again),\n"
           "22 sale id used by another voucher, 23 ledger unusable, 24 series busy, 65 bad invoice\n"
           "file, 73 QR image not writable, 1-17 the exchange failed before AFIP decided (a batch:\n"
           "the first sale's status that is not 0); ledger: 25 no such sale, 23 ledger unusable;\n"
           "invoice and padron: 26 CUIT unknown to the registry, 27 its key inactive, 28 the registry\n"
           "refused, 29 a condition the voucher's class may not go to. padron prints the person as\n"
           "JSON; --service ws_sr_constancia_inscripcion (default) or ws_sr_padron_a13, --url its\n"
           "address (--env gives AFIP's), --cuit the issuer it is asked for; invoice: 30 issued\n"
           "under a CAEA, to be informed; caea: 0 done, 20 refused, 21 unknown, the result as JSON;\n"
           "also: 69 library not loadable, 70 answer or log not readable, 74 log file not writable.\n"
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
