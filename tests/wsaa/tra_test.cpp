// The access ticket offline: the login ticket request, the loginCms envelope, fault texts, and
// credentials.json, with a TRA whose renewal always ends in result 1 (its certificate is missing).
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>
#include <thread>

#include "driver/afip_driver_exception.h"
#include "http/easy_http.h"
#include "support/support.h"
#include "util/atomic_file.h"
#include "wsaa/tra.h"

namespace {

using std::chrono::seconds;
using Clock = std::chrono::system_clock;

constexpr int64_t int32_max = std::numeric_limits<int32_t>::max();
constexpr int64_t int32_min = std::numeric_limits<int32_t>::min();

TRA offline_tra(const std::string& service = "wsfe")
{
    return TRA("http://127.0.0.1:1/", service, "missing.p12", "", std::make_shared<EasyHTTP>(""));
}

int32_t age_code(const std::string& generated)
{
    return code_of([&] { offline_tra().check_tra_is_expired(generated); });
}

std::string local_text(int64_t when)
{
    return TRA::time_t_2_format_date(static_cast<std::time_t>(when));
}

std::string element(const std::string& xml, const std::string& name)
{
    const size_t start = xml.find("<" + name + ">") + name.size() + 2;
    return xml.substr(start, xml.find("</" + name + ">") - start);
}

std::string cache_entry(const std::string& service, const std::string& generated)
{
    return "{\"" + service + "\": {\"expired\": \"" + generated + "\", \"sign\": \"S\", \"token\": \"T\"}}";
}

// Files in the working directory.
long entries()
{
    return std::distance(std::filesystem::directory_iterator("."), std::filesystem::directory_iterator());
}

// A disk whose write or fsync call number `failing` fails with `error`; writes take 7 bytes at most.
// Given a pipe's end in `stop_and_tell`, that call instead says so there and waits to be killed.
struct FailingDisk {
    FailingDisk(int failing_call, int error_code, int stop_and_tell = -1)
    {
        calls = 0, failing = failing_call, error = error_code, tell = stop_and_tell;
    }
    ~FailingDisk() { file_write_calls = {::write, ::fsync}; }
    static bool step()
    {
        if (calls == failing && tell >= 0)
            for ((void)!::write(tell, "!", 1);;)
                ::pause();
        return errno = error, calls++ != failing;
    }
    static inline int calls, failing, error, tell;
    const FileWriteCalls installed = file_write_calls = {
        [](int fd, const void* data, size_t size) { return step() ? ::write(fd, data, std::min<size_t>(size, 7)) : -1; },
        [](int fd) { return step() ? ::fsync(fd) : -1; }};
};

class CredentialsCache : public ::testing::Test {
protected:
    CredentialsCache() { use_time_zone("<-03>3"); }
    std::string minutes_ago(int minutes) const { return local_text(std::time(nullptr) - minutes * 60); }
    Workspace workspace;
};

} // namespace

TEST(LoginTicketRequest, ExactTextLocalTimesWithoutOffset)
{
    // 2026-11-16T01:56:42.999Z: generated an hour back, expiring twelve hours ahead, seconds truncated.
    const Clock::time_point now = Clock::time_point(seconds(1794794202)) + std::chrono::milliseconds(999);
    use_time_zone("<-03>3");
    EXPECT_EQ(offline_tra("ws_example").create_tra_xml(now),
              "<?xml version=\"1.0\" encoding=\"utf-8\"?><loginTicketRequest version=\"1.0\"><header><uniqueId>"
              "2261374686</uniqueId><generationTime>2026-11-15T21:56:42</generationTime><expirationTime>"
              "2026-11-16T10:56:42</expirationTime></header><service>ws_example</service></loginTicketRequest>");
    EXPECT_EQ(element(offline_tra("a&b<c>").create_tra_xml(now), "service"), "a&amp;b&lt;c&gt;");
    EXPECT_EQ(offline_tra("").create_tra_xml(now).find("service"), std::string::npos);

    const struct {
        const char* zone;
        int64_t now_seconds;
        int64_t extra_ms;
        const char* generation;
        const char* expiration;
    } cases[] = {
        {"UTC0", 1794794202, 999, "2026-11-16T00:56:42", "2026-11-16T13:56:42"},
        // Both ends of a 32-bit time_t: nanoseconds overflow 32 bits, the offsets must not.
        {"UTC0", int32_max - 43200, 999, "2038-01-18T14:14:07", "2038-01-19T03:14:07"},
        {"UTC0", int32_min + 3600, 0, "1901-12-13T20:45:52", "1901-12-14T09:45:52"},
        // -1.5 s: both sums drop their half second toward zero.
        {"UTC0", -1, -500, "1969-12-31T22:59:59", "1970-01-01T11:59:58"},
        // Past 2038 (a 64-bit time_t on every target).
        {"UTC0", 2208988800, 0, "2039-12-31T23:00:00", "2040-01-01T12:00:00"},
    };
    for (const auto& test : cases) {
        use_time_zone(test.zone);
        const std::string text = offline_tra().create_tra_xml(
            Clock::time_point(std::chrono::duration_cast<Clock::duration>(seconds(test.now_seconds) +
                                                                          std::chrono::milliseconds(test.extra_ms))));
        EXPECT_EQ(element(text, "generationTime"), test.generation) << test.now_seconds;
        EXPECT_EQ(element(text, "expirationTime"), test.expiration) << test.now_seconds;
    }
}

