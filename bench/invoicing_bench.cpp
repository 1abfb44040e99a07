// Round trips and time of invoicing against the simulator answering each WSFEv1 request 100 ms
// late, as AFIP answers in hundreds of milliseconds: the usual two requests a sale through the
// twelve functions, one a sale through the invoicing core's ledger, and batches; then the peak
// memory of a 10,000-sale batch. Prints Markdown rows on standard output.
//   tarvo_invoicing_bench [SALES_ONE_AT_A_TIME [BATCH [LARGE_BATCH]]]
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "bench_support.h"
#include "invoicing/wsfev1_answers.h"
#include "invoicing/wsfev1_requests.h"
#include "tarvoafipdriver.h"
#include "tarvoafipinvoicing.h"
#include "util/wsfev1.h"

namespace {

const std::int64_t issuer = 20111111112;
const char password[] = "bench-secret";
const char service_delay_ms[] = "100";

std::string voucher_json(const std::string& sale_id, int point_of_sale)
{
    return R"({"sale_id":")" + sale_id + R"(","PtoVta":)" + std::to_string(point_of_sale) +
           R"(,"CbteTipo":6,"Concepto":1,"DocTipo":99,"DocNro":0,"ImpTotal":121,"ImpNeto":100,"ImpIVA":21,)"
           R"("CondicionIVAReceptorId":5,"Iva":[{"Id":5,"BaseImp":100,"Importe":21}]})";
}

std::string batch_json(const std::string& prefix, int point_of_sale, int count)
{
    std::string list = "[";
    for (int i = 0; i < count; ++i)
        list += (i ? "," : "") + voucher_json(prefix + std::to_string(i), point_of_sale);
    return list + "]";
}

// Requests per WSFEv1 operation in the simulator's log so far.
std::map<std::string, int> requests_by_operation(const std::string& log_path)
{
    std::map<std::string, int> counts;
    const std::string log = read_file(log_path);
    for (size_t at = log.find("POST /wsfev1/service.asmx "); at != std::string::npos;
         at = log.find("POST /wsfev1/service.asmx ", at + 1)) {
        const size_t operation = log.find(' ', at + 26) + 1; // after the status
        counts[log.substr(operation, log.find(' ', operation) - operation)]++;
    }
    return counts;
}

int difference(const std::map<std::string, int>& after, const std::map<std::string, int>& before)
{
    int total = 0;
    for (const auto& [operation, count] : after)
        total += count - (before.count(operation) ? before.at(operation) : 0);
    return total;
}

double seconds_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::string settings_json(const Simulator& simulator, const std::string& certificate)
{
    return R"({"cuit":20111111112,"wsaa_url":")" + simulator.url("/ws/services/LoginCms") + R"(","url":")" +
           simulator.url("/wsfev1/service.asmx") + R"(","certificate":")" + certificate + R"(","password":")" +
           password + R"("})";
}

std::string received()
{
    uint32_t size = 0;
    ReceivedSOAP(nullptr, 0, &size);
    std::string answer(size, '\0');
    ReceivedSOAP(answer.data(), size, &size);
    return answer;
}

// The way hosts invoice without a ledger: FECompUltimoAutorizado, then FECAESolicitar with the next
// number, each through SendSOAP; the core's request writer builds the same XML a host would.
bool usual_sale(const Voucher& voucher)
{
    AddSOAPHeader(wsfev1_soap_action("FECompUltimoAutorizado").c_str());
    if (SendSOAP(last_authorised_request(issuer, voucher.point_of_sale, voucher.voucher_type).c_str()) != AFIP_OK)
        return false;
    const auto last = read_last_authorised(received());
    if (!last || !last->number)
        return false;
    AddSOAPHeader(wsfev1_soap_action("FECAESolicitar").c_str());
    if (SendSOAP(authorisation_request(issuer, {{&voucher, *last->number + 1, "20261123"}}).c_str()) != AFIP_OK)
        return false;
    const auto answer = read_authorisation_answer(received());
    return answer && answer->result == "A";
}

void row(const char* what, int sales, int requests, int authorisations, double seconds, const std::string& note)
{
    std::printf("| %s | %d | %d (%d FECAESolicitar) | %.3f | %.2f s | %.1f ms | %s |\n", what, sales, requests,
                authorisations, static_cast<double>(requests) / sales, seconds, 1000 * seconds / sales, note.c_str());
}

} // namespace

