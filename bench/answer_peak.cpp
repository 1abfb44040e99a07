// Peak memory of one large answer, in a process of its own so that nothing else counts:
//   tarvo_answer_peak library|curl SMALL_URL LARGE_URL DIRECTORY
// A first transfer of a small answer initialises libcurl, OpenSSL and the allocator; then the
// peak is reset to the current resident size and one large answer is fetched. Prints one line:
//   answer_bytes=N log_bytes=N rss_before=N hwm_after=N result=N
// with sizes in bytes. DIRECTORY holds a young credentials.json, so no login happens.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "bench_support.h"
#include "tarvoafipdriver.h"

namespace {

const char request[] =
    "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns:ar=\"http://ar.gov.afip.dif.FEV1/\"><soapenv:Header/><soapenv:Body><ar:FEParamGetTiposCbte><ar:Auth>"
    "<ar:Token></ar:Token><ar:Sign></ar:Sign><ar:Cuit>20111111112</ar:Cuit></ar:Auth></ar:FEParamGetTiposCbte>"
    "</soapenv:Body></soapenv:Envelope>";

// A field of /proc/self/status, in bytes.
long long status_bytes(const char* field)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    const size_t length = std::strlen(field);
    while (std::getline(status, line))
        if (line.compare(0, length, field) == 0 && line.size() > length && line[length] == ':')
            return std::stoll(line.substr(length + 1)) * 1024;
    return -1;
}

// Lowers the high-water mark to the current resident size (Linux 4.0 and later).
bool reset_peak()
{
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
    clear.flush();
    return static_cast<bool>(clear);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 5 || (std::strcmp(argv[1], "library") != 0 && std::strcmp(argv[1], "curl") != 0)) {
        std::fprintf(stderr, "usage: %s library|curl SMALL_URL LARGE_URL DIRECTORY\n", argv[0]);
        return 2;
    }
    const bool library = std::strcmp(argv[1], "library") == 0;
    if (chdir(argv[4]) != 0)
        return 2;

    long long rss_before = 0;
    long long hwm_after = 0;
    long long answer_bytes = 0;
    long long log_bytes = 0;
    long result = 0;
    if (library) {
        SetWSAA("http://127.0.0.1:9/ws/services/LoginCms");
        SetWSAACredentials("unused.p12", "unused");
        SetWSAAService("wsfe");
        SetWSUrl(argv[2]);
        if (SendSOAP(request) != AFIP_OK)
            return 3;
        SetWSUrl(argv[3]);
        if (!reset_peak())
            return 4;
        rss_before = status_bytes("VmRSS");
        result = SendSOAP(request);
        hwm_after = status_bytes("VmHWM");
        uint32_t size = 0;
        ReceivedSOAP(nullptr, 0, &size);
        answer_bytes = size;
        GetVerboseTransfer(nullptr, 0, &size);
        log_bytes = size;
    } else {
        std::string answer;
        if (bare_curl_post(argv[2], request, answer) != 200)
            return 3;
        if (!reset_peak())
            return 4;
        rss_before = status_bytes("VmRSS");
        result = bare_curl_post(argv[3], request, answer);
        hwm_after = status_bytes("VmHWM");
        answer_bytes = static_cast<long long>(answer.size());
    }
    std::printf("answer_bytes=%lld log_bytes=%lld rss_before=%lld hwm_after=%lld result=%ld\n", answer_bytes, log_bytes,
                rss_before, hwm_after, result);
    return 0;
}
