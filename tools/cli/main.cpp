// tarvoafip_cli: a command-line host of libtarvoafipdriver; one SendSOAP per run.
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>

#include "command_line.h"
#include "driver_library.h"
#include "host_messages.h"

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

bool read_request(const std::string& file, std::string& request)
{
    if (file == "-") {
        request.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
        return !std::cin.bad();
    }
    std::ifstream input(file, std::ios::binary);
    if (!input)
        return false;
    std::ostringstream content;
    content << input.rdbuf();
    request = content.str();
    return !input.bad();
}

void apply_settings(const LoadedDriver& driver, const CliOptions& options)
{
    if (options.wsaa_url)
        driver.SetWSAA(options.wsaa_url->c_str());
    if (options.certificate_path || options.certificate_password)
        driver.SetWSAACredentials(options.certificate_path.value_or("").c_str(),
                                  options.certificate_password.value_or("").c_str());
    if (options.service)
        driver.SetWSAAService(options.service->c_str());
    if (options.service_url)
        driver.SetWSUrl(options.service_url->c_str());
    if (options.proxy_url || options.proxy_user || options.proxy_password)
        driver.SetWebProxy(options.proxy_url.value_or("").c_str(), options.proxy_user.value_or("").c_str(),
                           options.proxy_password.value_or("").c_str());
    if (options.tls_level)
        driver.SetSecurity(*options.tls_level);
    if (options.timeout_ms)
        driver.SetTimeOut(*options.timeout_ms);
    for (const std::string& header : options.headers)
        driver.AddSOAPHeader(header.c_str());
}

bool write_file(const std::string& path, const std::string& data)
{
    std::ofstream output(path, std::ios::binary | std::ios::trunc);
    output.write(data.data(), static_cast<std::streamsize>(data.size()));
    output.flush();
    return static_cast<bool>(output);
}

int run(const CliOptions& options)
{
    const LoadedDriver driver(options.library_path.empty() ? default_library_path() : options.library_path);
    if (options.show_version) {
        std::cout << "libtarvoafipdriver " << driver.version() << '\n';
        return 0;
    }

    std::string request;
    if (!read_request(options.request_file, request)) {
        complain("cannot read the request from " + options.request_file);
        return exit_no_input;
    }

    const std::string warning = time_zone_warning(utc_offset_seconds(std::time(nullptr)));
    if (!warning.empty())
        complain(warning);

    apply_settings(driver, options);
    const int32_t result = driver.SendSOAP(request.c_str());

    // The answer is bytes, not text: written whole, whatever it holds.
    const std::string answer = driver.answer();
    std::cout.write(answer.data(), static_cast<std::streamsize>(answer.size()));
    std::cout.flush();

    if (options.print_log || !options.log_file.empty()) {
        const std::string log = driver.transfer_log();
        if (options.print_log) {
            std::cerr.write(log.data(), static_cast<std::streamsize>(log.size()));
            std::cerr.flush();
        }
        if (!options.log_file.empty() && !write_file(options.log_file, log)) {
            complain("cannot write the transfer log to " + options.log_file);
            return exit_io;
        }
    }

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
