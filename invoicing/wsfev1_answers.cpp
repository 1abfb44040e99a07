#include "invoicing/wsfev1_answers.h"

#include <pugixml.hpp>

#include "util/xml_names.h"

namespace {

std::string text(const pugi::xml_node& parent, const char* name)
{
    return child_by_local_name(parent, name).text().get();
}

// The first element of that local name anywhere below `root`, depth first.
pugi::xml_node descendant(const pugi::xml_node& root, const char* name)
{
    return root.find_node([name](const pugi::xml_node& node) { return local_name(node) == name; });
}

ServiceMessages messages(const pugi::xml_node& list)
{
    ServiceMessages result;
    for (const pugi::xml_node& item : list.children()) {
        if (item.type() != pugi::node_element)
            continue;
        result.push_back({child_by_local_name(item, "Code").text().as_llong(), text(item, "Msg")});
    }
    return result;
}

std::optional<pugi::xml_node> operation_result(pugi::xml_document& document, const std::string& xml, const char* name)
{
    if (!document.load_buffer(xml.data(), xml.size()))
        return std::nullopt;
    const pugi::xml_node result = descendant(document, name);
    if (!result)
        return std::nullopt;
    return result;
}

} // namespace

bool has_code(const ServiceMessages& messages, long long code)
{
    for (const ServiceMessage& message : messages)
        if (message.code == code)
            return true;
    return false;
}

namespace {

std::optional<AuthorisationAnswer> read_judged_vouchers(const std::string& xml, const char* result_name,
                                                        const char* detail_name, const char* code_name)
{
    pugi::xml_document document;
    const auto result = operation_result(document, xml, result_name);
    if (!result)
        return std::nullopt;
    AuthorisationAnswer answer;
    answer.result = text(child_by_local_name(*result, "FeCabResp"), "Resultado");
    for (const pugi::xml_node& detail : child_by_local_name(*result, "FeDetResp").children()) {
        if (detail.type() != pugi::node_element || local_name(detail) != detail_name)
            continue;
        DetailAnswer read;
        read.result = text(detail, "Resultado");
        read.number = child_by_local_name(detail, "CbteDesde").text().as_llong();
        read.date = text(detail, "CbteFch");
        read.cae = text(detail, code_name);
        read.cae_expiry = text(detail, "CAEFchVto");
        read.observations = messages(child_by_local_name(detail, "Observaciones"));
        answer.details.push_back(std::move(read));
    }
    answer.errors = messages(child_by_local_name(*result, "Errors"));
    answer.events = messages(child_by_local_name(*result, "Events"));
    return answer;
}

} // namespace

std::optional<AuthorisationAnswer> read_authorisation_answer(const std::string& xml)
{
    return read_judged_vouchers(xml, "FECAESolicitarResult", "FECAEDetResponse", "CAE");
}

std::optional<AuthorisationAnswer> read_inform_answer(const std::string& xml)
{
    return read_judged_vouchers(xml, "FECAEARegInformativoResult", "FECAEADetResponse", "CAEA");
}

std::optional<CaeaAnswer> read_caea_answer(const std::string& xml, bool consult)
{
    pugi::xml_document document;
    const auto result = operation_result(document, xml, consult ? "FECAEAConsultarResult" : "FECAEASolicitarResult");
    if (!result)
        return std::nullopt;
    CaeaAnswer answer;
    const pugi::xml_node granted = child_by_local_name(*result, "ResultGet");
    answer.code = text(granted, "CAEA");
    answer.period = child_by_local_name(granted, "Periodo").text().as_int();
    answer.fortnight = child_by_local_name(granted, "Orden").text().as_int();
    answer.valid_from = text(granted, "FchVigDesde");
    answer.valid_to = text(granted, "FchVigHasta");
    answer.report_by = text(granted, "FchTopeInf");
    answer.processed = text(granted, "FchProceso");
    answer.errors = messages(child_by_local_name(*result, "Errors"));
    answer.events = messages(child_by_local_name(*result, "Events"));
    return answer;
}

std::optional<NoMovementAnswer> read_no_movement_answer(const std::string& xml)
{
    pugi::xml_document document;
    const auto result = operation_result(document, xml, "FECAEASinMovimientoInformarResult");
    if (!result)
        return std::nullopt;
    return NoMovementAnswer{text(*result, "Resultado"), messages(child_by_local_name(*result, "Errors"))};
}

std::optional<AnswerHeader> read_answer_header(const std::string& xml)
{
    pugi::xml_document document;
    const auto result = operation_result(document, xml, "FECAESolicitarResult");
    if (!result)
        return std::nullopt;
    const pugi::xml_node header = child_by_local_name(*result, "FeCabResp");
    return AnswerHeader{child_by_local_name(header, "PtoVta").text().as_int(),
                        child_by_local_name(header, "CbteTipo").text().as_int()};
}

std::optional<LastAuthorised> read_last_authorised(const std::string& xml)
{
    pugi::xml_document document;
    const auto result = operation_result(document, xml, "FECompUltimoAutorizadoResult");
    if (!result)
        return std::nullopt;
    LastAuthorised last;
    last.errors = messages(child_by_local_name(*result, "Errors"));
    const pugi::xml_node number = child_by_local_name(*result, "CbteNro");
    if (last.errors.empty() && number)
        last.number = number.text().as_llong();
    return last;
}

std::optional<ConsultedVoucher> read_consulted_voucher(const std::string& xml)
{
    pugi::xml_document document;
    const auto result = operation_result(document, xml, "FECompConsultarResult");
    if (!result)
        return std::nullopt;
    ConsultedVoucher voucher;
    voucher.errors = messages(child_by_local_name(*result, "Errors"));
    voucher.events = messages(child_by_local_name(*result, "Events"));
    const pugi::xml_node found = child_by_local_name(*result, "ResultGet");
    if (found) {
        voucher.found = true;
        for (const pugi::xml_node& field : found.children())
            if (field.type() == pugi::node_element && !field.first_child().first_child())
                voucher.fields.emplace_back(local_name(field), field.text().get());
        voucher.observations = messages(child_by_local_name(found, "Observaciones"));
        return voucher;
    }
    for (const ServiceMessage& error : voucher.errors)
        if (error.code == 602)
            return voucher;
    return std::nullopt;
}

std::string ConsultedVoucher::field(const std::string& name) const
{
    for (const auto& [key, value] : fields)
        if (key == name)
            return value;
    return {};
}

std::optional<int> read_records_per_request(const std::string& xml)
{
    pugi::xml_document document;
    const auto result = operation_result(document, xml, "FECompTotXRequestResult");
    if (!result)
        return std::nullopt;
    const int count = child_by_local_name(*result, "RegXReq").text().as_int();
    if (count <= 0)
        return std::nullopt;
    return count;
}

std::optional<std::vector<int>> read_receptor_conditions(const std::string& xml)
{
    pugi::xml_document document;
    const auto result = operation_result(document, xml, "FEParamGetCondicionIvaReceptorResult");
    const pugi::xml_node list = result ? child_by_local_name(*result, "ResultGet") : pugi::xml_node();
    if (!list)
        return std::nullopt;
    std::vector<int> ids;
    for (const pugi::xml_node& condition : list.children())
        if (condition.type() == pugi::node_element)
            ids.push_back(child_by_local_name(condition, "Id").text().as_int());
    return ids;
}
