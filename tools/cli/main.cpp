// tarvoafip_cli: a command-line host of libtarvoafipdriver; one SendSOAP per run.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>

#include "command_line.h"
#include "driver_library.h"
#include "host_messages.h"
#include "invoice_command.h"
#include "request_check.h"

namespace {

// Exit statuses of the program's own failures, above the library's result codes (sysexits.h values).
const int exit_usage = 64;
const int exit_no_input = 66;
const int exit_library = 69;
const int exit_software = 70;
const int exit_io = 74;

const char program_name[] = "tarvoafip_cli";

void complain(const std::string& message)
{
    std::cerr << program_name << ": " << message << '\n';
}

// Where the library is looked for without --library: TARVO_LIBRARY, then the copy a build tree
// keeps beside this program, then the installed library through the dynamic loader's search path.
std::string default_library_path()
{
    if (const char* variable = std::getenv("TARVO_LIBRARY"); variable != nullptr && *variable != '\0')
        return variable;
    char program[4096];
    const ssize_t length = readlink("/proc/self/exe", program, sizeof program - 1);
    if (length > 0) {
        std::string built(program, static_cast<size_t>(length));
        built.erase(built.rfind('/') + 1).append(TARVO_CLI_LIBRARY_FROM_PROGRAM_DIRECTORY);
        if (access(built.c_str(), F_OK) == 0)
            return built;
    }
    return TARVO_LIBRARY_SONAME;
}

// --password, else the first line of --password-file, else TARVO_PASSWORD; nullopt when none is given.
std::optional<std::string> password(const CliOptions& options)
{
    if (options.certificate_password)
        return options.certificate_password;
    if (!options.password_file.empty()) {
        std::ifstream file(options.password_file);
        if (!file)
            throw std::runtime_error("cannot read the password from " + options.password_file);
        std::string line;
        std::getline(file, line);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        return line;
    }
    if (const char* variable = std::getenv("TARVO_PASSWORD"))
        return std::string(variable);
    return std::nullopt;
}

std::string working_directory()
{
    char path[4096];
    return getcwd(path, sizeof path) != nullptr ? path : ".";
}

// The library takes verification from the environment, read on each call. A trust file given
// means verification wanted.
void request_tls_verification(const CliOptions& options)
{
    if (options.tls_verify || !options.ca_file.empty())
        setenv("TARVO_TLS_VERIFY", "1", 1);
    if (!options.ca_file.empty())
        setenv("TARVO_CA_FILE", options.ca_file.c_str(), 1);
}

void apply_settings(const LoadedDriver& driver, const CliOptions& options, const std::optional<std::string>& password)
{
    if (options.wsaa_url)
        driver.SetWSAA(options.wsaa_url->c_str());
    if (options.certificate_path || password)
        driver.SetWSAACredentials(options.certificate_path.value_or("").c_str(), password.value_or("").c_str());
    if (options.service)
        driver.SetWSAAService(options.service->c_str());
    if (options.service_url)
        driver.SetWSUrl(options.service_url->c_str());
    if (options.proxy_url || options.proxy_user || options.proxy_password)
        driver.SetWebProxy(options.proxy_url.value_or("").c_str(), options.proxy_user.value_or("").c_str(),
                           options.proxy_password.value_or("").c_str());
    request_tls_verification(options);
    if (options.tls_level)
        driver.SetSecurity(*options.tls_level);
    if (options.timeout_ms)
        driver.SetTimeOut(*options.timeout_ms);
    for (const std::string& header : options.headers)
        driver.AddSOAPHeader(header.c_str());
}

// --log and --log-file: the transfer log of the last request; false when the file cannot be written.
bool report_log(const LoadedDriver& driver, const CliOptions& options)
{
    if (!options.print_log && options.log_file.empty())
        return true;
    return report_transfer_log(driver.transfer_log(), options);
}

// The warnings every run that talks to AFIP gives; `request` empty for an invoice.
void warn_before_sending(const std::string& request)
{
    for (const std::string& warning :
         {time_zone_warning(utc_offset_seconds(std::time(nullptr))), request.empty() ? "" : ticket_element_warning(request),
          ticket_cache_warning(working_directory(), "credentials.json")})
        if (!warning.empty())
            complain(warning);
}

// invoice and ledger: through the invoicing core, which does not load the driver.
int run_on_core(const CliOptions& options)
{
    if (options.command == Command::receipt)
        return run_receipt(options);
    if (options.command != Command::invoice && options.command != Command::padron && options.command != Command::caea)
        return run_ledger(options);
    std::optional<std::string> certificate_password;
    try {
        certificate_password = password(options);
    } catch (const std::runtime_error& error) {
        complain(error.what());
        return exit_no_input;
    }
    warn_before_sending("");
    switch (options.command) {
    case Command::padron:
        return run_padron(options, certificate_password);
    case Command::caea:
        return run_caea(options, certificate_password);
    default:
        return run_invoice(options, certificate_password);
    }
}

int run(const CliOptions& options)
{
    if (options.command != Command::request)
        return run_on_core(options);
    const LoadedDriver driver(options.library_path.empty() ? default_library_path() : options.library_path);
    if (options.show_version) {
        std::cout << "libtarvoafipdriver " << driver.version() << '\n';
        return 0;
    }

    // Never wait silently for a request typed on a terminal.
    if (options.request_file.empty() && isatty(STDIN_FILENO)) {
        complain("no request: give --request FILE, or pipe one in (--request - reads this terminal)");
        return exit_usage;
    }
    if (options.request_file == "-" && isatty(STDIN_FILENO))
        complain("reading the request from this terminal; end it with Ctrl-D");
    std::string request;
    if (!read_file_or_input(options.request_file.empty() ? "-" : options.request_file, request)) {
        complain("cannot read the request from " + options.request_file);
        return exit_no_input;
    }
    std::optional<std::string> certificate_password;
    try {
        certificate_password = password(options);
    } catch (const std::runtime_error& error) {
        complain(error.what());
        return exit_no_input;
    }
    warn_before_sending(request);
    apply_settings(driver, options, certificate_password);
    const int32_t result = driver.SendSOAP(request.c_str());

    // The answer is bytes, not text: written whole, whatever it holds.
    const std::string answer = driver.answer();
    std::cout.write(answer.data(), static_cast<std::streamsize>(answer.size()));
    std::cout.flush();

    if (!report_log(driver, options))
        return exit_io;

    if (result != AFIP_OK)
        complain("result " + std::to_string(result) + ": " + explain_result(result));
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    CliOptions options;
    try {
        options = parse_command_line(argc, argv);
    } catch (const UsageError& error) {
        complain(error.what());
        std::cerr << "Try '" << program_name << " --help'.\n";
        return exit_usage;
    }
    if (options.show_help) {
        std::cout << usage_text();
        return 0;
    }

    try {
        return run(options);
    } catch (const LibraryLoadError& error) {
        complain(error.what());
        return exit_library;
    } catch (const LibraryCopyError& error) {
        complain(error.what());
        return exit_software;
    }
}