int main(int argc, char** argv)
{
    const int one_at_a_time = argc > 1 ? std::atoi(argv[1]) : 10;
    const int batch = argc > 2 ? std::atoi(argv[2]) : 1000;
    const int large_batch = argc > 3 ? std::atoi(argv[3]) : 10000;
    TempDirectory work;
    if (chdir(work.path().c_str()) != 0)
        return 1;
    setenv("TZ", "<-03>3", 1);
    const std::string certificate = work.file("bench.p12");
    run_program({TARVO_SIMULATOR_PATH, "--make-certificate", certificate, "--password", password});
    const std::string log = work.file("simulator.log");
    const Simulator simulator(TARVO_SIMULATOR_PATH, work.path(), "wsfe", 1800,
                              {"--ticket-seconds", "43200", "--refuse-relogin-seconds", "0", "--service-delay-ms",
                               service_delay_ms},
                              log);
    const std::string settings = settings_json(simulator, certificate);

    std::printf("| how | sales | requests to WSFEv1 | requests a sale | time | a sale | notes |\n");
    std::printf("|---|---|---|---|---|---|---|\n");

    // Two round trips a sale, as hosts do without a ledger.
    SetWSAA(simulator.url("/ws/services/LoginCms").c_str());
    SetWSAACredentials(certificate.c_str(), password);
    SetWSAAService("wsfe");
    SetWSUrl(simulator.url("/wsfev1/service.asmx").c_str());
    const Voucher usual = read_voucher(voucher_json("usual", 11));
    usual_sale(usual); // logs in and caches the ticket, as every later row finds it
    auto before = requests_by_operation(log);
    auto start = std::chrono::steady_clock::now();
    int approved = 0;
    for (int i = 0; i < one_at_a_time; ++i)
        approved += usual_sale(usual);
    double usual_seconds = seconds_since(start);
    auto after = requests_by_operation(log);
    row("FECompUltimoAutorizado + FECAESolicitar a sale, through SendSOAP", one_at_a_time, difference(after, before),
        after["FECAESolicitar"] - before["FECAESolicitar"], usual_seconds,
        std::to_string(approved) + " approved; " + std::to_string(batch) + " sales this way: about " +
            std::to_string(static_cast<int>(usual_seconds / one_at_a_time * batch)) + " s");

    // One at a time through the core: the ledger knows the series after its first sale.
    tarvo_invoicing* core = nullptr;
    if (tarvo_invoicing_open(settings.c_str(), &core) != TARVO_INVOICING_OK)
        return 1;
    char* outcome = nullptr;
    tarvo_invoicing_authorise(core, voucher_json("first", 12).c_str(), &outcome);
    tarvo_invoicing_free(outcome);
    before = requests_by_operation(log);
    start = std::chrono::steady_clock::now();
    approved = 0;
    for (int i = 0; i < one_at_a_time; ++i) {
        approved += tarvo_invoicing_authorise(core, voucher_json("one-" + std::to_string(i), 12).c_str(), &outcome) == 0;
        tarvo_invoicing_free(outcome);
    }
    double seconds = seconds_since(start);
    after = requests_by_operation(log);
    row("one at a time through the core, the ledger knowing the number", one_at_a_time, difference(after, before),
        after["FECAESolicitar"] - before["FECAESolicitar"], seconds, std::to_string(approved) + " approved");

    // A batch, on a series the ledger does not know yet.
    before = requests_by_operation(log);
    start = std::chrono::steady_clock::now();
    const int batch_status = tarvo_invoicing_authorise_batch(core, batch_json("batch-", 13, batch).c_str(), &outcome);
    seconds = seconds_since(start);
    tarvo_invoicing_free(outcome);
    after = requests_by_operation(log);
    row("a batch through the core", batch, difference(after, before), after["FECAESolicitar"] - before["FECAESolicitar"],
        seconds, batch_status == 0 ? "all approved" : "status " + std::to_string(batch_status));
    tarvo_invoicing_close(core);

    // The peak memory of a large batch, in a process of its own.
    start = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child == 0) {
        tarvo_invoicing* own = nullptr;
        tarvo_invoicing_open(settings.c_str(), &own);
        const int status = tarvo_invoicing_authorise_batch(own, batch_json("large-", 14, large_batch).c_str(), &outcome);
        tarvo_invoicing_free(outcome);
        tarvo_invoicing_close(own);
        _exit(status);
    }
    int status = 0;
    waitpid(child, &status, 0);
    seconds = seconds_since(start);
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    std::printf("\nA batch of %d sales: %.2f s, status %d; peak resident memory of its process %.1f MiB "
                "(the batch's JSON text, its vouchers, the requests of one series and every outcome).\n",
                large_batch, seconds, WIFEXITED(status) ? WEXITSTATUS(status) : -1, usage.ru_maxrss / 1024.0);
    return 0;
}
