// Side-by-side benchmarks of the library against what a host would otherwise run, printed as
// one Markdown table on standard output (Google Benchmark's own report goes to standard error).
//   tarvo_bench [google benchmark flags]
// Every server is on 127.0.0.1 and stops by itself.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "bench_support.h"
#include "crypto/cms.h"
#include "tarvoafipdriver.h"
#include "wsaa/tra.h"

namespace {

constexpr size_t large_answer_bytes = 50u * 1024 * 1024;
constexpr unsigned server_lifetime_seconds = 900;
constexpr int rotated_services = 400;
const char password[] = "bench-secret";

const char small_answer[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?><soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\">"
    "<soap:Body><FECompUltimoAutorizadoResponse xmlns=\"http://ar.gov.afip.dif.FEV1/\"><FECompUltimoAutorizadoResult>"
    "<PtoVta>1</PtoVta><CbteTipo>6</CbteTipo><CbteNro>41</CbteNro></FECompUltimoAutorizadoResult>"
    "</FECompUltimoAutorizadoResponse></soap:Body></soap:Envelope>";

const char authorised_request[] =
    "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns:ar=\"http://ar.gov.afip.dif.FEV1/\"><soapenv:Header/><soapenv:Body><ar:FECompUltimoAutorizado><ar:Auth>"
    "<ar:Token></ar:Token><ar:Sign></ar:Sign><ar:Cuit>20111111112</ar:Cuit></ar:Auth><ar:PtoVta>1</ar:PtoVta>"
    "<ar:CbteTipo>6</ar:CbteTipo></ar:FECompUltimoAutorizado></soapenv:Body></soapenv:Envelope>";

const char dummy_request[] =
    "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns:ar=\"http://ar.gov.afip.dif.FEV1/\"><soapenv:Header/><soapenv:Body><ar:FEDummy/></soapenv:Body>"
    "</soapenv:Envelope>";

// TARVO_BENCH_SIMULATOR names another simulator build to compare against; the built one by default.
std::string simulator_program()
{
    const char* other = std::getenv("TARVO_BENCH_SIMULATOR");
    return other != nullptr && *other != '\0' ? other : TARVO_SIMULATOR_PATH;
}

std::string stored_log()
{
    uint32_t size = 0;
    GetVerboseTransfer(nullptr, 0, &size);
    std::string log(size, '\0');
    GetVerboseTransfer(log.data(), size, &size);
    return log;
}

// The request body exactly as the last SendSOAP put it on the wire, taken from its transfer log.
std::string last_request_body()
{
    const std::string log = stored_log();
    const std::string open = "==> Request body\n";
    const size_t start = log.find(open);
    const size_t end = log.find("\n==> Response headers\n");
    if (start == std::string::npos || end == std::string::npos)
        throw std::runtime_error("no request body in the transfer log");
    return log.substr(start + open.size(), end - start - open.size());
}

void enter(const std::string& directory)
{
    if (chdir(directory.c_str()) != 0)
        throw std::runtime_error("cannot enter " + directory);
}

// Everything the benchmarks share. The canned server forks before anything could start a thread.
struct Environment {
    Environment()
        : canned(small_answer, large_answer_bytes, server_lifetime_seconds),
          simulator(simulator_program(), work.path(), service_list(), server_lifetime_seconds)
    {
        p12 = work.file("client.p12");
        key_pem = work.file("key.pem");
        cert_pem = work.file("cert.pem");
        tra_path = work.file("tra.xml");
        if (run_program({simulator_program(), "--make-certificate", p12, "--password", password, "--cn", "bench-host"}) != 0)
            throw std::runtime_error("cannot make the client certificate");
        // What a shell integration does once, beforehand: unprotected PEM files.
        const std::string pass = std::string("pass:") + password;
        if (run_program({"openssl", "pkcs12", "-in", p12, "-passin", pass, "-nokeys", "-out", cert_pem}) != 0 ||
            run_program({"openssl", "pkcs12", "-in", p12, "-passin", pass, "-nocerts", "-nodes", "-out", key_pem}) != 0)
            throw std::runtime_error("cannot extract the PEM files");
        tra_text = TRA("", "wsfe", "", "", nullptr).create_tra_xml();
        write_file(tra_path, tra_text);

        write_young_credentials(cached.path(), "wsfe");
        enter(cached.path());
        use_cached_ticket(canned.url("/wsfev1/service.asmx"));
        if (SendSOAP(authorised_request) != AFIP_OK)
            throw std::runtime_error("SendSOAP with a cached ticket failed");
        cached_request_body = last_request_body();
        use_cached_ticket(simulator.url("/wsfev1/service.asmx"));
        if (SendSOAP(dummy_request) != AFIP_OK)
            throw std::runtime_error("SendSOAP of FEDummy to the simulator failed");
        dummy_request_body = last_request_body();
    }

    static std::string service_list()
    {
        std::string list = "wsfe";
        for (int i = 0; i < rotated_services; ++i)
            list += ",bench" + std::to_string(i);
        return list;
    }

    // Every (certificate, service) pair is used again only after hundreds of logins, long after
    // the simulator's one-second ticket has lapsed, so each login is answered with a new ticket.
    std::string next_service() { return "bench" + std::to_string(service_counter++ % rotated_services); }

    // A WSAA address nobody listens on: a login attempt would fail with result 17.
    void use_cached_ticket(const std::string& service_url) const
    {
        SetWSAA("http://127.0.0.1:9/ws/services/LoginCms");
        SetWSAACredentials(p12.c_str(), password);
        SetWSAAService("wsfe");
        SetWSUrl(service_url.c_str());
    }

    TempDirectory work;
    TempDirectory cached;
    TempDirectory login;
    TempDirectory shell;
    CannedServer canned;
    Simulator simulator;
    std::string p12, key_pem, cert_pem, tra_path, tra_text;
    std::string cached_request_body;
    std::string dummy_request_body;
    int service_counter = 0;
};

Environment* environment = nullptr;

void fail(benchmark::State& state, const std::string& what)
{
    state.SkipWithError(what.c_str());
}

void BM_sign_cms_library(benchmark::State& state)
{
    for (auto _ : state) {
        std::string signed_text = sign_cms(environment->tra_text, environment->p12, password);
        if (signed_text.size() < 1000)
            return fail(state, "sign_cms gave no signature");
        benchmark::DoNotOptimize(signed_text);
    }
}

void BM_sign_cms_openssl_command(benchmark::State& state)
{
    const std::string out = environment->work.file("tra.cms");
    const std::vector<std::string> command = {"openssl", "cms", "-sign", "-nodetach", "-outform", "PEM",
                                              "-signer", environment->cert_pem, "-inkey", environment->key_pem,
                                              "-in", environment->tra_path, "-out", out};
    for (auto _ : state)
        if (run_program(command) != 0)
            return fail(state, "openssl cms -sign failed");
}

void send_soap_cached(benchmark::State& state, const std::string& url, const char* request)
{
    enter(environment->cached.path());
    environment->use_cached_ticket(url);
    for (auto _ : state) {
        const int32_t result = SendSOAP(request);
        if (result != AFIP_OK)
            return fail(state, "SendSOAP returned " + std::to_string(result));
    }
}

void curl_post(benchmark::State& state, const std::string& url, const std::string& body, size_t answer_size)
{
    std::string answer;
    for (auto _ : state)
        if (bare_curl_post(url, body, answer) != 200 || (answer_size != 0 && answer.size() != answer_size))
            return fail(state, "bare POST failed");
}

void BM_send_soap_cached(benchmark::State& state)
{
    send_soap_cached(state, environment->canned.url("/wsfev1/service.asmx"), authorised_request);
}

void BM_curl_post_floor(benchmark::State& state)
{
    curl_post(state, environment->canned.url("/wsfev1/service.asmx"), environment->cached_request_body, 0);
}

void BM_send_soap_cached_simulator(benchmark::State& state)
{
    send_soap_cached(state, environment->simulator.url("/wsfev1/service.asmx"), dummy_request);
}

void BM_curl_post_floor_simulator(benchmark::State& state)
{
    curl_post(state, environment->simulator.url("/wsfev1/service.asmx"), environment->dummy_request_body, 0);
}

void BM_send_soap_login(benchmark::State& state)
{
    enter(environment->login.path());
    SetWSAA(environment->simulator.url("/ws/services/LoginCms").c_str());
    SetWSAACredentials(environment->p12.c_str(), password);
    SetWSUrl(environment->simulator.url("/wsfev1/service.asmx").c_str());
    for (auto _ : state) {
        ::unlink("credentials.json");
        SetWSAAService(environment->next_service().c_str());
        const int32_t result = SendSOAP(dummy_request);
        if (result != AFIP_OK)
            return fail(state, "SendSOAP with a login returned " + std::to_string(result));
    }
}

void BM_shell_login_pipeline(benchmark::State& state)
{
    const std::string answer = environment->shell.file("answer.xml");
    for (auto _ : state) {
        const int status = run_program({"sh", TARVO_SHELL_LOGIN_PATH, environment->simulator.url("/ws/services/LoginCms"),
                                        environment->next_service(), environment->key_pem, environment->cert_pem,
                                        environment->shell.path()});
        state.PauseTiming();
        const bool ticket = read_file(answer).find("loginCmsReturn") != std::string::npos;
        state.ResumeTiming();
        if (status != 0 || !ticket)
            return fail(state, "the shell login got no ticket");
    }
}

void BM_send_soap_records(benchmark::State& state)
{
    send_soap_cached(state, environment->canned.url("/records"), authorised_request);
}

void BM_curl_post_records(benchmark::State& state)
{
    curl_post(state, environment->canned.url("/records"), environment->cached_request_body, large_answer_bytes);
}

void BM_send_soap_text(benchmark::State& state)
{
    send_soap_cached(state, environment->canned.url("/text"), authorised_request);
}

void BM_curl_post_text(benchmark::State& state)
{
    curl_post(state, environment->canned.url("/text"), environment->cached_request_body, large_answer_bytes);
}

BENCHMARK(BM_sign_cms_library)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(0.5);
BENCHMARK(BM_sign_cms_openssl_command)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(0.5);
BENCHMARK(BM_send_soap_cached)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(0.5);
BENCHMARK(BM_curl_post_floor)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(0.5);
BENCHMARK(BM_send_soap_cached_simulator)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(0.5);
BENCHMARK(BM_curl_post_floor_simulator)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(0.5);
BENCHMARK(BM_send_soap_login)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_shell_login_pipeline)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);
// A few hundred ms a call: a fixed count, or a slow first call would leave one call per repetition.
BENCHMARK(BM_send_soap_records)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_curl_post_records)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_send_soap_text)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_curl_post_text)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);

