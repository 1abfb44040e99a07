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
// The same of FECAEARegInformativo's answer (its details' CAEA in `cae`).
std::optional<AuthorisationAnswer> read_inform_answer(const std::string& xml);

// What FECAEASolicitar or FECAEAConsultar said: the CAEA and its dates, or errors.
struct CaeaAnswer {
    std::string code, valid_from, valid_to, report_by, processed; // code empty: none given
    int period = 0, fortnight = 0;
    ServiceMessages errors, events;
};
std::optional<CaeaAnswer> read_caea_answer(const std::string& xml, bool consult);

// FECAEASinMovimientoInformar's Resultado and errors.
struct NoMovementAnswer {
    std::string result;
    ServiceMessages errors;
};
std::optional<NoMovementAnswer> read_no_movement_answer(const std::string& xml);

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

// The condition ids FEParamGetCondicionIvaReceptor lists; nullopt without a ResultGet.
std::optional<std::vector<int>> read_receptor_conditions(const std::string& xml);

// FECompTotXRequest's RegXReq; nullopt when the answer holds none above zero.
std::optional<int> read_records_per_request(const std::string& xml);

#endif
