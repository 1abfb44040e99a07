#include "options.h"

#include <charconv>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "util/argentina_time.h"

namespace {

bool is_cuit(const std::string& text)
{
    return text.size() == 11 && text.find_first_not_of("0123456789") == std::string::npos;
}

std::vector<std::string> split_list(const std::string& option, const std::string& text, bool cuits)
{
    std::vector<std::string> items;
    std::istringstream list(text);
    std::string item;
    while (std::getline(list, item, ','))
        if (!item.empty()) {
            if (cuits && !is_cuit(item))
                throw std::invalid_argument(option + " expects CUITs of 11 digits, not '" + item + "'");
            items.push_back(item);
        }
    if (items.empty())
        throw std::invalid_argument(option + " expects a comma-separated list");
    return items;
}

// "YYYY-MM-DD" as yyyymmdd, or std::invalid_argument naming the option.
std::string parse_date(const std::string& option, const std::string& date)
{
    if (date.size() != 10 || date[4] != '-' || date[7] != '-' || !day_of_date(date.substr(0, 4) + date.substr(5, 2) + date.substr(8, 2)))
        throw std::invalid_argument(option + " expects a date YYYY-MM-DD, not '" + date + "'");
    return date.substr(0, 4) + date.substr(5, 2) + date.substr(8, 2);
}

} // namespace

long parse_whole_number(const std::string& what, const std::string& text, long minimum, long maximum)
{
    long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() || value < minimum || value > maximum)
        throw std::invalid_argument(what + " expects a whole number from " + std::to_string(minimum) + " to " +
                                    std::to_string(maximum) + ", not '" + text + "'");
    return value;
}

Options parse_options(int argc, char** argv)
{
    Options options;
    constexpr long unlimited = std::numeric_limits<int>::max();
    for (int i = 1; i < argc; ++i) {
        std::string option = argv[i];
        std::string value;
        bool has_inline_value = false;
        if (const auto equals = option.find('='); option.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = option.substr(equals + 1);
            option.erase(equals);
            has_inline_value = true;
        }
        const auto take_value = [&]() -> std::string {
            if (has_inline_value)
                return value;
            if (i + 1 >= argc)
                throw std::invalid_argument(option + " needs a value");
            return argv[++i];
        };
        const auto no_value = [&]() {
            if (has_inline_value)
                throw std::invalid_argument(option + " takes no value");
        };

        if (option == "--help" || option == "-h") {
            no_value();
            options.help = true;
        } else if (option == "--host") {
            options.host = take_value();
        } else if (option == "--port") {
            options.port = static_cast<int>(parse_whole_number(option, take_value(), 0, 65535));
        } else if (option == "--tls") {
            no_value();
            options.tls = true;
        } else if (option == "--legacy-tls") {
            no_value();
            options.legacy_tls = true;
        } else if (option == "--tls-name") {
            options.tls_name = take_value();
        } else if (option == "--tls-cert-out") {
            options.tls_certificate_output = take_value();
        } else if (option == "--port-file") {
            options.port_file = take_value();
        } else if (option == "--services") {
            options.services = split_list(option, take_value(), false);
        } else if (option == "--ticket-seconds") {
            options.ticket_seconds = parse_whole_number(option, take_value(), 1, unlimited);
        } else if (option == "--refuse-relogin-seconds") {
            options.refuse_relogin_seconds = parse_whole_number(option, take_value(), 0, unlimited);
        } else if (option == "--relations") {
            options.relations = split_list(option, take_value(), true);
        } else if (option == "--service-delay-ms") {
            options.service_delay_ms = parse_whole_number(option, take_value(), 0, unlimited);
        } else if (option == "--non-xml-answer") {
            no_value();
            options.non_xml_answer = true;
        } else if (option == "--max-seconds") {
            options.max_seconds = parse_whole_number(option, take_value(), 0, unlimited);
        } else if (option == "--receptor-condition-required-from") {
            options.receptor_condition_required_from = parse_date(option, take_value());
        } else if (option == "--today") {
            options.today = parse_date(option, take_value());
        } else if (option == "--padron") {
            options.padron_file = take_value();
        } else if (option == "--state") {
            options.state_file = take_value();
            if (options.state_file.empty())
                throw std::invalid_argument("--state needs a file name");
        } else if (option == "--points-of-sale" || option == "--caea-points-of-sale") {
            std::set<long long>& points = option == "--points-of-sale" ? options.points_of_sale : options.caea_points_of_sale;
            for (const std::string& point : split_list(option, take_value(), false))
                points.insert(parse_whole_number(option, point, 1, 99998));
        } else if (option == "--event") {
            const std::string event = take_value();
            const size_t colon = event.find(':');
            if (colon == std::string::npos || colon + 1 == event.size())
                throw std::invalid_argument("--event expects CODE:TEXT, not '" + event + "'");
            options.events.emplace_back(static_cast<int>(parse_whole_number(option, event.substr(0, colon), 0, 2147483647)),
                                        event.substr(colon + 1));
        } else if (option == "--rules") {
            no_value();
            options.rules = true;
        } else if (option == "--make-certificate") {
            options.certificate_output = take_value();
        } else if (option == "--password") {
            options.certificate_password = take_value();
            options.password_given = true;
        } else if (option == "--cn") {
            options.certificate_common_name = take_value();
        } else if (option == "--cuit") {
            options.certificate_cuit = take_value();
            options.cuit_given = true;
            if (!is_cuit(options.certificate_cuit))
                throw std::invalid_argument("--cuit expects the 11 digits of a CUIT, not '" + options.certificate_cuit + "'");
        } else if (option == "--expired") {
            no_value();
            options.certificate_expired = true;
        } else {
            throw std::invalid_argument("unknown option '" + option + "'");
        }
    }

    if (options.help || options.rules)
        return options;
    if (!options.tls && (options.legacy_tls || !options.tls_name.empty() || !options.tls_certificate_output.empty()))
        throw std::invalid_argument("--legacy-tls, --tls-name and --tls-cert-out go with --tls");
    if (options.certificate_output.empty() &&
        (options.password_given || options.certificate_expired || options.cuit_given ||
         options.certificate_common_name != "simulator-client"))
        throw std::invalid_argument("--password, --cn, --cuit and --expired go with --make-certificate");
    if (!options.certificate_output.empty() && !options.password_given)
        throw std::invalid_argument("--make-certificate needs --password");
    for (const long long point : options.points_of_sale)
        if (options.caea_points_of_sale.count(point))
            throw std::invalid_argument("point of sale " + std::to_string(point) +
                                        " is in both --points-of-sale and --caea-points-of-sale");
    if (!options.certificate_output.empty() && options.certificate_common_name.empty())
        throw std::invalid_argument("--cn needs a non-empty name");
    return options;
}

