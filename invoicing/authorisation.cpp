#include "invoicing/authorisation.h"

#include <openssl/rand.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "invoicing/caea.h"
#include "invoicing/qr.h"
#include "invoicing/series_lock.h"
#include "invoicing/wsfev1_requests.h"
#include "tarvoafipdriver.h"
#include "util/argentina_time.h"
#include "util/os_util.h"

namespace {

const long long transaction_active = 502; // AFIP still busy with a request of the same series
const long long not_next_number = 10016;
const int consultation_attempts = 3;
const int sends_per_sale = 3;
const int renumbers_per_sale = 3;
const int pause_milliseconds = 500;

// Electronic credit invoices (FCE MiPyMEs) go one a request: AFIP refuses more (10003).
bool goes_alone(const Voucher& voucher)
{
    return voucher.voucher_type >= 201 && voucher.voucher_type <= 213;
}

// Whether an exchange failed before WSFEv1 could have seen the request: the login, the
// configuration, the request itself. A lost answer (14) or a time-out (15) may hide a voucher.
bool never_reached(std::int32_t result)
{
    return result != AFIP_OK && result != AFIP_RESPONSE_NOT_XML && result != AFIP_TIMEOUT;
}

nlohmann::ordered_json messages_json(const ServiceMessages& messages)
{
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const ServiceMessage& message : messages)
        list.push_back({{"Code", message.code}, {"Msg", message.text}});
    return list;
}

std::string messages_text(const ServiceMessages& messages)
{
    return messages_json(messages).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

ServiceMessages messages_from_text(const std::string& text)
{
    ServiceMessages messages;
    const nlohmann::json list = nlohmann::json::parse(text, nullptr, false);
    if (!list.is_array())
        return messages;
    for (const nlohmann::json& item : list)
        if (item.is_object() && item.value("Code", nlohmann::json()).is_number_integer())
            messages.push_back({item["Code"].get<long long>(), item.value("Msg", std::string())});
    return messages;
}

std::optional<long long> whole_of(const std::string& text)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 18)
        return std::nullopt;
    return std::stoll(text);
}

std::string qr_address(const Voucher& voucher, std::int64_t cuit, std::int64_t number, const std::string& date,
                       const std::string& code, bool advance = false)
{
    return qr_url(QrVoucher{date, cuit, voucher.point_of_sale, voucher.voucher_type, number, voucher.total,
                            voucher.currency, voucher.exchange_rate, voucher.document_type, voucher.document_number,
                            code, advance});
}

// What FECompConsultar said of a number.
enum class Fate { found, absent, unknown };

// What becomes of a voucher whose request was not simply judged.
enum class Recovery {
    approve,  // AFIP authorised it: its CAE is taken from FECompConsultar
    resend,   // AFIP never processed it: sent again with the next number
    renumber, // another voucher holds its number: sent again with a new one
    reject,   // the number the host fixed is not to be had
    unknown,  // nobody can tell: the sale stays pending, to be settled on its next run
};

struct RecoveryRule {
    bool lost;              // the answer was lost (else refused with Err 10016)
    Fate fate;              // what FECompConsultar of its number said
    std::optional<bool> same;  // the voucher found is the one sent; nullopt: either
    std::optional<bool> fixed; // the host fixed the number (CbteNro); nullopt: either
    Recovery action;
};

// (answer lost?, voucher found?, same voucher?, number fixed?) -> action. For a refused request,
// "same" means that an earlier send with this number was authorised after all.
const RecoveryRule recovery_rules[] = {
    {true, Fate::unknown, std::nullopt, std::nullopt, Recovery::unknown},
    {true, Fate::found, true, std::nullopt, Recovery::approve},
    {true, Fate::found, false, false, Recovery::renumber},
    {true, Fate::found, false, true, Recovery::reject},
    {true, Fate::absent, std::nullopt, std::nullopt, Recovery::resend},
    {false, Fate::found, true, std::nullopt, Recovery::approve},
    {false, Fate::found, false, false, Recovery::renumber},
    {false, Fate::found, false, true, Recovery::reject},
    {false, Fate::absent, std::nullopt, false, Recovery::renumber}, // the ledger was ahead of AFIP
    {false, Fate::absent, std::nullopt, true, Recovery::reject},
    {false, Fate::unknown, std::nullopt, false, Recovery::renumber}, // FECompUltimoAutorizado decides
    {false, Fate::unknown, std::nullopt, true, Recovery::reject},
};

