#include "command_line.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

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

} // namespace

CliOptions parse_command_line(int argc, const char* const* argv)
{
    CliOptions options;
    for (int index = 1; index < argc; ++index) {
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
            options.tls_level = static_cast<int32_t>(parse_integer(
                name, value(), std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
        else if (name == "--timeout-ms")
            options.timeout_ms =
                static_cast<uint32_t>(parse_integer(name, value(), 0, std::numeric_limits<uint32_t>::max()));
        else if (name == "--header")
            options.headers.push_back(value());
        else if (name == "--request")
            options.request_file = value();
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
            throw UsageError("unknown option '" + name + "'");
    }
    return options;
}

const char* usage_text()
{
    return "Usage: tarvoafip_cli [options] [--request FILE]\n"
           "Sends one SOAP request through libtarvoafipdriver and prints the answer.\n"
           "\n"
           "  --library PATH          the shared library (default: the one built next to this program)\n"
           "  --wsaa-url URL          WSAA loginCms address                      (SetWSAA)\n"
           "  --certificate PATH      PKCS#12 certificate file                   (SetWSAACredentials)\n"
           "  --password PASS         its password                               (SetWSAACredentials)\n"
           "  --service NAME          WSAA service name, e.g. wsfe               (SetWSAAService)\n"
           "  --url URL               business web-service address               (SetWSUrl)\n"
           "  --proxy URL             proxy address                              (SetWebProxy)\n"
           "  --proxy-user NAME       proxy user name                            (SetWebProxy)\n"
           "  --proxy-password PASS   proxy password                             (SetWebProxy)\n"
           "  --tls-level N           1 TLS 1.0, 2 TLS 1.1, 3 TLS 1.2, 4 TLS 1.3  (SetSecurity)\n"
           "  --timeout-ms N          whole-transfer time-out, 0 none            (SetTimeOut)\n"
           "  --header LINE           extra HTTP header \"Name: value\"; repeatable (AddSOAPHeader)\n"
           "  --request FILE          the SOAP request; '-' or absent: standard input\n"
           "  --log                   print the transfer log on standard error after the answer\n"
           "  --log-file FILE         write the transfer log to FILE\n"
           "  --version               print the library's version\n"
           "  --help                  print this text\n"
           "\n"
           "The answer goes to standard output. The exit status is the library's result code\n"
           "(0 success, 1-17 see the library's header), or 64 bad usage, 66 unreadable request,\n"
           "69 library not loadable, 70 answer or log not readable, 74 log file not writable.\n"
           "credentials.json (the ticket cache) is read and written in the working directory.\n"
           "Run with TZ=America/Argentina/Buenos_Aires: WSAA reads ticket times as Argentina's time.\n";
}