const char* usage_text()
{
    return R"(Usage: afip_simulator [options]
A local stand-in for the tax agency's authentication service (loginCms) and for an
electronic invoicing endpoint, for testing host programs offline.

Server options:
  --host ADDRESS          address to listen on (default 127.0.0.1)
  --port N                port to listen on; 0 picks a free one (default 0)
  --tls                   serve HTTPS with a certificate generated at start-up
  --tls-name NAME         the certificate names NAME rather than the listening address
                          (to stand in for AFIP's host names)
  --tls-cert-out FILE     write the server's certificate to FILE (PEM) before listening, for a
                          client that verifies it (TARVO_TLS_VERIFY=1 TARVO_CA_FILE=FILE)
  --legacy-tls            TLS 1.2 at most, key exchange only by DHE-RSA with a 1024-bit group:
                          what a current client refuses unless it lowers its security level
  --port-file FILE        write the bound port and a newline to FILE once listening
  --services LIST         comma-separated services the login endpoint authorises (default wsfe,
                          ws_sr_constancia_inscripcion,ws_sr_padron_a13; ws_sr_padron_a5, the
                          constancia's old name, is always refused)
  --ticket-seconds N      lifetime of issued access tickets (default 43200)
  --refuse-relogin-seconds N
                          while a ticket is valid, a second login for the same certificate and
                          service is refused for N seconds after it was issued (default 600, as
                          in AFIP's homologation; production uses 120)
  --relations LIST        CUITs (comma-separated) every certificate may represent besides the one
                          in its serialNumber
  --service-delay-ms N    the invoicing endpoint waits N ms before answering (default 0)
  --non-xml-answer        the invoicing endpoint answers 200 with a plain-text body
  --max-seconds N         stop after N seconds; 0 runs until SIGINT or SIGTERM (default 0)
  --state FILE            keep tickets, numbering, vouchers, CAEAs and the padron in FILE (JSON,
                          rewritten atomically at every change) and start from it: a restart
                          forgets nothing. Without it everything is kept in memory

Invoicing rules:
  --receptor-condition-required-from YYYY-MM-DD
                          from this date (Argentina's) a voucher without CondicionIVAReceptorId
                          is rejected with Obs 10246; before it, approved with Obs 10245
                          (default 2026-12-01, RG 5616 in production)
  --padron FILE           the taxpayers' register that the registry endpoints answer from and
                          the invoicing rules read (Obs 10015, 10017, 10063, 10217, Err 10000):
                          a JSON object {"<11 digits>": {taxpayer} or <condition id>, ...}, see
                          the README. Without it a built-in padron holds (condition, name):
                            20111111112  1  GOMEZ JUAN CARLOS (the certificates' CUIT)
                            30500010912  1  COMERCIAL DEL PLATA SA
                            30711111111  4  FUNDACION AYUDA MUTUA
                            20333333334  5  FERNANDEZ ANA MARIA (no tax data)
                            20222222223  6  LOPEZ MARTIN;  30000000007  6
                            20888888889     BAJA ROBERTO, key INACTIVO
                            23000000000 7, 30722222225 8, 30733333339 9, 20555555556 10,
                            27666666661 13, 30744444442 15, 20777777778 16
  --today YYYY-MM-DD      the date the simulator takes for today in Argentina: date windows,
                          the cut-over above, CAEA windows and deadlines, FchProceso; the time
                          of day stays the real one (default: the real date)
  --points-of-sale LIST   the points of sale registered for CAE (comma-separated, 1-99998);
                          others get Err 10005, 11002, 10104 (default: any but the CAEA ones)
  --caea-points-of-sale LIST
                          the points of sale registered for CAEA: only they inform CAEA
                          vouchers, and they issue no CAE (default: any may inform)
  --event CODE:TEXT       add Events/Evt with that code and text to every WSFEv1 answer
                          (repeatable), as AFIP announces changes
  --rules                 print the rules FECAESolicitar applies, as a Markdown table, and exit

Certificate maker (writes a file and exits):
  --make-certificate OUT.p12 --password PASS [--cn NAME] [--cuit CUIT] [--expired]
                          write a self-signed client certificate and key as PKCS#12;
                          --cuit puts "serialNumber=CUIT <CUIT>" in its subject, as AFIP's have
                          (default 20111111112, the CUIT of the sample requests);
                          --expired makes one whose validity ended yesterday

Endpoints (SOAP 1.1; GET with ?wsdl or ?WSDL gives the service description):
  POST /ws/services/LoginCms   WSAA loginCms
  POST /sr-padron/webservices/personaServiceA5
                               the registry's constancia (ws_sr_constancia_inscripcion): dummy,
                               getPersona, getPersona_v2, getPersonaList, getPersonaList_v2
  POST /sr-padron/webservices/personaServiceA13
                               the registry's A13 (ws_sr_padron_a13): dummy, getPersona,
                               getIdPersonaListByDocumento
  POST /wsfev1/service.asmx    WSFEv1, its 22 operations: FEDummy, FECompUltimoAutorizado,
                               FECAESolicitar, FECompConsultar, FECompTotXRequest, the CAEA ones
                               (FECAEASolicitar, FECAEAConsultar, FECAEARegInformativo,
                               FECAEASinMovimientoInformar, FECAEASinMovimientoConsultar) and the
                               FEParamGet ones; the operation is the SOAPAction's, or the
                               body's when there is no SOAPAction header
For a host's own tests:
  POST /simulator/answers?path=P[&operation=NAME][&process=1][&status=N][&content_type=T]
                         [&header=H]...[&delay_ms=N][&cut_after=N][&hang_ms=N]
                               queues the request's body as the next answer to path P (to the
                               next request for operation NAME only, when given): status N,
                               extra header lines H, after a delay; cut_after closes the
                               connection after N body bytes (and hang_ms waits before that).
                               process=1: the request is served as usual (a voucher is really
                               authorised), then its answer is lost as status, delay_ms,
                               cut_after or hang_ms say; a body, when given, replaces it
  GET  /simulator/requests[?path=P]
                               the requests received (JSON: method, path, headers, body)

Every request served is logged on standard output, one line each.
  --help                  show this text
)";
}