Recovery recovery_action(bool lost, Fate fate, bool same, bool fixed)
{
    for (const RecoveryRule& rule : recovery_rules)
        if (rule.lost == lost && rule.fate == fate && (!rule.same || *rule.same == same) &&
            (!rule.fixed || *rule.fixed == fixed))
            return rule.action;
    return Recovery::unknown;
}

// One sale being worked on.
struct Item {
    Voucher own;                      // the voucher, completed from the registry when it needs it
    const Voucher* voucher = nullptr; // &own
    std::string canonical, digest;
    std::optional<std::int64_t> number; // the number it holds now
    std::string date;                   // the date it was last sent with
    std::set<std::int64_t> sent;        // numbers it was sent with, in this run or before
    bool resent = false;                // the number it was last sent with had been sent before
    int sends_left = sends_per_sale;
    int renumbers_left = renumbers_per_sale;
    bool done = false;
    SaleOutcome outcome;

    SaleRecord record(const SeriesKey& series) const
    {
        SaleRecord sale;
        sale.sale_id = voucher->sale_id;
        sale.series = series;
        sale.number = number;
        sale.date = date;
        sale.voucher = canonical;
        sale.digest = digest;
        return sale;
    }
};

// The work on one series, under its lock.
class SeriesRun {
public:
    SeriesRun(Ledger& ledger, AfipChannel& channel, const AuthorisationSettings& settings, const SeriesKey& series,
              std::function<int()> records_per_request)
        : m_ledger(ledger),
          m_channel(channel),
          m_settings(settings),
          m_series(series),
          m_records_per_request(std::move(records_per_request))
    {
    }

    void run(std::vector<Item*> items)
    {
        std::deque<Item*> queue;
        for (Item* item : items)
            if (classify(*item))
                queue.push_back(item);
        if (!settle_pending(items, queue))
            return;
        complete(queue);
        send_all(queue);
    }

private:
    // Against the ledger: false when the sale needs nothing sent (decided already).
    bool classify(Item& item)
    {
        const std::optional<SaleRecord> record = m_ledger.sale(item.voucher->sale_id);
        if (!record)
            return true;
        const bool holds_voucher = record->state == SaleState::approved || record->state == SaleState::pending;
        if (record->digest != item.digest && holds_voucher) {
            finish(item, status::sale_conflict,
                   "sale id " + item.voucher->sale_id + " belongs to another voucher (" +
                       sale_state_name(record->state) + ", number " + std::to_string(record->number.value_or(0)) +
                       " of point of sale " + std::to_string(record->series.point_of_sale) + "); nothing was sent");
            return false;
        }
        if (record->state == SaleState::approved) {
            item.outcome = outcome_of_record(*record);
            item.outcome.from_ledger = true;
            item.done = true;
            return false;
        }
        if (record->state == SaleState::pending) {
            item.number = record->number;
            item.date = record->date;
        }
        for (const SaleAttempt& attempt : m_ledger.attempts(item.voucher->sale_id))
            item.sent.insert(attempt.number);
        return true;
    }

    // Vouchers that need the registry get their receptor's condition now; one that cannot have it
    // is not sent.
    void complete(std::deque<Item*>& queue)
    {
        for (auto at = queue.begin(); at != queue.end();) {
            Item& item = **at;
            std::string message;
            const int status = needs_registry(item.own) && m_settings.complete_voucher
                                   ? m_settings.complete_voucher(item.own, message)
                                   : status::approved;
            if (status == status::approved) {
                item.canonical = canonical_voucher(item.own);
                ++at;
                continue;
            }
            finish(item, status, message + "; nothing was sent");
            at = queue.erase(at);
        }
    }

