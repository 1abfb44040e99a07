// The invoicing core against the simulator: sales killed anywhere and run again, tills sharing one
// ledger, and ledgers that cannot be used.
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sqlite3.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "invoicing/authorisation.h"
#include "invoicing/caea.h"
#include "invoicing/wsfev1_requests.h"
#include "support/support.h"

namespace {

const std::int64_t issuer = 20111111112;

// A Factura B to a DNI; the DNI tells each sale's voucher apart at AFIP.
Voucher voucher_of(const std::string& sale_id, long long dni, int point_of_sale = 1)
{
    return read_voucher(R"({"sale_id":")" + sale_id + R"(","PtoVta":)" + std::to_string(point_of_sale) +
                        R"(,"CbteTipo":6,"Concepto":1,"DocTipo":96,"DocNro":)" + std::to_string(dni) +
                        R"(,"ImpTotal":121,"ImpNeto":100,"ImpIVA":21,"CondicionIVAReceptorId":5,)"
                        R"("Iva":[{"Id":5,"BaseImp":100,"Importe":21}]})");
}

SoapSettings settings_for(const Simulator& simulator)
{
    SoapSettings settings;
    settings.wsaa_url = simulator.url("/ws/services/LoginCms");
    settings.ws_url = simulator.url("/wsfev1/service.asmx");
    settings.certificate_path = fixture("signer.p12");
    settings.certificate_password = "pw";
    settings.service = "wsfe";
    return settings;
}

// Authorises through a fresh ledger connection and channel, as one host's run does.
SaleOutcome authorise(const Simulator& simulator, const Voucher& voucher, AfipChannel* channel = nullptr)
{
    Ledger ledger("ledger.sqlite");
    LibraryChannel library(settings_for(simulator), {});
    return Authoriser(ledger, channel ? *channel : library, AuthorisationSettings(issuer)).authorise({voucher}).front();
}

// A channel whose exchange number `stop_at` says so on a pipe (before it is sent, or after its
// answer came back) and, unless `go_on`, waits there to be killed.
class StoppingChannel : public AfipChannel {
public:
    StoppingChannel(AfipChannel& inner, int stop_at, bool after, bool go_on, int tell)
        : m_inner(inner), m_stop_at(stop_at), m_after(after), m_go_on(go_on), m_tell(tell)
    {
    }
    ServiceExchange send(const std::string& operation, const std::string& request) override
    {
        if (!m_after && m_calls == m_stop_at)
            stop();
        ServiceExchange exchange = m_inner.send(operation, request);
        if (m_after && m_calls == m_stop_at)
            stop();
        ++m_calls;
        return exchange;
    }
    void pause(int milliseconds) override { m_inner.pause(milliseconds); }

private:
    void stop()
    {
        (void)!::write(m_tell, "!", 1);
        while (!m_go_on)
            ::pause();
    }
    AfipChannel& m_inner;
    int m_calls = 0;
    const int m_stop_at;
    const bool m_after, m_go_on;
    const int m_tell;
};

// What AFIP holds under each number of a point of sale, type 6: (DNI, CAE); and the last number.
std::pair<std::map<std::int64_t, std::pair<std::string, std::string>>, std::int64_t> vouchers_at(const Simulator& simulator,
                                                                                                 int point_of_sale)
{
    LibraryChannel channel(settings_for(simulator), {});
    const auto last = read_last_authorised(
        channel.send("FECompUltimoAutorizado", last_authorised_request(issuer, point_of_sale, 6)).answer);
    std::map<std::int64_t, std::pair<std::string, std::string>> held;
    for (std::int64_t number = 1; last && number <= last->number.value_or(0); ++number) {
        const auto found = read_consulted_voucher(
            channel.send("FECompConsultar", consultation_request(issuer, point_of_sale, 6, number)).answer);
        if (found && found->found)
            held[number] = {found->field("DocNro"), found->field("CodAutorizacion")};
    }
    return {held, last && last->number ? *last->number : -1};
}

// Every sale approved in the ledger with its own number, and AFIP holding exactly its voucher and
// CAE under that number: one voucher per sale, none lost.
void expect_one_voucher_per_sale(const Simulator& simulator, const std::map<std::string, long long>& dni_of_sale,
                                 int point_of_sale = 1)
{
    Ledger ledger("ledger.sqlite");
    const auto [held, last] = vouchers_at(simulator, point_of_sale);
    EXPECT_EQ(last, static_cast<std::int64_t>(dni_of_sale.size()));
    std::set<std::int64_t> numbers;
    for (const auto& [sale_id, dni] : dni_of_sale) {
        const std::optional<SaleRecord> sale = ledger.sale(sale_id);
        ASSERT_TRUE(sale && sale->state == SaleState::approved && sale->number) << sale_id;
        EXPECT_TRUE(numbers.insert(*sale->number).second) << sale_id << " shares number " << *sale->number;
        const auto at = held.find(*sale->number);
        ASSERT_NE(at, held.end()) << sale_id;
        EXPECT_EQ(at->second, std::make_pair(std::to_string(dni), sale->cae)) << sale_id;
    }
}

// The FECAESolicitar requests the simulator received so far.
size_t authorisation_requests(const Simulator& simulator)
{
    size_t count = 0;
    for (const auto& request : simulator.requests("/wsfev1/service.asmx"))
        count += request["body"].get<std::string>().find("<ar:FECAESolicitar>") != std::string::npos;
    return count;
}

class Invoicing : public ::testing::Test {
protected:
    Invoicing() { use_time_zone("<-03>3"); }
    Workspace workspace;
};

} // namespace

