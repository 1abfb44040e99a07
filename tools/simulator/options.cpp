#include "options.h"

#include <charconv>
#include <limits>
#include <sstream>
#include <stdexcept>

namespace {

long parse_whole_number(const std::string& option, const std::string& text, long minimum, long maximum)
{
    long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() || value < minimum || value > maximum)
        throw std::invalid_argument(option + " expects a whole number from " + std::to_string(minimum) + " to " +
                                    std::to_string(maximum) + ", not '" + text + "'");
    return value;
}

std::vector<std::string> split_services(const std::string& text)
{
    std::vector<std::string> services;
    std::istringstream list(text);
    std::string service;
    while (std::getline(list, service, ','))
        if (!service.empty())
            services.push_back(service);
    if (services.empty())
        throw std::invalid_argument("--services expects a comma-separated list of service names");
    return services;
}

} // namespace

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
        } else if (option == "--port-file") {
            options.port_file = take_value();
        } else if (option == "--services") {
            options.services = split_services(take_value());
        } else if (option == "--ticket-seconds") {
            options.ticket_seconds = parse_whole_number(option, take_value(), 1, unlimited);
        } else if (option == "--service-delay-ms") {
            options.service_delay_ms = parse_whole_number(option, take_value(), 0, unlimited);
        } else if (option == "--non-xml-answer") {
            no_value();
            options.non_xml_answer = true;
        } else if (option == "--max-seconds") {
            options.max_seconds = parse_whole_number(option, take_value(), 0, unlimited);
        } else if (option == "--make-certificate") {
            options.certificate_output = take_value();
        } else if (option == "--password") {
            options.certificate_password = take_value();
            options.password_given = true;
        } else if (option == "--cn") {
            options.certificate_common_name = take_value();
        } else if (option == "--expired") {
            no_value();
            options.certificate_expired = true;
        } else {
            throw std::invalid_argument("unknown option '" + option + "'");
        }
    }

    if (options.help)
        return options;
    if (options.certificate_output.empty() &&
        (options.password_given || options.certificate_expired || options.certificate_common_name != "simulator-client"))
        throw std::invalid_argument("--password, --cn and --expired go with --make-certificate");
    if (!options.certificate_output.empty() && !options.password_given)
        throw std::invalid_argument("--make-certificate needs --password");
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
  --port-file FILE        write the bound port and a newline to FILE once listening
  --services LIST         comma-separated services the login endpoint authorises (default wsfe)
  --ticket-seconds N      lifetime of issued access tickets (default 43200)
  --service-delay-ms N    the invoicing endpoint waits N ms before answering (default 0)
  --non-xml-answer        the invoicing endpoint answers 200 with a plain-text body
  --max-seconds N         stop after N seconds; 0 runs until SIGINT or SIGTERM (default 0)

Certificate maker (writes a file and exits):
  --make-certificate OUT.p12 --password PASS [--cn NAME] [--expired]
                          write a self-signed client certificate and key as PKCS#12;
                          --expired makes one whose validity ended yesterday

Endpoints:
  POST /ws/services/LoginCms   loginCms (SOAP 1.1)
  POST /wsfev1/service.asmx    FEDummy, FECompUltimoAutorizado, FECAESolicitar (SOAP 1.1)

Every request served is logged on standard output, one line each.
  --help                  show this text
)";
}