    // Every sale of the series left pending, by this host or another, is settled before the series
    // is numbered again: found, it is approved; its number taken or free, it holds it no more.
    // False when one could not be settled: then nothing is sent.
    bool settle_pending(const std::vector<Item*>& items, std::deque<Item*>& queue)
    {
        std::vector<SaleRecord> released;
        for (SaleRecord& pending : m_ledger.pending_sales(m_series)) {
            Item* own = nullptr;
            for (Item* item : items)
                if (!item->done && item->voucher->sale_id == pending.sale_id)
                    own = item;
            std::int32_t failure = 0;
            const std::optional<ConsultedVoucher> found = consult(*pending.number, failure);
            if (!found) {
                const std::string why = "sale " + pending.sale_id + " is pending with number " +
                                        std::to_string(*pending.number) + " and AFIP could not be asked about it";
                for (Item* item : queue)
                    if (item == own)
                        finish_unknown(*item, why + "; run the same sale again later");
                    else
                        finish(*item, failure != 0 ? failure : status::outcome_unknown, why + "; nothing was sent");
                queue.clear();
                record(released);
                record_adopted();
                return false;
            }
            const Voucher voucher = read_voucher(pending.voucher);
            if (found->found && is_same_voucher(*found, voucher, pending.date)) {
                pending.state = SaleState::approved;
                take_consulted(pending, *found);
                m_ledger.record_outcomes({pending});
                if (own != nullptr) {
                    own->outcome = outcome_of_record(pending);
                    own->done = true;
                    queue.erase(std::find(queue.begin(), queue.end(), own));
                }
                continue;
            }
            if (found->found)
                adopt(*found, *pending.number, pending.sale_id);
            pending.state = SaleState::failed;
            pending.message = found->found ? "its number " + std::to_string(*pending.number) +
                                                 " is held by another voucher: it was not authorised"
                                           : "it was not authorised";
            pending.number.reset();
            released.push_back(pending);
            if (own != nullptr)
                own->number.reset();
        }
        record(released);
        record_adopted();
        return true;
    }

    void send_all(std::deque<Item*>& queue)
    {
        std::optional<std::int64_t> last;
        while (!queue.empty()) {
            std::vector<Item*> chunk = take_chunk(queue);
            const bool fixed = chunk.front()->voucher->number.has_value();
            if (!fixed && !last && !(last = m_ledger.last_number(m_series)) && !(last = ask_last_number(chunk, queue)))
                return;
            std::int64_t next = fixed ? *chunk.front()->voucher->number : *last + 1;
            std::vector<SaleRecord> intents;
            for (Item* item : chunk) {
                item->number = next++;
                item->date = item->voucher->date.empty() ? argentina_today(wall_clock_now()) : item->voucher->date;
                intents.push_back(item->record(m_series));
            }
            try {
                m_ledger.record_intents(intents);
            } catch (const LedgerError& error) {
                chunk.insert(chunk.end(), queue.begin(), queue.end());
                queue.clear();
                for (Item* item : chunk)
                    finish(*item, status::ledger_unusable, std::string(error.what()) + "; nothing was sent");
                return;
            }
            std::vector<NumberedVoucher> request;
            for (Item* item : chunk) {
                request.push_back({item->voucher, *item->number, item->date});
                --item->sends_left;
                item->resent = !item->sent.insert(*item->number).second;
                item->outcome.number = *item->number;
                item->outcome.date = item->date;
            }
            const ServiceExchange sent = m_channel.send("FECAESolicitar", authorisation_request(m_settings.cuit, request));
            std::vector<Item*> again;
            if (never_reached(sent.result) || !sent.sent) {
                for (Item* item : chunk) {
                    item->number.reset();
                    finish(*item, sent.result, "the request did not reach WSFEv1");
                }
                for (Item* item : queue)
                    finish(*item, sent.result, "the request did not reach WSFEv1");
                queue.clear();
            } else {
                const auto answer = sent.result == AFIP_OK ? read_authorisation_answer(sent.answer) : std::nullopt;
                if (!answer || has_code(answer->errors, transaction_active))
                    again = settle(chunk, nullptr, last);
                else if (has_code(answer->errors, not_next_number))
                    again = settle(chunk, &*answer, last);
                else
                    again = judged(chunk, *answer);
            }
            for (Item* item : chunk)
                if (item->done && item->outcome.status == status::approved && last)
                    last = std::max(*last, *item->number);
            record_chunk(chunk);
            record_adopted();
            if (!again.empty())
                m_channel.pause(pause_milliseconds);
            for (auto item = again.rbegin(); item != again.rend(); ++item)
                queue.push_front(*item);
        }
    }

    std::vector<Item*> take_chunk(std::deque<Item*>& queue)
    {
        std::vector<Item*> chunk{queue.front()};
        queue.pop_front();
        const Voucher& first = *chunk.front()->voucher;
        if (first.number || goes_alone(first) || queue.empty())
            return chunk;
        const size_t most = static_cast<size_t>(std::max(1, m_records_per_request()));
        while (!queue.empty() && chunk.size() < most && !queue.front()->voucher->number)
            chunk.push_back(queue.front()), queue.pop_front();
        return chunk;
    }