TEST(LoginEnvelope, LineFeedsGoCarriageReturnsStayEmptyTextLeavesOutIn0)
{
    const std::string start = "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
                              "xmlns:wsaa=\"http://wsaa.view.sua.dvadac.desein.afip.gov\"><soapenv:Header/><soapenv:Body>";
    EXPECT_EQ(offline_tra().create_login_cms_soap("\nMIAG\r\nCSqG\n"),
              start + "<wsaa:loginCms><wsaa:in0>MIAG\rCSqG</wsaa:in0></wsaa:loginCms></soapenv:Body></soapenv:Envelope>");
    EXPECT_EQ(offline_tra().create_login_cms_soap("\n\n"), start + "<wsaa:loginCms/></soapenv:Body></soapenv:Envelope>");
}

TEST(FaultClassification, CaseInsensitiveSubstringsInTheirOrder)
{
    const struct {
        std::string answer;
        int32_t code;
    } cases[] = {
        {soap_fault("El CEE ya posee un TA valido para el acceso al WSN solicitado"), 9},
        {soap_fault("computador NO AUTORIZADO a acceder al servicio"), 2},
        {soap_fault("cms.cert.expired: CERTIFICADO EXPIRADO el 2026-01-01"), 3},
        {soap_fault("certificado expirado"), 3},
        {soap_fault("Computador no autorizado a acceder al servicio; El CEE ya posee un TA valido para el acceso al WSN "
               "solicitado"), 9},
        {soap_fault("Certificado expirado y Computador no autorizado a acceder al servicio"), 2},
        {soap_fault("Certificado&#32;expirado"), 3},
        {soap_fault("generationTime posee formato incorrecto"), 0},
        {soap_fault(""), 0},
        {"", 0},
        {"Certificado expirado", 0},
        {"<soapenv:Envelope><soapenv:Body><soapenv:Fault><x:faultstring>Certificado expirado</x:faultstring>"
         "</soapenv:Fault></soapenv:Body></soapenv:Envelope>", 0},
    };
    for (const auto& test : cases)
        EXPECT_EQ(code_of([&] { offline_tra().get_tra_error(test.answer); }), test.code) << test.answer;
}

TEST_F(CredentialsCache, YoungEntriesAreReusedAnythingElseRenews)
{
    write_file("credentials.json", "{\"wsfe\": {\"expired\": \"" + minutes_ago(59) +
                                       "\", \"sign\": \"S-cached\", \"token\": \"T-cached\"}}");
    TRA cached = offline_tra();
    EXPECT_EQ(cached.get_credentials(), std::make_pair(std::string("T-cached"), std::string("S-cached")));

    const std::string cases[] = {
        cache_entry("wsfe", minutes_ago(61)),
        "{\"wsfe\": {\"expired\": \"" + minutes_ago(1) + "\", \"token\": \"T\"}}",
        "{\"wsfe\": {\"expired\": \"" + minutes_ago(1) + "\", \"sign\": \"S\"}}",
        "{\"wsfe\": {\"sign\": \"S\", \"token\": \"T\"}}",
        "{\"wsfe\": {\"expired\": \"" + minutes_ago(1) + "\", \"sign\": 7, \"token\": \"T\"}}",
        cache_entry("wsfex", minutes_ago(1)),
        cache_entry("wsfe", "not a time"),
        "{\"wsfe\": ",
        "[1, 2]",
        "",
    };
    for (const std::string& content : cases) {
        write_file("credentials.json", content);
        EXPECT_EQ(code_of([] { offline_tra().get_credentials(); }), 1) << content;
    }
    std::remove("credentials.json");
    EXPECT_EQ(code_of([] { offline_tra().get_credentials(); }), 1);
}