// Hosts killed hundreds of times at random moments of an authorisation: before an exchange, while
// AFIP takes its time to answer, after the answer came and before it was recorded; each sale is
// run again with its sale id until a run ends. One voucher per sale at AFIP, its CAE in the ledger.
TEST_F(Invoicing, HostsKilledAnywhereLeaveOneVoucherPerSale)
{
    Simulator simulator({"--refuse-relogin-seconds", "0", "--service-delay-ms", "20"});
    std::map<std::string, long long> dni_of_sale{{"warm", 30000000}};
    ASSERT_EQ(authorise(simulator, voucher_of("warm", 30000000)).status, status::approved); // the ticket, cached
    int told[2];
    ASSERT_EQ(pipe(told), 0);
    std::mt19937 random(std::random_device{}());
    int kills = 0, sale = 0;
    std::map<std::string, int> kills_by_moment;
    for (int round = 0; kills < 200 && round < 2000; ++round) {
        const std::string sale_id = "sale-" + std::to_string(sale);
        const long long dni = 30000001 + sale;
        dni_of_sale[sale_id] = dni;
        const int moment = static_cast<int>(random() % 3); // 0 before, 1 during, 2 after an exchange
        const int stop_at = static_cast<int>(random() % 2); // a sale run again asks FECompConsultar first
        const pid_t host = fork();
        if (host == 0) {
            alarm(120); // never outlives a parent that failed
            Ledger ledger("ledger.sqlite");
            LibraryChannel library(settings_for(simulator), {});
            StoppingChannel channel(library, stop_at, moment == 2, moment == 1, told[1]);
            const SaleOutcome outcome = Authoriser(ledger, channel, AuthorisationSettings(issuer)).authorise({voucher_of(sale_id, dni)}).front();
            _exit(outcome.status == status::approved ? 0 : 1);
        }
        bool stopped = false;
        int status = 0;
        while (!stopped && waitpid(host, &status, WNOHANG) == 0) {
            pollfd tell{told[0], POLLIN, 0};
            char byte = 0;
            stopped = poll(&tell, 1, 50) == 1 && read(told[0], &byte, 1) == 1;
        }
        if (!stopped) { // the run ended before its moment came: the sale is done
            ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << sale_id << " status " << status;
            ++sale;
            continue;
        }
        if (moment == 1)
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 40000));
        kill(host, SIGKILL);
        waitpid(host, &status, 0);
        if (!WIFSIGNALED(status)) { // the exchange it was to die in ended the run first
            ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << sale_id << " status " << status;
            ++sale;
            continue;
        }
        ++kills;
        ++kills_by_moment[std::to_string(moment) + "/" + std::to_string(stop_at)];
    }
    close(told[0]);
    close(told[1]);
    EXPECT_GE(kills, 200);
    EXPECT_EQ(kills_by_moment.size(), 6u) << "every moment of both exchanges was hit";
    for (const auto& [sale_id, dni] : dni_of_sale) // the last sale, and any that a kill left pending
        ASSERT_EQ(authorise(simulator, voucher_of(sale_id, dni)).status, status::approved) << sale_id;
    expect_one_voucher_per_sale(simulator, dni_of_sale);
}