    // FECompUltimoAutorizado, and the ledger learns it; nullopt with the chunk and the queue
    // finished when it cannot say.
    std::optional<std::int64_t> ask_last_number(std::vector<Item*>& chunk, std::deque<Item*>& queue)
    {
        const ServiceExchange asked = m_channel.send(
            "FECompUltimoAutorizado", last_authorised_request(m_settings.cuit, m_series.point_of_sale, m_series.voucher_type));
        const auto last = asked.result == AFIP_OK ? read_last_authorised(asked.answer) : std::nullopt;
        if (last && last->number) {
            m_ledger.set_last_number(m_series, *last->number);
            return last->number;
        }
        chunk.insert(chunk.end(), queue.begin(), queue.end());
        queue.clear();
        for (Item* item : chunk) {
            if (asked.result != AFIP_OK) {
                finish(*item, asked.result, "FECompUltimoAutorizado failed; nothing was sent");
            } else {
                item->outcome.errors = last ? last->errors : ServiceMessages{};
                finish(*item, status::rejected, "FECompUltimoAutorizado gave no number; nothing was sent");
            }
            item->number.reset();
        }
        record_chunk(chunk);
        return std::nullopt;
    }

    // AFIP judged the request: approved details, the first rejected one, and those after it, which
    // AFIP stopped without judging and which go again under new numbers.
    std::vector<Item*> judged(std::vector<Item*>& chunk, const AuthorisationAnswer& answer)
    {
        std::vector<Item*> again;
        bool stopped = false;
        for (size_t i = 0; i < chunk.size(); ++i) {
            Item& item = *chunk[i];
            const DetailAnswer* detail = i < answer.details.size() ? &answer.details[i] : nullptr;
            item.outcome.events = answer.events;
            if (detail == nullptr || (detail->result != "A" && detail->result != "R")) {
                // A request refused whole (600, 10002...): nothing of it was judged.
                item.outcome.errors = answer.errors;
                item.outcome.result = "R";
                item.number.reset();
                finish(item, status::rejected, "AFIP rejected the voucher");
                continue;
            }
            if (stopped && detail->observations.empty() && answer.errors.empty()) {
                item.number.reset();
                ++item.sends_left; // stopped, not judged
                again.push_back(&item);
                continue;
            }
            item.outcome.result = detail->result;
            item.outcome.observations = detail->observations;
            item.outcome.errors = answer.errors;
            if (detail->result == "A") {
                item.outcome.cae = detail->cae;
                item.outcome.cae_expiry = detail->cae_expiry;
                finish(item, status::approved, "");
            } else {
                stopped = true;
                item.number.reset();
                finish(item, status::rejected, "AFIP rejected the voucher");
            }
        }
        return again;
    }

