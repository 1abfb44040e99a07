#ifndef TARVO_INVOICING_WSFEV1_ANSWERS_H
#define TARVO_INVOICING_WSFEV1_ANSWERS_H

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// WSFEv1's answers as the invoicing core reads them; elements are matched by local name, so any
// prefix or default namespace works.

struct ServiceMessage {
    long long code = 0;
    std::string text;
};

using ServiceMessages = std::vector<ServiceMessage>;

bool has_code(const ServiceMessages& messages, long long code);

// One FECAEDetResponse.
struct DetailAnswer {
    std::string result; // A or R
    std::int64_t number = 0; // CbteDesde
    std::string date;        // CbteFch
    std::string cae, cae_expiry;
    ServiceMessages observations;
};

// What FECAESolicitar said.
struct AuthorisationAnswer {
    std::string result; // FeCabResp/Resultado: A, R, P, or empty
    std::vector<DetailAnswer> details;
    ServiceMessages errors, events;
};

// nullopt when the text holds no FECAESolicitarResult: not XML, a SOAP fault, another answer.
std::optional<AuthorisationAnswer> read_authorisation_answer(const std::string& xml);

// FeCabResp's point of sale and type.
struct AnswerHeader {
    int point_of_sale = 0;
    int voucher_type = 0;
};
std::optional<AnswerHeader> read_answer_header(const std::string& xml);

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

// FECompTotXRequest's RegXReq; nullopt when the answer holds none above zero.
std::optional<int> read_records_per_request(const std::string& xml);

#endif
