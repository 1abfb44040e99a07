#include "host_messages.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "command_line.h"
#include "tarvoafipdriver.h"

namespace {

const long argentina_offset_seconds = -3 * 3600;

// The log holds the live token and sign: written for its owner's eyes only, also over an older file.
bool write_private_file(const std::string& path, const std::string& data)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd < 0)
        return false;
    bool written = ::fchmod(fd, S_IRUSR | S_IWUSR) == 0;
    for (size_t done = 0; written && done < data.size();) {
        const ssize_t count = ::write(fd, data.data() + done, data.size() - done);
        written = count > 0;
        done += written ? static_cast<size_t>(count) : 0;
    }
    return ::close(fd) == 0 && written;
}

} // namespace

std::string explain_result(int32_t result)
{
    switch (result) {
    case AFIP_OK:
        return "success";
    case AFIP_CERTIFICATE_ERROR:
        return "the certificate is unusable: give --certificate with a readable PKCS#12 file";
    case AFIP_NOT_AUTHORIZED:
        return "WSAA says this certificate is not authorised for the service";
    case AFIP_CERTIFICATE_EXPIRED:
    case AFIP_CERTIFICATE_EXPIRED_2:
        return "WSAA says the certificate has expired";
    case AFIP_CRYPTO_ERROR:
        return "the certificate could not be opened or used for signing: wrong --password or not a PKCS#12 file";
    case AFIP_WSAA_URL_NOT_SET:
        return "no WSAA address: give --wsaa-url";
    case AFIP_WSAA_SERVICE_NOT_SET:
        return "no WSAA service name: give --service";
    case AFIP_TICKET_ALREADY_VALID:
        return "WSAA already holds a valid ticket for this certificate and service; wait until it expires or "
               "restore credentials.json";
    case AFIP_BUFFER_TOO_SMALL:
        return "a buffer was too small for the library's data";
    case AFIP_WS_URL_NOT_SET:
        return "no web-service address: give --url";
    case AFIP_REQUEST_NOT_XML:
        return "the request is not well-formed XML; nothing was sent";
    case AFIP_RESPONSE_NOT_XML:
        return "the service's answer is not well-formed XML, or there was none (see --log)";
    case AFIP_TIMEOUT:
        return "the service did not answer within the time-out; nothing was kept";
    case AFIP_WSAA_TLS_FAILURE:
        return "the TLS connection to WSAA failed";
    case AFIP_WSAA_HTTP_FAILURE:
        return "WSAA was unreachable, timed out or answered an HTTP error";
    default:
        return "a result code this program does not know";
    }
}

long utc_offset_seconds(std::time_t when)
{
    tzset(); // localtime_r need not read TZ by itself
    std::tm local{};
    localtime_r(&when, &local);
    return local.tm_gmtoff;
}

std::string format_utc_offset(long seconds)
{
    const char sign = seconds < 0 ? '-' : '+';
    const long magnitude = std::labs(seconds);
    char text[32];
    std::snprintf(text, sizeof text, "%c%02ld:%02ld", sign, magnitude / 3600, magnitude % 3600 / 60);
    return text;
}

std::string time_zone_warning(long offset_seconds)
{
    if (offset_seconds == argentina_offset_seconds)
        return std::string();
    return "warning: this process runs at UTC" + format_utc_offset(offset_seconds) +
           ", but WSAA reads login ticket times as Argentina's local time (UTC-03:00); "
           "run with TZ=America/Argentina/Buenos_Aires";
}

std::string ticket_cache_warning(const std::string& directory, const std::string& cache_file)
{
    const std::string cache = directory + "/" + cache_file;
    const bool directory_writable = faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
    const bool cache_writable = faccessat(AT_FDCWD, cache.c_str(), W_OK, AT_EACCESS) == 0 || errno == ENOENT;
    if (directory_writable && cache_writable)
        return std::string();
    return "warning: the login ticket cannot be kept, because " +
           (directory_writable ? cache + " cannot be written" : "the working directory " + directory + " cannot be written") +
           ": every run logs in again, and WSAA refuses a second login while the first ticket is valid "
           "(result 9); run from a directory this user can write";
}

bool report_transfer_log(const std::string& log, const CliOptions& options)
{
    if (options.print_log) {
        std::cerr.write(log.data(), static_cast<std::streamsize>(log.size()));
        std::cerr.flush();
    }
    if (!options.log_file.empty() && !write_private_file(options.log_file, log)) {
        std::cerr << "tarvoafip_cli: cannot write the transfer log to " << options.log_file << '\n';
        return false;
    }
    return true;
}
