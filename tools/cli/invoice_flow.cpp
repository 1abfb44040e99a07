#include "invoice_flow.h"

#include <cmath>
#include <cstdlib>
#include <optional>

#include "invoice_request.h"

namespace {

const std::int32_t response_not_xml = 14; // tarvoafipdriver.h: AFIP_RESPONSE_NOT_XML
const std::int32_t timed_out = 15;        // AFIP_TIMEOUT
const long long transaction_active = 502; // AFIP still busy with a request of the same series
const long long not_next_number = 10016;
const int consultation_attempts = 3;
const int pause_milliseconds = 500;

std::optional<Cents> cents_of(const std::string& text)
{
    if (text.empty())
        return std::nullopt;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (*end != '\0' || !std::isfinite(value) || std::fabs(value) >= 1e13)
        return std::nullopt;
    return static_cast<Cents>(std::llround(value * 100.0));
}

std::optional<long long> whole_of(const std::string& text)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 18)
        return std::nullopt;
    return std::stoll(text);
}

// Whether the voucher FECompConsultar found is the one this flow sent: same date, receiver and amounts.
bool is_same_voucher(const ConsultedVoucher& found, const Invoice& invoice, const std::string& date)
{
    const auto same_whole = [&](const char* name, long long expected) { return whole_of(found.field(name)) == expected; };
    const auto same_amount = [&](const char* name, Cents expected) {
        const std::string text = found.field(name);
        return text.empty() || cents_of(text) == expected;
    };
    const std::string currency = found.field("MonId");
    return found.field("CbteFch") == date && same_whole("Concepto", invoice.concept) &&
           same_whole("DocTipo", invoice.document_type) && same_whole("DocNro", invoice.document_number) &&
           cents_of(found.field("ImpTotal")) == invoice.total && same_amount("ImpTotConc", invoice.untaxed) &&
           same_amount("ImpNeto", invoice.net) && same_amount("ImpOpEx", invoice.exempt) &&
           same_amount("ImpTrib", invoice.taxes_total) && same_amount("ImpIVA", invoice.vat_total) &&
           (currency.empty() || currency == invoice.currency);
}

class Flow {
public:
    Flow(const Invoice& invoice, std::int64_t cuit, const std::string& today, InvoicingChannel& channel)
        : m_invoice(invoice), m_cuit(cuit), m_channel(channel)
    {
        m_result.point_of_sale = invoice.point_of_sale;
        m_result.voucher_type = invoice.voucher_type;
        m_result.date = invoice.date.empty() ? today : invoice.date;
    }

    InvoiceResult run()
    {
        if (m_invoice.number)
            m_result.number = *m_invoice.number;
        else if (!take_next_number())
            return m_result;

        int sends_left = authorisation_attempts;
        int renumbers_left = renumbering_attempts;
        while (sends_left-- > 0) {
            const ServiceExchange sent = m_channel.send(
                "FECAESolicitar", authorisation_request(m_invoice, m_cuit, m_result.number, m_result.date));
            if (sent.result != 0 && sent.result != response_not_xml && sent.result != timed_out)
                return finish(InvoiceOutcome::not_sent, "the request did not reach WSFEv1", sent.result);
            const auto answer = sent.result == 0 ? read_authorisation_answer(sent.answer) : std::nullopt;
            const bool lost = !answer || answer->has_error(transaction_active);
            if (!lost) {
                take_answer(*answer);
                if (m_result.result == "A")
                    return finish(InvoiceOutcome::approved);
                // 10016: the number is taken, by another process or by our own earlier request
                // that AFIP went on to authorise; FECompConsultar tells which.
                if (!answer->has_error(not_next_number))
                    return finish(InvoiceOutcome::rejected, "AFIP rejected the voucher");
            }

            std::optional<ConsultedVoucher> found;
            for (int attempt = 0; attempt < consultation_attempts && !found; ++attempt) {
                if (attempt > 0)
                    m_channel.pause(pause_milliseconds);
                const ServiceExchange asked = m_channel.send(
                    "FECompConsultar",
                    consultation_request(m_cuit, m_invoice.point_of_sale, m_invoice.voucher_type, m_result.number));
                if (asked.result == 0)
                    found = read_consulted_voucher(asked.answer);
            }
            if (!found && !lost)
                return finish(InvoiceOutcome::rejected, "AFIP rejected the voucher");
            if (!found)
                return finish(InvoiceOutcome::unknown, "the answer to FECAESolicitar was lost and FECompConsultar "
                                                       "did not answer either: whether voucher " +
                                                           std::to_string(m_result.number) + " exists is unknown");
            if (!found->found && !lost)
                return finish(InvoiceOutcome::rejected, "AFIP rejected the voucher");
            if (found->found && is_same_voucher(*found, m_invoice, m_result.date)) {
                take_consulted(*found);
                return finish(InvoiceOutcome::approved);
            }
            if (found->found) {
                if (m_invoice.number)
                    return finish(InvoiceOutcome::rejected,
                                  "number " + std::to_string(m_result.number) + " is held by another voucher");
                if (renumbers_left-- <= 0)
                    return finish(InvoiceOutcome::rejected, "other vouchers kept taking the next number");
                if (!take_next_number())
                    return m_result;
                ++sends_left;
                continue;
            }
            if (sends_left > 0)
                m_channel.pause(pause_milliseconds);
        }
        return finish(InvoiceOutcome::unknown, "voucher " + std::to_string(m_result.number) +
                                                   " was not authorised after " + std::to_string(authorisation_attempts) +
                                                   " attempts whose answers were lost; try again later");
    }

private:
    // FECompUltimoAutorizado + 1; false with the outcome set when it cannot be read.
    bool take_next_number()
    {
        const ServiceExchange asked = m_channel.send(
            "FECompUltimoAutorizado", last_authorised_request(m_cuit, m_invoice.point_of_sale, m_invoice.voucher_type));
        if (asked.result != 0) {
            finish(InvoiceOutcome::not_sent, "FECompUltimoAutorizado failed", asked.result);
            return false;
        }
        const auto last = read_last_authorised(asked.answer);
        if (!last || !last->number) {
            if (last)
                m_result.errors = last->errors;
            finish(InvoiceOutcome::rejected, "FECompUltimoAutorizado gave no number");
            return false;
        }
        m_result.number = *last->number + 1;
        return true;
    }

    void take_answer(const AuthorisationAnswer& answer)
    {
        m_result.result = answer.result;
        m_result.cae = answer.cae;
        m_result.cae_expiry = answer.cae_expiry;
        m_result.observations = answer.observations;
        m_result.errors = answer.errors;
        m_result.events = answer.events;
    }

    void take_consulted(const ConsultedVoucher& found)
    {
        m_result.result = found.field("Resultado");
        m_result.cae = found.field("CodAutorizacion");
        m_result.cae_expiry = found.field("FchVto");
        m_result.observations = found.observations;
        m_result.errors = found.errors;
        m_result.events = found.events;
        m_result.recovered = true;
    }

    InvoiceResult finish(InvoiceOutcome outcome, const std::string& message = {}, std::int32_t library_result = 0)
    {
        m_result.outcome = outcome;
        m_result.message = message;
        m_result.library_result = library_result;
        return m_result;
    }

    const Invoice& m_invoice;
    const std::int64_t m_cuit;
    InvoicingChannel& m_channel;
    InvoiceResult m_result;
};

} // namespace

InvoiceResult authorise_invoice(const Invoice& invoice, std::int64_t cuit, const std::string& today,
                                InvoicingChannel& channel)
{
    return Flow(invoice, cuit, today, channel).run();
}
