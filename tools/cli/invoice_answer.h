#ifndef TARVO_TOOLS_CLI_INVOICE_ANSWER_H
#define TARVO_TOOLS_CLI_INVOICE_ANSWER_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct ServiceMessage {
    long long code = 0;
    std::string text;
};

using ServiceMessages = std::vector<ServiceMessage>;

// What FECAESolicitar said about the one voucher sent; elements are matched by local name.
struct AuthorisationAnswer {
    std::string result;     // FECAEDetResponse/Resultado, else FeCabResp/Resultado: A, R, P or empty
    std::string point_of_sale, voucher_type, number, date; // as the answer echoes them
    std::string cae, cae_expiry;
    ServiceMessages observations, errors, events;

    bool has_error(long long code) const;
};

// nullopt when the text holds no FECAESolicitarResult: not XML, a SOAP fault, another answer.
std::optional<AuthorisationAnswer> read_authorisation_answer(const std::string& xml);

struct LastAuthorised {
    std::optional<std::int64_t> number;
    ServiceMessages errors;
};

// nullopt when the text holds no FECompUltimoAutorizadoResult.
std::optional<LastAuthorised> read_last_authorised(const std::string& xml);

// The voucher FECompConsultar found: its fields by name, as text.
struct ConsultedVoucher {
    bool found = false; // false: Err 602, no such voucher
    std::vector<std::pair<std::string, std::string>> fields;
    ServiceMessages observations, errors, events;

    std::string field(const std::string& name) const;
};

// nullopt when the text holds no FECompConsultarResult, or errors other than 602 without ResultGet.
std::optional<ConsultedVoucher> read_consulted_voucher(const std::string& xml);

#endif