    // A request whose answer was lost, or refused with Err 10016 (its first number is not the next
    // one: the ledger's idea of the series is stale, a lost request of ours was authorised after
    // all, or the date is earlier than the last voucher's). FECompConsultar of each number, in
    // order, says what AFIP did; the recovery table what to do.
    std::vector<Item*> settle(std::vector<Item*>& chunk, const AuthorisationAnswer* refusal, std::optional<std::int64_t>& last)
    {
        const bool lost = refusal == nullptr;
        Recovery action = Recovery::approve;
        size_t decided = 0; // the items that FECompConsultar was asked about
        std::optional<ConsultedVoucher> found;
        // AFIP judges details in order: a lost request authorised a leading part of its details,
        // a refused one none (but an earlier send of its first voucher may have been).
        while (decided < chunk.size() && action == Recovery::approve && (lost || decided == 0)) {
            Item& item = *chunk[decided++];
            std::int32_t failure = 0;
            found = consult(*item.number, failure);
            const Fate fate = !found ? Fate::unknown : found->found ? Fate::found : Fate::absent;
            const bool same = fate == Fate::found && (lost || item.resent) && is_same_voucher(*found, *item.voucher, item.date);
            if (fate == Fate::found && !same)
                adopt(*found, *item.number, item.voucher->sale_id);
            action = recovery_action(lost, fate, same, item.voucher->number.has_value());
            if (action == Recovery::approve)
                take_consulted(item, *found);
        }
        std::vector<Item*> undecided(chunk.begin() + static_cast<std::ptrdiff_t>(decided) - (action == Recovery::approve ? 0 : 1),
                                     chunk.end());
        if (undecided.empty())
            return {};
        // Those AFIP did not process follow the first voucher it did not approve; after an
        // approval in a refused request, the rest need new numbers.
        if (action == Recovery::approve)
            action = Recovery::renumber;
        Item& first = *undecided.front();
        if (action == Recovery::renumber) {
            std::deque<Item*> none;
            std::vector<Item*> unnumbered(undecided);
            const std::optional<std::int64_t> asked = ask_last_number(unnumbered, none);
            if (!asked)
                return {};
            last = asked;
            // Refused although its number was the next: the date is earlier than the last voucher's.
            if (!lost && &first == chunk.front() && *asked + 1 == *first.number) {
                reject(first, *refusal, "AFIP rejected the voucher: its date is earlier than the last voucher's");
                undecided.erase(undecided.begin());
            }
        }
        std::vector<Item*> again;
        for (Item* item : undecided) {
            switch (action) {
            case Recovery::unknown:
                finish_unknown(*item, "the answer to FECAESolicitar was lost and FECompConsultar did not answer either: "
                                      "whether voucher " + std::to_string(*item->number) +
                                          " exists is unknown; run the same sale again to settle it");
                break;
            case Recovery::reject:
                reject(*item, refusal ? *refusal : AuthorisationAnswer{},
                       found && found->found ? "number " + std::to_string(*item->number) + " is held by another voucher"
                                             : "AFIP rejected the voucher");
                break;
            case Recovery::resend:
                if (item->sends_left <= 0) {
                    finish_unknown(*item, "voucher " + std::to_string(*item->number) + " was not authorised after " +
                                              std::to_string(sends_per_sale) +
                                              " attempts whose answers were lost; try again later");
                    break;
                }
                item->number.reset();
                again.push_back(item);
                break;
            case Recovery::renumber:
            case Recovery::approve:
                if (item->renumbers_left-- <= 0) {
                    reject(*item, refusal ? *refusal : AuthorisationAnswer{}, "other vouchers kept taking the next number");
                    break;
                }
                if (!lost)
                    ++item->sends_left; // a refused number is no lost answer
                item->number.reset();
                again.push_back(item);
                break;
            }
        }
        return again;
    }

    void reject(Item& item, const AuthorisationAnswer& refusal, const std::string& why)
    {
        item.outcome.errors = refusal.errors;
        item.outcome.events = refusal.events;
        item.outcome.result = "R";
        item.number.reset();
        finish(item, status::rejected, why);
    }

    // A voucher found under a number that a sale of the ledger was sent with and lost: if it is that
    // sale's, the sale is approved, so that its CAE is never lost (recorded by record_adopted).
    void adopt(const ConsultedVoucher& found, std::int64_t number, const std::string& except_sale_id)
    {
        const std::optional<SaleRecord> holder = m_ledger.sale_sent_with(m_series, number);
        if (!holder || holder->sale_id == except_sale_id)
            return;
        SaleRecord sale = *holder;
        if (!is_same_voucher(found, read_voucher(sale.voucher), found.field("CbteFch")))
            return;
        sale.number = number;
        sale.date = found.field("CbteFch");
        sale.state = SaleState::approved;
        take_consulted(sale, found);
        m_adopted.push_back(sale);
    }

    // After the sales that held the adopted numbers let go of them.
    void record_adopted()
    {
        record(m_adopted);
        m_adopted.clear();
    }

    // FECompConsultar of a number, a few times; nullopt when no answer told, with `failure` set to
    // the last exchange's result code.
    std::optional<ConsultedVoucher> consult(std::int64_t number, std::int32_t& failure)
    {
        for (int attempt = 0; attempt < consultation_attempts; ++attempt) {
            if (attempt > 0)
                m_channel.pause(pause_milliseconds);
            const ServiceExchange asked = m_channel.send(
                "FECompConsultar",
                consultation_request(m_settings.cuit, m_series.point_of_sale, m_series.voucher_type, number));
            failure = asked.result;
            if (asked.result == AFIP_OK)
                if (auto found = read_consulted_voucher(asked.answer))
                    return found;
        }
        return std::nullopt;
    }