// Keeps every repetition's time per benchmark while the console report goes on as usual.
class CollectingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration)
                continue;
            if (run.error_occurred)
                errors[run.run_name.function_name] = run.error_message;
            else
                milliseconds[run.run_name.function_name].push_back(run.GetAdjustedRealTime());
        }
        ConsoleReporter::ReportRuns(runs);
    }

    std::map<std::string, std::vector<double>> milliseconds;
    std::map<std::string, std::string> errors;
};

double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::string format(const char* pattern, double value)
{
    char text[64];
    std::snprintf(text, sizeof text, pattern, value);
    return text;
}

std::string duration_text(double milliseconds)
{
    return milliseconds < 1.0 ? format("%.0f µs", milliseconds * 1000) : format("%.2f ms", milliseconds);
}

struct Peak {
    bool ok = false;
    double answer_bytes = 0;
    double log_bytes = 0;
    double growth = 0;
};

Peak measure_peak(const char* mode, const std::string& path)
{
    const std::string output = environment->work.file("peak.txt");
    Peak peak;
    const int status = run_program({TARVO_ANSWER_PEAK_PATH, mode, environment->canned.url("/wsfev1/service.asmx"),
                                    environment->canned.url(path), environment->cached.path()},
                                   output);
    long long answer = 0, log = 0, before = 0, after = 0;
    long result = -1;
    if (status == 0 && std::sscanf(read_file(output).c_str(), "answer_bytes=%lld log_bytes=%lld rss_before=%lld hwm_after=%lld result=%ld",
                                   &answer, &log, &before, &after, &result) == 5) {
        peak.ok = answer == static_cast<long long>(large_answer_bytes) && (result == 0 || result == 200);
        peak.answer_bytes = static_cast<double>(answer);
        peak.log_bytes = static_cast<double>(log);
        peak.growth = static_cast<double>(after - before);
    }
    return peak;
}

