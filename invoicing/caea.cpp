#include "invoicing/caea.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <map>

#include "invoicing/authorisation.h"
#include "invoicing/series_lock.h"
#include "invoicing/wsfev1_answers.h"
#include "invoicing/wsfev1_requests.h"
#include "tarvoafipdriver.h"
#include "util/argentina_time.h"
#include "util/os_util.h"

namespace {

using nlohmann::ordered_json;

const long long not_next_number = 10016;
const long long already_granted = 15008;
const int most_vouchers_informed = 250;

std::string dump(const ordered_json& value)
{
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

ordered_json messages_json(const ServiceMessages& messages)
{
    ordered_json list = ordered_json::array();
    for (const ServiceMessage& message : messages)
        list.push_back({{"Code", message.code}, {"Msg", message.text}});
    return list;
}

ordered_json grant_json(const CaeaGrant& grant)
{
    return {{"CAEA", grant.code},           {"Periodo", grant.period},          {"Orden", grant.fortnight},
            {"FchVigDesde", grant.valid_from}, {"FchVigHasta", grant.valid_to}, {"FchTopeInf", grant.report_by},
            {"FchProceso", grant.processed}};
}

// Days from `from` to `to`, both yyyymmdd.
long long days_between(const std::string& from, const std::string& to)
{
    return day_of_date(to).value_or(0) - day_of_date(from).value_or(0);
}

const CaeaGrant* grant_of_code(const std::vector<CaeaGrant>& grants, const std::string& code)
{
    const auto found = std::find_if(grants.begin(), grants.end(), [&](const CaeaGrant& grant) { return grant.code == code; });
    return found == grants.end() ? nullptr : &*found;
}

} // namespace

std::optional<std::pair<int, int>> fortnight_of(const std::string& date)
{
    if (!day_of_date(date))
        return std::nullopt;
    return std::pair(std::stoi(date.substr(0, 6)), std::stoi(date.substr(6, 2)) <= 15 ? 1 : 2);
}

std::vector<std::string> caea_deadline_warnings(Ledger& ledger, std::int64_t cuit, const std::string& today)
{
    std::vector<std::string> warnings;
    const std::vector<SaleRecord> waiting = ledger.sales_to_inform(cuit);
    if (waiting.empty())
        return warnings;
    const std::vector<CaeaGrant> grants = ledger.caeas(cuit);
    std::map<std::string, int> waiting_by_caea;
    for (const SaleRecord& sale : waiting)
        ++waiting_by_caea[sale.cae];
    for (const auto& [code, count] : waiting_by_caea) {
        const CaeaGrant* grant = grant_of_code(grants, code);
        const long long left = grant ? days_between(today, grant->report_by) : 0;
        if (grant && left > caea_warning_days)
            continue;
        warnings.push_back(std::to_string(count) + " voucher(s) issued under CAEA " + code + " are not informed; " +
                           (grant == nullptr ? std::string("the ledger keeps no such CAEA")
                            : left < 0       ? "its deadline " + grant->report_by + " has passed"
                                             : "its deadline is " + grant->report_by + ", in " + std::to_string(left) +
                                                   " day(s): run caea inform"));
    }
    return warnings;
}

CaeaDesk::CaeaDesk(Ledger& ledger, AfipChannel& channel, std::int64_t cuit)
    : m_ledger(ledger), m_channel(channel), m_cuit(cuit)
{
}

CoreResult CaeaDesk::request(int period, int fortnight)
{
    if ((fortnight != 1 && fortnight != 2) || !day_of_date(std::to_string(period) + "01"))
        return {status::bad_input, "a CAEA is asked for a period yyyymm and an order 1 or 2", std::nullopt};
    std::optional<CaeaAnswer> answer;
    for (const bool consult : {false, true}) {
        const ServiceExchange asked = m_channel.send(consult ? "FECAEAConsultar" : "FECAEASolicitar",
                                                     caea_request(m_cuit, consult, period, fortnight));
        if (asked.result != AFIP_OK)
            return {asked.result, "WSFEv1 could not be asked for the CAEA", std::nullopt};
        answer = read_caea_answer(asked.answer, consult);
        if (!answer)
            return {AFIP_RESPONSE_NOT_XML, "WSFEv1 gave no CAEA answer that can be read", std::nullopt};
        // Granted before (to this ledger or another): FECAEAConsultar gives it.
        if (!answer->code.empty() || !has_code(answer->errors, already_granted))
            break;
    }
    ordered_json out{{"Errors", messages_json(answer->errors)}, {"Events", messages_json(answer->events)}};
    if (answer->code.empty())
        return {status::rejected, "AFIP granted no CAEA for " + std::to_string(period) + "/" + std::to_string(fortnight),
                dump(out)};
    const CaeaGrant grant{m_cuit,           period,           fortnight,           answer->code,
                          answer->valid_from, answer->valid_to, answer->report_by, answer->processed};
    m_ledger.keep_caea(grant);
    ordered_json granted = grant_json(grant);
    granted.update(out);
    return {status::approved, "", dump(granted)};
}

CoreResult CaeaDesk::show()
{
    ordered_json list = ordered_json::array();
    for (const CaeaGrant& grant : m_ledger.caeas(m_cuit))
        list.push_back(grant_json(grant));
    return {status::approved, "", dump(list)};
}

CoreResult CaeaDesk::status()
{
    const std::string today = argentina_today(wall_clock_now());
    const std::vector<CaeaGrant> grants = m_ledger.caeas(m_cuit);
    ordered_json pending = ordered_json::array();
    for (const SaleRecord& sale : m_ledger.sales_to_inform(m_cuit)) {
        const CaeaGrant* grant = grant_of_code(grants, sale.cae);
        pending.push_back({{"sale_id", sale.sale_id},
                           {"PtoVta", sale.series.point_of_sale},
                           {"CbteTipo", sale.series.voucher_type},
                           {"CbteNro", sale.number.value_or(0)},
                           {"CbteFch", sale.date},
                           {"CAEA", sale.cae},
                           {"FchTopeInf", grant ? grant->report_by : ""},
                           {"days_left", grant ? ordered_json(days_between(today, grant->report_by)) : ordered_json()}});
    }
    ordered_json caeas = ordered_json::array();
    for (const CaeaGrant& grant : grants)
        caeas.push_back(grant_json(grant));
    const ordered_json out{{"pending", pending}, {"caeas", caeas}, {"warnings", caea_deadline_warnings(m_ledger, m_cuit, today)}};
    return {status::approved, "", dump(out)};
}

CoreResult CaeaDesk::declare_no_movement(int point_of_sale, int period, int fortnight)
{
    const std::optional<CaeaGrant> grant = m_ledger.caea(m_cuit, period, fortnight);
    if (!grant)
        return {status::bad_input,
                "the ledger keeps no CAEA for " + std::to_string(period) + "/" + std::to_string(fortnight) +
                    ": request it first (caea request)",
                std::nullopt};
    const ServiceExchange asked =
        m_channel.send("FECAEASinMovimientoInformar", no_movement_request(m_cuit, point_of_sale, grant->code));
    if (asked.result != AFIP_OK)
        return {asked.result, "WSFEv1 could not be told", std::nullopt};
    const std::optional<NoMovementAnswer> answer = read_no_movement_answer(asked.answer);
    if (!answer)
        return {AFIP_RESPONSE_NOT_XML, "WSFEv1 gave no answer that can be read", std::nullopt};
    m_ledger.record_no_movement(m_cuit, grant->code, point_of_sale, answer->result, dump(messages_json(answer->errors)));
    const ordered_json out{{"CAEA", grant->code},
                           {"PtoVta", point_of_sale},
                           {"Resultado", answer->result},
                           {"Errors", messages_json(answer->errors)}};
    return {answer->result == "A" ? status::approved : status::rejected,
            answer->result == "A" ? "" : "AFIP refused the declaration", dump(out)};
}

CoreResult CaeaDesk::inform()
{
    std::map<std::pair<int, int>, std::vector<SaleRecord>> by_series;
    for (SaleRecord& sale : m_ledger.sales_to_inform(m_cuit))
        by_series[{sale.series.point_of_sale, sale.series.voucher_type}].push_back(std::move(sale));
    std::string report;
    int worst = status::approved;
    for (auto& [series, sales] : by_series)
        inform_series(std::move(sales), report, worst);
    return {worst, worst == status::approved ? "" : "not every CAEA voucher was informed: see each sale",
            "[" + report + "]"};
}

void CaeaDesk::inform_series(std::vector<SaleRecord> sales, std::string& report, int& worst)
{
    const SeriesLock lock(m_ledger.path(), sales.front().series, std::chrono::minutes(2));
    const auto add = [&](SaleRecord& sale, const std::string& informed, const ServiceMessages& observations,
                         const ServiceMessages& errors, const std::string& message, int status) {
        sale.informed = informed;
        sale.observations = dump(messages_json(observations));
        sale.errors = dump(messages_json(errors));
        sale.message = message;
        m_ledger.record_outcomes({sale});
        const ordered_json line{{"sale_id", sale.sale_id},     {"PtoVta", sale.series.point_of_sale},
                                {"CbteTipo", sale.series.voucher_type}, {"CbteNro", sale.number.value_or(0)},
                                {"CAEA", sale.cae},            {"informed", informed},
                                {"Observaciones", messages_json(observations)}, {"Errors", messages_json(errors)},
                                {"message", message}};
        report += (report.empty() ? "\n" : ",\n") + dump(line);
        if (worst == status::approved || (status != status::approved && worst == status::rejected))
            worst = status;
    };
    size_t next = 0;
    int rounds_left = 3 * static_cast<int>(sales.size()) + 3;
    while (next < sales.size() && rounds_left-- > 0) {
        const size_t end = std::min(sales.size(), next + most_vouchers_informed);
        std::vector<Voucher> vouchers;
        for (size_t i = next; i < end; ++i)
            vouchers.push_back(read_voucher(sales[i].voucher));
        std::vector<InformedVoucher> request;
        for (size_t i = next; i < end; ++i)
            request.push_back({&vouchers[i - next], *sales[i].number, sales[i].date, sales[i].cae, sales[i].generated_at});
        const ServiceExchange sent = m_channel.send("FECAEARegInformativo", caea_inform_request(m_cuit, request));
        const auto answer = sent.result == AFIP_OK ? read_inform_answer(sent.answer) : std::nullopt;
        if (!sent.sent || (sent.result != AFIP_OK && sent.result != AFIP_RESPONSE_NOT_XML && sent.result != AFIP_TIMEOUT)) {
            for (size_t i = next; i < sales.size(); ++i)
                add(sales[i], "no", {}, {}, "WSFEv1 could not be reached; inform again later", sent.result);
            return;
        }
        if (!answer || has_code(answer->errors, not_next_number)) {
            // Lost, or the first number is not the next to inform: perhaps an earlier inform was
            // taken after all. FECompConsultar says which were.
            size_t settled = next;
            for (; settled < end; ++settled) {
                const ServiceExchange asked = m_channel.send(
                    "FECompConsultar", consultation_request(m_cuit, sales[settled].series.point_of_sale,
                                                            sales[settled].series.voucher_type, *sales[settled].number));
                const auto found = asked.result == AFIP_OK ? read_consulted_voucher(asked.answer) : std::nullopt;
                if (!found || !found->found || found->field("EmisionTipo") != "CAEA" ||
                    !is_same_voucher(*found, vouchers[settled - next], sales[settled].date))
                    break;
                add(sales[settled], "yes", found->observations, {}, "", status::approved);
            }
            if (settled == next && answer) {
                add(sales[next], "refused", {}, answer->errors,
                    "AFIP refused the number: the vouchers before it in the series must be informed first",
                    status::rejected);
                for (size_t i = next + 1; i < sales.size(); ++i)
                    add(sales[i], "no", {}, {}, "not informed: an earlier voucher of its series was refused",
                        status::rejected);
                return;
            }
            if (settled == next && !answer) {
                for (size_t i = next; i < sales.size(); ++i)
                    add(sales[i], "no", {}, {}, "the answer was lost; inform again later", status::outcome_unknown);
                return;
            }
            next = settled;
            continue;
        }
        if (answer->details.empty()) { // refused whole: a deadline passed, a CAEA not granted...
            for (size_t i = next; i < sales.size(); ++i)
                add(sales[i], i < end ? "refused" : "no", {}, answer->errors, "AFIP refused the information",
                    status::rejected);
            return;
        }
        for (size_t i = next; i < end; ++i) {
            const DetailAnswer* detail = i - next < answer->details.size() ? &answer->details[i - next] : nullptr;
            if (detail != nullptr && detail->result == "A") {
                add(sales[i], "yes", detail->observations, {}, "", status::approved);
                continue;
            }
            add(sales[i], "refused", detail ? detail->observations : ServiceMessages{}, answer->errors,
                "AFIP refused the voucher", status::rejected);
            for (size_t j = i + 1; j < sales.size(); ++j)
                add(sales[j], "no", {}, {}, "not informed: an earlier voucher of its series was refused", status::rejected);
            return;
        }
        next = end;
    }
}