    static void take_consulted(SaleRecord& sale, const ConsultedVoucher& found)
    {
        sale.result = found.field("Resultado");
        sale.cae = found.field("CodAutorizacion");
        sale.cae_expiry = found.field("FchVto");
        sale.observations = messages_text(found.observations);
        sale.errors = messages_text(found.errors);
        sale.events = messages_text(found.events);
        sale.recovered = true;
        sale.message.clear();
    }

    void take_consulted(Item& item, const ConsultedVoucher& found)
    {
        item.outcome.result = found.field("Resultado");
        item.outcome.cae = found.field("CodAutorizacion");
        item.outcome.cae_expiry = found.field("FchVto");
        item.outcome.observations = found.observations;
        item.outcome.errors = found.errors;
        item.outcome.events = found.events;
        item.outcome.recovered = true;
        finish(item, status::approved, "");
    }

    void finish(Item& item, int status, const std::string& message)
    {
        item.outcome.status = status;
        item.outcome.message = message;
        item.done = true;
    }

    void finish_unknown(Item& item, const std::string& message)
    {
        finish(item, status::outcome_unknown, message);
    }

    // The chunk's sales as the ledger keeps them: decided ones with their outcome, the rest
    // without a number until sent again. A sale whose outcome is unknown stays pending.
    void record_chunk(const std::vector<Item*>& chunk)
    {
        std::vector<SaleRecord> sales;
        for (const Item* item : chunk) {
            if (item->outcome.status == status::outcome_unknown && item->done)
                continue;
            if (item->outcome.status == status::sale_conflict || !m_ledger.sale(item->voucher->sale_id))
                continue;
            SaleRecord sale = item->record(m_series);
            sale.state = !item->done                                         ? SaleState::failed
                         : item->outcome.status == status::approved          ? SaleState::approved
                         : item->outcome.status == status::rejected          ? SaleState::rejected
                                                                             : SaleState::failed;
            sale.result = item->outcome.result;
            sale.cae = item->outcome.cae;
            sale.cae_expiry = item->outcome.cae_expiry;
            sale.observations = messages_text(item->outcome.observations);
            sale.errors = messages_text(item->outcome.errors);
            sale.events = messages_text(item->outcome.events);
            sale.recovered = item->outcome.recovered;
            sale.message = item->outcome.message;
            sales.push_back(sale);
        }
        record(sales);
    }

    void record(const std::vector<SaleRecord>& sales)
    {
        if (!sales.empty())
            m_ledger.record_outcomes(sales);
    }

    Ledger& m_ledger;
    AfipChannel& m_channel;
    const AuthorisationSettings& m_settings;
    const SeriesKey m_series;
    std::function<int()> m_records_per_request;
    std::vector<SaleRecord> m_adopted;
};