void print_table(const CollectingReporter& reporter)
{
    auto time_row = [&](const std::string& what, const char* library, const char* comparison,
                        const std::string& comparison_name, const std::string& notes) {
        auto ran = [&](const char* name) { return reporter.errors.count(name) + reporter.milliseconds.count(name) != 0; };
        if (!ran(library) && !ran(comparison))
            return; // left out by --benchmark_filter
        for (const char* name : {library, comparison})
            if (reporter.errors.count(name) != 0 || reporter.milliseconds.count(name) == 0) {
                std::printf("| %s | failed: %s | | | |\n", what.c_str(),
                            reporter.errors.count(name) ? reporter.errors.at(name).c_str() : "not run");
                return;
            }
        const double ours = median(reporter.milliseconds.at(library));
        const double theirs = median(reporter.milliseconds.at(comparison));
        std::printf("| %s | %s | %s: %s | %.2f× | %s |\n", what.c_str(), duration_text(ours).c_str(),
                    comparison_name.c_str(), duration_text(theirs).c_str(), ours / theirs, notes.c_str());
    };
    auto memory_row = [&](const std::string& what, const std::string& path, const std::string& notes) {
        const Peak ours = measure_peak("library", path);
        const Peak theirs = measure_peak("curl", path);
        if (!ours.ok || !theirs.ok) {
            std::printf("| %s | failed | | | |\n", what.c_str());
            return;
        }
        const double mib = 1024.0 * 1024.0;
        std::printf("| %s | %.2f B per answer byte (%.0f MiB; log %.0f MiB) | bare libcurl: %.2f B per answer byte (%.0f MiB) "
                    "| %.2f× | %s |\n",
                    what.c_str(), ours.growth / ours.answer_bytes, ours.growth / mib, ours.log_bytes / mib,
                    theirs.growth / theirs.answer_bytes, theirs.growth / mib, ours.growth / theirs.growth, notes.c_str());
    };

    std::printf("| what | library | comparison | ratio | notes |\n");
    std::printf("|---|---|---|---|---|\n");
    time_row("`sign_cms` of a login ticket request, RSA-2048 PKCS#12", "BM_sign_cms_library",
             "BM_sign_cms_openssl_command", "`openssl cms -sign -nodetach -outform PEM` process",
             "library reads and decrypts the PKCS#12 on every call; the command gets unprotected PEM files "
             "extracted beforehand; whole process spawn timed");
    time_row("one `SendSOAP`, cached ticket", "BM_send_soap_cached", "BM_curl_post_floor",
             "bare libcurl POST, fresh easy handle",
             "same body to a minimal loopback server answering at once (FECompUltimoAutorizado with a "
             "ticket from credentials.json); target ≤ 1.3×");
    time_row("one `SendSOAP`, cached ticket, simulator", "BM_send_soap_cached_simulator",
             "BM_curl_post_floor_simulator", "bare libcurl POST, fresh easy handle",
             "as above, FEDummy to the simulator over HTTP, which parses the request and builds its answer");
    time_row("full login (cache miss) through `SendSOAP`", "BM_send_soap_login", "BM_shell_login_pipeline",
             "shell: `openssl cms -sign`, then `curl -s -X POST`",
             "both against the simulator over HTTP; `SendSOAP` then also posts FEDummy and writes "
             "credentials.json, the shell only logs in");
    time_row("50 MiB answer through `SendSOAP`: time, many small records", "BM_send_soap_records",
             "BM_curl_post_records", "bare libcurl POST",
             "the library also keeps the transfer log and checks that the answer is well-formed XML: the "
             "parse builds a DOM of the records");
    time_row("50 MiB answer through `SendSOAP`: time, one long text", "BM_send_soap_text", "BM_curl_post_text",
             "bare libcurl POST", "as above, answer is one 50 MiB text element (a document in Base64)");
    memory_row("50 MiB answer: peak memory, many small records", "/records",
               "peak RSS growth of one call in a process of its own; target ≤ 3, floor 2 (answer + log)");
    memory_row("50 MiB answer: peak memory, one long text", "/text",
               "as above, answer is one 50 MiB text element (a document in Base64)");
}

} // namespace

int main(int argc, char** argv)
{
    // WSAA reads the ticket request's times as UTC-3; no proxy between us and loopback.
    setenv("TZ", "<-03>3", 1);
    tzset();
    for (const char* name : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
        unsetenv(name);

    std::vector<char*> arguments(argv, argv + argc);
    std::string repetitions = "--benchmark_repetitions=5";
    std::string interleaving = "--benchmark_enable_random_interleaving=true";
    if (argc == 1) {
        arguments.push_back(repetitions.data());
        arguments.push_back(interleaving.data());
    }
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data()))
        return 2;

    try {
        std::unique_ptr<Environment> shared = std::make_unique<Environment>();
        environment = shared.get();
        CollectingReporter reporter;
        reporter.SetOutputStream(&std::cerr);
        reporter.SetErrorStream(&std::cerr);
        benchmark::RunSpecifiedBenchmarks(&reporter);
        print_table(reporter);
        environment = nullptr;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tarvo_bench: %s\n", error.what());
        return 1;
    }
    benchmark::Shutdown();
    return 0;
}