TEST_F(CredentialsCache, AgeIsReadAsLocalWallClockDigits)
{
    const std::time_t now = std::time(nullptr);
    const struct {
        std::string generated;
        int32_t code;
    } cases[] = {
        {local_text(now - 3599), 0},
        {local_text(now - 3605), 11},
        {local_text(now - 1800) + ".999+05:00", 0}, // fraction and offset are ignored
        {local_text(now - 7200) + ".000-03:00", 11},
        {local_text(now + 86400), 0},
        // Unparsable, or a time mktime cannot tell from its failure value, counts as very old.
        {"", 11},
        {"garbage", 11},
        {"T10:00:00", 11},
        {"0000-00-00T00:00:00", 11},
        {"1899-12-31T00:00:00", 11},
        {"1901-12-13T17:45:51", 11},
        {"1969-12-31T20:59:59", 11},
        // The last second a 32-bit time_t holds is a future time, not a failure.
        {"2038-01-19T00:14:07", 0},
    };
    for (const auto& test : cases)
        EXPECT_EQ(age_code(test.generated), test.code) << test.generated;

    // Judged at a given time, after 2038 too: exactly one hour is still fresh.
    use_time_zone("UTC0");
    const std::time_t noon_2040 = static_cast<std::time_t>(2209032000LL);
    for (const auto& [generated, code] : {std::pair{"2040-01-01T11:30:00", 0}, std::pair{"2040-01-01T11:00:00", 0},
                                          std::pair{"2040-01-01T10:59:59", 11}})
        EXPECT_EQ(code_of([&] { offline_tra().check_tra_is_expired(generated, noon_2040); }), code) << generated;
    use_time_zone("<-03>3");

    // The same digits read three hours further west lie in the future; three hours east, too old.
    const std::string thirty_minutes_ago = local_text(now - 1800);
    use_time_zone("<-06>6");
    EXPECT_EQ(age_code(thirty_minutes_ago), 0);
    use_time_zone("UTC0");
    EXPECT_EQ(age_code(thirty_minutes_ago), 11);
}