// Sales whose CAE attempt surely sent nothing go under the fortnight's CAEA, numbered from the
// ledger; a sale whose CAE attempt may have reached AFIP (pending) never does.
void issue_offline(Ledger& ledger, const AuthorisationSettings& settings, std::vector<Item>& items)
{
    std::map<std::pair<int, int>, std::vector<Item*>> by_series;
    // WSFEv1 or WSAA unreachable: a connection that failed, a time-out, before anything was sent.
    const auto unreachable = [](int status) { return status >= 14 && status <= 17; };
    for (Item& item : items)
        if (item.done && unreachable(item.outcome.status))
            by_series[{settings.caea_point_of_sale.value_or(item.own.point_of_sale), item.own.voucher_type}].push_back(&item);
    for (auto& [key, group] : by_series) {
        const SeriesKey series{settings.cuit, key.first, key.second};
        const auto refuse = [&](Item& item, const std::string& why) {
            item.outcome.message += "; not issued under a CAEA either: " + why;
        };
        try {
            const SeriesLock lock(ledger.path(), series, settings.series_wait);
            for (Item* item : group) {
                const std::string date = item->own.date.empty() ? argentina_today(wall_clock_now()) : item->own.date;
                const auto fortnight = fortnight_of(date);
                const std::optional<CaeaGrant> grant = fortnight ? ledger.caea(settings.cuit, fortnight->first, fortnight->second)
                                                                 : std::nullopt;
                std::optional<std::int64_t> last = ledger.last_number(series);
                if (!last && settings.caea_point_of_sale)
                    last = 0; // a contingency point of sale the ledger never used starts at 1
                if (!grant) {
                    refuse(*item, "the ledger keeps no CAEA for the fortnight of " + date + " (caea request)");
                } else if (date < grant->valid_from || date > grant->valid_to) {
                    refuse(*item, "CAEA " + grant->code + " is valid from " + grant->valid_from + " to " + grant->valid_to);
                } else if (!ledger.pending_sales(series).empty()) {
                    refuse(*item, "a CAE attempt of point of sale " + std::to_string(series.point_of_sale) +
                                      " is still pending, so its next number is not known");
                } else if (!last) {
                    refuse(*item, "the ledger does not know the last number of point of sale " +
                                      std::to_string(series.point_of_sale) + ", type " + std::to_string(series.voucher_type));
                } else {
                    item->own.point_of_sale = series.point_of_sale;
                    SaleRecord sale = item->record(series);
                    sale.voucher = canonical_voucher(item->own);
                    sale.number = *last + 1;
                    sale.date = date;
                    sale.cae = grant->code;
                    sale.generated_at = format_argentina_date(wall_clock_now(), true);
                    ledger.record_caea_sale(sale);
                    SaleOutcome& outcome = item->outcome;
                    outcome = SaleOutcome{};
                    outcome.status = status::caea_issued;
                    outcome.sale_id = sale.sale_id;
                    outcome.result = "A";
                    outcome.point_of_sale = series.point_of_sale;
                    outcome.voucher_type = series.voucher_type;
                    outcome.number = *sale.number;
                    outcome.date = date;
                    outcome.cae = grant->code;
                    outcome.emission = "CAEA";
                    outcome.message = "WSFEv1 could not be reached: issued under CAEA " + grant->code +
                                      ", to be informed by " + grant->report_by;
                    outcome.qr_url =
                        qr_address(item->own, settings.cuit, outcome.number, date, grant->code, true);
                }
            }
        } catch (const std::runtime_error& error) {
            for (Item* item : group)
                if (item->outcome.status != status::caea_issued)
                    refuse(*item, error.what());
        }
    }
}

} // namespace

bool is_same_voucher(const ConsultedVoucher& found, const Voucher& voucher, const std::string& date)
{
    const auto same_whole = [&](const char* name, long long expected) { return whole_of(found.field(name)) == expected; };
    const auto same_amount = [&](const char* name, Money expected) {
        const std::string text = found.field(name);
        return text.empty() || Money::parse(text) == expected;
    };
    const std::string currency = found.field("MonId");
    return found.field("CbteFch") == date && same_whole("Concepto", voucher.concept) &&
           same_whole("DocTipo", voucher.document_type) && same_whole("DocNro", voucher.document_number) &&
           Money::parse(found.field("ImpTotal")) == voucher.total && same_amount("ImpTotConc", voucher.untaxed) &&
           same_amount("ImpNeto", voucher.net) && same_amount("ImpOpEx", voucher.exempt) &&
           same_amount("ImpTrib", voucher.taxes_total) && same_amount("ImpIVA", voucher.vat_total) &&
           (currency.empty() || currency == voucher.currency);
}

bool needs_registry(const Voucher& voucher)
{
    const int cuit_document = 80;
    return voucher.condition_from_registry || (!voucher.receiver_vat_condition && voucher.document_type == cuit_document);
}

SaleOutcome outcome_of_record(const SaleRecord& record)
{
    SaleOutcome outcome;
    outcome.status = record.state == SaleState::approved   ? status::approved
                     : record.state == SaleState::rejected ? status::rejected
                                                           : status::outcome_unknown;
    outcome.message = record.message;
    outcome.sale_id = record.sale_id;
    outcome.recovered = record.recovered;
    outcome.result = record.result;
    outcome.point_of_sale = record.series.point_of_sale;
    outcome.voucher_type = record.series.voucher_type;
    outcome.number = record.number.value_or(0);
    outcome.date = record.date;
    outcome.cae = record.cae;
    outcome.cae_expiry = record.cae_expiry;
    outcome.observations = messages_from_text(record.observations);
    outcome.errors = messages_from_text(record.errors);
    outcome.events = messages_from_text(record.events);
    outcome.emission = record.emission;
    outcome.informed = record.informed == "yes";
    const bool offline = record.emission == "CAEA";
    if (record.state == SaleState::approved && offline)
        outcome.status = status::caea_issued;
    if (record.state == SaleState::approved)
        outcome.qr_url = qr_address(read_voucher(record.voucher), record.series.cuit, outcome.number, record.date,
                                    record.cae, offline);
    return outcome;
}

