#ifndef TARVO_TOOLS_CLI_INVOICE_FLOW_H
#define TARVO_TOOLS_CLI_INVOICE_FLOW_H

#include <cstdint>
#include <string>

#include "invoice_answer.h"
#include "invoice_file.h"

// One request to WSFEv1 and what came back: the library's result code and the answer it kept.
struct ServiceExchange {
    std::int32_t result = 0;
    std::string answer;
};

// How the flow reaches WSFEv1; the command-line host sends through the loaded library.
class InvoicingChannel {
public:
    virtual ~InvoicingChannel() = default;
    virtual ServiceExchange send(const std::string& operation, const std::string& request) = 0;
    virtual void pause(int milliseconds) = 0;
};

enum class InvoiceOutcome {
    approved,   // AFIP authorised the voucher: it has a CAE
    rejected,   // AFIP refused it, or its number is held by another voucher
    unknown,    // the answer was lost and what AFIP did could not be learnt
    not_sent,   // the exchange failed before AFIP could decide: see library_result
};

struct InvoiceResult {
    InvoiceOutcome outcome = InvoiceOutcome::unknown;
    std::int32_t library_result = 0;
    std::string message; // why, for the user, when not approved
    bool recovered = false; // the CAE came from FECompConsultar after a lost answer
    std::string result;     // Resultado: A, R or empty
    int point_of_sale = 0, voucher_type = 0;
    std::int64_t number = 0;
    std::string date, cae, cae_expiry;
    ServiceMessages observations, errors, events;
};

// How many times FECAESolicitar is sent for one voucher, and how many times a number taken by
// another voucher makes the flow take the next.
constexpr int authorisation_attempts = 3;
constexpr int renumbering_attempts = 3;

// Authorises `invoice` at most once. A lost answer (result 14 or 15, a SOAP fault, Err 502) is
// settled by FECompConsultar of the number sent: the same voucher there is the answer; nothing
// there, it is sent again; another voucher there, the next number is taken (unless the file
// fixed the number). `today` (yyyymmdd) dates a voucher whose file gives no CbteFch.
InvoiceResult authorise_invoice(const Invoice& invoice, std::int64_t cuit, const std::string& today,
                                InvoicingChannel& channel);

#endif