TEST_F(CredentialsCache, WriteReplacesOneEntryKeepsTheRestAndTheMode)
{
    TRA first = offline_tra();
    first.get_token_and_sign(wsaa_ticket("T1", "S1", "2026-11-21T10:15:30.123-03:00"));
    EXPECT_EQ(read_file("credentials.json"), "{\n"
                                             "    \"wsfe\": {\n"
                                             "        \"expired\": \"2026-11-21T10:15:30.123-03:00\",\n"
                                             "        \"sign\": \"S1\",\n"
                                             "        \"token\": \"T1\"\n"
                                             "    }\n"
                                             "}\n");
    struct stat status {};
    ASSERT_EQ(stat("credentials.json", &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);

    const std::string before = "{\"wsfex\": {\"expired\": \"x\", \"sign\": \"SB\", \"token\": \"TB\", \"extra\": [1, 2.5]},"
                               " \"wsfe\": {\"expired\": \"old\", \"sign\": \"old\", \"token\": \"old\", \"note\": 1},"
                               " \"aaa\": \"top-level member\"}";
    write_file("credentials.json", before);
    chmod("credentials.json", 0640);
    offline_tra().get_token_and_sign(wsaa_ticket("T\xC3\xA9", "S2", "G2"));
    nlohmann::json expected = nlohmann::json::parse(before);
    expected["wsfe"] = {{"expired", "G2"}, {"sign", "S2"}, {"token", "T\xC3\xA9"}};
    EXPECT_EQ(read_file("credentials.json"), expected.dump(4) + "\n") << "non-ASCII unescaped, keys sorted";
    ASSERT_EQ(stat("credentials.json", &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u) << "an existing file keeps its mode";
    // A link named as the cache is written through, not replaced.
    ASSERT_EQ(std::rename("credentials.json", "target.json") + symlink("target.json", "credentials.json"), 0);
    offline_tra().get_token_and_sign(wsaa_ticket("T3", "S3", "G3"));
    EXPECT_EQ(nlohmann::json::parse(read_file("target.json"))["wsfe"]["token"], "T3");

    write_file("credentials.json", "[1, 2, 3]");
    EXPECT_THROW(offline_tra().get_token_and_sign(wsaa_ticket("T", "S", "G")), nlohmann::json::type_error);
    EXPECT_EQ(read_file("credentials.json"), "[1, 2, 3]");
}

TEST_F(CredentialsCache, IncompleteTicketsWriteNothing)
{
    TRA tra = offline_tra();
    tra.get_token_and_sign(wsaa_ticket("T", "S", ""));
    EXPECT_FALSE(std::ifstream("credentials.json").good());
    // Token and sign were taken all the same: the next call returns them without looking further.
    EXPECT_EQ(tra.get_credentials(), std::make_pair(std::string("T"), std::string("S")));

    for (const std::string& answer :
         {soap_fault("Certificado expirado"), std::string("not xml"), std::string(""), wsaa_ticket("", "S", "G"),
          wsaa_ticket("T", "", "G"),
          std::string("<soapenv:Envelope><soapenv:Body><ns:loginCmsResponse><ns:loginCmsReturn>x</ns:loginCmsReturn>"
                      "</ns:loginCmsResponse></soapenv:Body></soapenv:Envelope>")}) {
        offline_tra().get_token_and_sign(answer);
        EXPECT_FALSE(std::ifstream("credentials.json").good()) << answer;
    }
}

// The call keeps its new ticket whatever the disk does; the file stays the old one, alone.
TEST_F(CredentialsCache, AFailingDiskLeavesTheOldFileWholeAndNothingBeside)
{
    const std::string before = cache_entry("wsfex", "G0"), ticket = wsaa_ticket("T-new", "S-new", "G1");
    const int all_calls = (FailingDisk(-1, 0), offline_tra().get_token_and_sign(ticket), FailingDisk::calls);
    ASSERT_GT(all_calls, 10);
    for (const int error : {ENOSPC, EIO})
        for (int failing = 0; failing < all_calls; ++failing) {
            write_file("credentials.json", before);
            const FailingDisk disk(failing, error);
            TRA tra = offline_tra();
            tra.get_token_and_sign(ticket);
            EXPECT_EQ(tra.get_credentials(), std::make_pair(std::string("T-new"), std::string("S-new")));
            EXPECT_EQ(read_file("credentials.json"), before) << error << " at call " << failing;
            EXPECT_EQ(entries(), 1) << failing;
        }
}

// Writers killed hundreds of times: every other round at a random call to the disk, which is
// inside a write whatever this machine's speed (or valgrind's), the others after a random delay,
// wherever they are. Every file left parses and holds every ticket; the next writer removes the
// temporary files of the dead.
TEST_F(CredentialsCache, WritersKilledAtRandomMomentsLeaveAWholeFile)
{
    nlohmann::json others;
    for (int i = 0; i < 400; ++i)
        others["s" + std::to_string(i)] = {{"expired", "G"}, {"sign", std::string(80, 's')}, {"token", std::to_string(i)}};
    write_file("credentials.json", others.dump(4) + "\n");
    const auto started = std::chrono::steady_clock::now();
    const int calls_per_write = (FailingDisk(-1, 0), offline_tra().get_token_and_sign(wsaa_ticket("T", "S", "G")),
                                 FailingDisk::calls);
    const auto one_write = std::chrono::steady_clock::now() - started;
    int stopped[2];
    ASSERT_EQ(pipe(stopped), 0);
    std::mt19937 random(std::random_device{}());
    int left_behind = 0;
    for (int round = 0; round < 300 && (round < 30 || std::chrono::steady_clock::now() - started < std::chrono::seconds(20)); ++round) {
        const bool at_a_call = round % 2 == 0;
        const int stopping_call = at_a_call ? static_cast<int>(random() % calls_per_write) : -1;
        const pid_t writer = fork();
        if (writer == 0) {
            alarm(60); // never outlives a parent that failed
            const FailingDisk disk(stopping_call, 0, stopped[1]);
            for (int n = 0;; ++n)
                offline_tra().get_token_and_sign(wsaa_ticket("T" + std::to_string(n), "S" + std::to_string(n), "G"));
        }
        pollfd told{stopped[0], POLLIN, 0};
        char byte = 0;
        if (at_a_call)
            ASSERT_TRUE(poll(&told, 1, 90000) == 1 && read(stopped[0], &byte, 1) == 1) << "round " << round;
        else
            std::this_thread::sleep_for(one_write * static_cast<int>(random() % 3000) / 1000);
        kill(writer, SIGKILL);
        waitpid(writer, nullptr, 0);
        nlohmann::json cache = nlohmann::json::parse(read_file("credentials.json"));
        const nlohmann::json ticket = cache.value("wsfe", nlohmann::json{{"token", "T"}, {"sign", "S"}});
        EXPECT_EQ(ticket["token"].get<std::string>().substr(1), ticket["sign"].get<std::string>().substr(1));
        cache.erase("wsfe");
        ASSERT_EQ(cache, others) << "round " << round;
        left_behind += entries() > 1;
    }
    close(stopped[0]);
    close(stopped[1]);
    EXPECT_GT(left_behind, 0) << "no kill landed inside a write";
    offline_tra().get_token_and_sign(wsaa_ticket("T", "S", "G"));
    EXPECT_EQ(entries(), 1);
}