std::string generated_sale_id()
{
    unsigned char bytes[8];
    RAND_bytes(bytes, sizeof bytes);
    static const char hex[] = "0123456789abcdef";
    std::string id = "sale-" + format_argentina_date(wall_clock_now(), true) + "-";
    for (const unsigned char byte : bytes)
        id += std::string{hex[byte >> 4], hex[byte & 15]};
    return id;
}

Authoriser::Authoriser(Ledger& ledger, AfipChannel& channel, AuthorisationSettings settings)
    : m_ledger(ledger), m_channel(channel), m_settings(settings)
{
}

int Authoriser::records_per_request()
{
    if (!m_records_per_request) {
        const ServiceExchange asked = m_channel.send("FECompTotXRequest", records_per_request_request(m_settings.cuit));
        m_records_per_request = (asked.result == AFIP_OK ? read_records_per_request(asked.answer) : std::nullopt).value_or(1);
    }
    return *m_records_per_request;
}

std::vector<SaleOutcome> Authoriser::authorise(const std::vector<Voucher>& vouchers)
{
    std::vector<Item> items(vouchers.size());
    std::vector<std::pair<size_t, size_t>> repeats; // (index, index of the sale id's first voucher)
    std::map<std::string, size_t> first_of_sale;
    std::vector<std::pair<SeriesKey, std::vector<Item*>>> groups;
    for (size_t i = 0; i < vouchers.size(); ++i) {
        Item& item = items[i];
        item.own = vouchers[i];
        item.voucher = &item.own;
        item.canonical = canonical_voucher(vouchers[i]);
        item.digest = sha256_hex(item.canonical);
        item.outcome.sale_id = vouchers[i].sale_id;
        item.outcome.point_of_sale = vouchers[i].point_of_sale;
        item.outcome.voucher_type = vouchers[i].voucher_type;
        if (const auto first = first_of_sale.emplace(vouchers[i].sale_id, i); !first.second) {
            repeats.emplace_back(i, first.first->second);
            continue;
        }
        const SeriesKey series{m_settings.cuit, vouchers[i].point_of_sale, vouchers[i].voucher_type};
        auto group = std::find_if(groups.begin(), groups.end(), [&](const auto& entry) {
            return entry.first.point_of_sale == series.point_of_sale && entry.first.voucher_type == series.voucher_type;
        });
        if (group == groups.end())
            group = groups.insert(groups.end(), {series, {}});
        group->second.push_back(&item);
    }

    for (auto& [series, group] : groups) {
        try {
            const SeriesLock lock(m_ledger.path(), series, m_settings.series_wait);
            SeriesRun(m_ledger, m_channel, m_settings, series, [this] { return records_per_request(); }).run(group);
        } catch (const SeriesBusy& busy) {
            for (Item* item : group)
                if (!item->done)
                    item->outcome.status = status::series_busy, item->outcome.message = busy.what(), item->done = true;
        } catch (const std::runtime_error& error) { // the ledger's, or a voucher it holds unreadable
            for (Item* item : group)
                if (!item->done)
                    item->outcome.status = status::ledger_unusable,
                    item->outcome.message = std::string(error.what()) + "; nothing was sent", item->done = true;
        }
    }

    if (m_settings.contingency)
        issue_offline(m_ledger, m_settings, items);

    // A sale named twice: the second is the first's outcome, or a conflict when it is another voucher.
    for (const auto& [index, first] : repeats) {
        items[index].outcome = items[first].outcome;
        if (items[index].digest != items[first].digest) {
            items[index].outcome = SaleOutcome{};
            items[index].outcome.sale_id = vouchers[index].sale_id;
            items[index].outcome.status = status::sale_conflict;
            items[index].outcome.message =
                "sale id " + vouchers[index].sale_id + " names another voucher earlier in the same batch; nothing was sent";
        } else if (items[index].outcome.status == status::approved) {
            items[index].outcome.from_ledger = true;
        }
    }

    std::vector<SaleOutcome> outcomes;
    for (Item& item : items) {
        SaleOutcome& outcome = item.outcome;
        if (outcome.status == status::approved && outcome.qr_url.empty())
            outcome.qr_url = qr_address(*item.voucher, m_settings.cuit, outcome.number, outcome.date, outcome.cae);
        outcomes.push_back(outcome);
    }
    return outcomes;
}