// Four tills, one ledger, one point of sale: 25 sales each give 100 vouchers numbered 1 to 100.
TEST_F(Invoicing, FourTillsShareOneLedgerAndOneSeries)
{
    Simulator simulator({"--refuse-relogin-seconds", "0"});
    ASSERT_EQ(authorise(simulator, voucher_of("till-0-0", 40000000)).status, status::approved);
    std::vector<pid_t> tills;
    std::map<std::string, long long> dni_of_sale;
    for (int till = 0; till < 4; ++till)
        for (int sale = 0; sale < 25; ++sale)
            dni_of_sale["till-" + std::to_string(till) + "-" + std::to_string(sale)] = 40000000 + till * 100 + sale;
    for (int till = 0; till < 4; ++till) {
        const pid_t pid = fork();
        if (pid == 0) {
            alarm(300);
            int failures = 0;
            for (int sale = 0; sale < 25; ++sale) {
                const std::string sale_id = "till-" + std::to_string(till) + "-" + std::to_string(sale);
                failures += authorise(simulator, voucher_of(sale_id, dni_of_sale.at(sale_id))).status != status::approved;
            }
            _exit(failures);
        }
        tills.push_back(pid);
    }
    for (const pid_t till : tills) {
        int status = 0;
        waitpid(till, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "till " << till << " status " << status;
    }
    expect_one_voucher_per_sale(simulator, dni_of_sale);
}

// A ledger that cannot be used stops invoicing with its reason, sends nothing, and is left as it was.
TEST_F(Invoicing, UnusableLedgersSendNothingAndStayAsTheyWere)
{
    Simulator simulator({"--refuse-relogin-seconds", "0"});
    ASSERT_EQ(authorise(simulator, voucher_of("first", 50000000)).status, status::approved);
    const std::string ledger_bytes = read_file("ledger.sqlite");
    const auto with_sql = [](const char* sql) {
        sqlite3* db = nullptr;
        sqlite3_open("ledger.sqlite", &db);
        sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
        sqlite3_close(db);
    };
    const struct {
        const char* name;
        std::function<void()> spoil;
        const char* message;
    } cases[] = {
        {"not a database", [] { write_file("ledger.sqlite", std::string(4096, 'x')); }, "is not a ledger"},
        {"another program's database", [&] { unlink("ledger.sqlite"), with_sql("CREATE TABLE orders (id INTEGER)"); },
         "database of another program"},
        {"a newer schema", [&] { write_file("ledger.sqlite", ledger_bytes), with_sql("PRAGMA user_version = 99"); },
         "schema version 99, newer"},
        {"damaged pages", [&] { write_file("ledger.sqlite", ledger_bytes.substr(0, 8192) + std::string(ledger_bytes.size() - 8192, '\x5a')); },
         "ledger"},
        {"a disk without room", [&] { write_file("ledger.sqlite", ledger_bytes); }, "ledger"},
        {"a read-only file system", [&] { write_file("ledger.sqlite", ledger_bytes); }, "cannot be written"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        unlink("ledger.sqlite-wal"), unlink("ledger.sqlite-shm");
        each.spoil();
        const std::string before = read_file("ledger.sqlite");
        const size_t sent = simulator.requests("/wsfev1/service.asmx").size();
        int pipe_ends[2];
        ASSERT_EQ(pipe(pipe_ends), 0);
        const pid_t host = fork();
        if (host == 0) {
            alarm(60);
            if (std::string(each.name) == "a disk without room") {
                signal(SIGXFSZ, SIG_IGN);
                const rlimit limit{0, 0};
                setrlimit(RLIMIT_FSIZE, &limit);
            } else if (std::string(each.name) == "a read-only file system") {
                // As root: a private mount of the working directory, read-only. Where that cannot be
                // made (a chroot, no privilege): the modes, and root without its power to ignore them.
                const char* here = workspace.path().c_str();
                if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0 ||
                    mount(here, here, "none", MS_BIND, nullptr) != 0 ||
                    mount("none", here, "none", MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0 || chdir(here) != 0) {
                    chmod("ledger.sqlite", 0444), chmod(".", 0555);
                    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
                    __user_cap_data_struct capabilities[2] = {};
                    if (syscall(SYS_capget, &header, capabilities) == 0) {
                        capabilities[0].effective &= ~(1u << CAP_DAC_OVERRIDE);
                        (void)syscall(SYS_capset, &header, capabilities);
                    }
                }
            }
            SaleOutcome outcome;
            try {
                outcome = authorise(simulator, voucher_of("second", 50000001));
            } catch (const LedgerError& error) {
                outcome.status = status::ledger_unusable, outcome.message = error.what();
            }
            (void)!write(pipe_ends[1], outcome.message.data(), outcome.message.size());
            _exit(outcome.status);
        }
        close(pipe_ends[1]);
        int status = 0;
        waitpid(host, &status, 0);
        chmod(".", 0755), chmod("ledger.sqlite", 0644);
        char message[512] = {};
        (void)!read(pipe_ends[0], message, sizeof message - 1);
        close(pipe_ends[0]);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == status::ledger_unusable) << status << " " << message;
        EXPECT_NE(std::string(message).find(each.message), std::string::npos) << message;
        EXPECT_EQ(simulator.requests("/wsfev1/service.asmx").size(), sent) << "nothing was sent";
        EXPECT_TRUE(read_file("ledger.sqlite") == before) << "the ledger was left as it was";
    }
}

// A batch goes as one request; AFIP stops at a rejected voucher, whose number no sale keeps, and
// the vouchers it stopped go again renumbered. Running the batch again authorises nothing twice,
// and a host killed after AFIP's answer, before recording it, is settled by the next run.
TEST_F(Invoicing, BatchesAreOneRequestRenumberWhatAfipStoppedAndRunAgainSafely)
{
    Simulator simulator({"--refuse-relogin-seconds", "0"});
    std::vector<Voucher> batch;
    std::map<std::string, long long> dni_of_sale;
    for (int i = 0; i < 7; ++i) {
        batch.push_back(voucher_of("batch-" + std::to_string(i), 60000000 + i, 2));
        if (i != 3)
            dni_of_sale[batch.back().sale_id] = 60000000 + i;
    }
    batch[3].total = Money::from_cents(12000); // not the sum of its amounts: 10048 rejects it
    const auto run = [&](const std::vector<Voucher>& vouchers) {
        Ledger ledger("ledger.sqlite");
        LibraryChannel channel(settings_for(simulator), {});
        return Authoriser(ledger, channel, AuthorisationSettings(issuer)).authorise(vouchers);
    };
    std::vector<SaleOutcome> outcomes = run(batch);
    const std::vector<std::pair<int, std::int64_t>> expected = {{0, 1}, {0, 2}, {0, 3}, {20, 4}, {0, 4}, {0, 5}, {0, 6}};
    for (size_t i = 0; i < outcomes.size(); ++i)
        EXPECT_EQ(std::make_pair(outcomes[i].status, outcomes[i].number), expected[i]) << i;
    EXPECT_EQ(authorisation_requests(simulator), 2u) << "the batch, then the three AFIP stopped";
    EXPECT_FALSE(Ledger("ledger.sqlite").sale("batch-3")->number) << "a rejected voucher keeps no number";

    outcomes = run(batch);
    for (size_t i = 0; i < outcomes.size(); ++i)
        EXPECT_EQ(outcomes[i].from_ledger, i != 3) << i;
    EXPECT_EQ(authorisation_requests(simulator), 3u) << "only the rejected voucher went again";
    expect_one_voucher_per_sale(simulator, dni_of_sale, 2);

    // Killed with AFIP's answer in hand, before the ledger learnt it.
    std::vector<Voucher> second;
    for (int i = 0; i < 5; ++i) {
        second.push_back(voucher_of("second-" + std::to_string(i), 61000000 + i, 2));
        dni_of_sale[second.back().sale_id] = 61000000 + i;
    }
    int told[2];
    ASSERT_EQ(pipe(told), 0);
    const pid_t host = fork();
    if (host == 0) {
        alarm(60);
        Ledger ledger("ledger.sqlite");
        LibraryChannel library(settings_for(simulator), {});
        StoppingChannel channel(library, 1, true, false, told[1]); // after FECompTotXRequest, FECAESolicitar
        Authoriser(ledger, channel, AuthorisationSettings(issuer)).authorise(second);
        _exit(1);
    }
    char byte = 0;
    ASSERT_EQ(read(told[0], &byte, 1), 1);
    kill(host, SIGKILL);
    waitpid(host, nullptr, 0);
    close(told[0]), close(told[1]);
    outcomes = run(second);
    for (const SaleOutcome& outcome : outcomes)
        EXPECT_TRUE(outcome.status == status::approved && outcome.recovered) << outcome.sale_id << " " << outcome.message;
    EXPECT_EQ(authorisation_requests(simulator), 4u) << "the killed host's batch, and nothing more";
    expect_one_voucher_per_sale(simulator, dni_of_sale, 2);
}

// Vouchers sold under a CAEA while WSFEv1 cannot be reached, then informed by hosts killed before
// and after FECAEARegInformativo: in the end each is informed once, none lost.
TEST_F(Invoicing, InformingKilledAnywhereInformsEachCaeaVoucherOnce)
{
    Simulator simulator({"--refuse-relogin-seconds", "0", "--today", "2026-07-10"});
    {
        Ledger ledger("ledger.sqlite");
        LibraryChannel channel(settings_for(simulator), {});
        ASSERT_EQ(CaeaDesk(ledger, channel, issuer).request(202607, 1).status, status::approved);
        SoapSettings unreachable = settings_for(simulator);
        unreachable.ws_url = "http://127.0.0.1:1/wsfev1/service.asmx";
        LibraryChannel offline(unreachable, {});
        std::vector<Voucher> sold;
        for (int i = 0; i < 6; ++i) {
            sold.push_back(voucher_of("offline-" + std::to_string(i), 70000000 + i));
            sold.back().date = "20260705";
        }
        AuthorisationSettings contingency(issuer);
        contingency.contingency = true;
        contingency.caea_point_of_sale = 7;
        for (const SaleOutcome& outcome : Authoriser(ledger, offline, contingency).authorise(sold))
            ASSERT_EQ(outcome.status, status::caea_issued) << outcome.message;
    }
    int told[2];
    ASSERT_EQ(pipe(told), 0);
    std::mt19937 random(std::random_device{}());
    for (int round = 0; round < 12; ++round) {
        const pid_t host = fork();
        if (host == 0) {
            alarm(60);
            Ledger ledger("ledger.sqlite");
            LibraryChannel library(settings_for(simulator), {});
            StoppingChannel channel(library, static_cast<int>(random() % 2), round % 2 == 1, false, told[1]);
            CaeaDesk(ledger, channel, issuer).inform();
            _exit(0);
        }
        bool stopped = false;
        int status = 0;
        while (!stopped && waitpid(host, &status, WNOHANG) == 0) {
            pollfd tell{told[0], POLLIN, 0};
            char byte = 0;
            stopped = poll(&tell, 1, 50) == 1 && read(told[0], &byte, 1) == 1;
        }
        kill(host, SIGKILL);
        waitpid(host, nullptr, 0);
    }
    close(told[0]), close(told[1]);
    Ledger ledger("ledger.sqlite");
    LibraryChannel channel(settings_for(simulator), {});
    CaeaDesk(ledger, channel, issuer).inform();
    EXPECT_TRUE(ledger.sales_to_inform(issuer).empty());
    const auto [held, last] = vouchers_at(simulator, 7);
    EXPECT_EQ(last, 6);
    for (int i = 0; i < 6; ++i) {
        const std::optional<SaleRecord> sale = ledger.sale("offline-" + std::to_string(i));
        ASSERT_TRUE(sale && sale->informed == "yes" && sale->number) << i;
        EXPECT_EQ(held.at(*sale->number).first, std::to_string(70000000 + i));
    }
}
