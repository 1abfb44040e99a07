#include "invoicing/wsfev1_requests.h"

#include "util/xml_names.h"

namespace {

std::string element(const char* name, const std::string& text)
{
    return std::string("<ar:") + name + ">" + xml_escape(text) + "</ar:" + name + ">";
}

std::string element(const char* name, std::int64_t number)
{
    return element(name, std::to_string(number));
}

std::string optional_element(const char* name, const std::string& text)
{
    return text.empty() ? std::string() : element(name, text);
}

std::string envelope(const char* operation, std::int64_t cuit, const std::string& content)
{
    return std::string("<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
                       "xmlns:ar=\"http://ar.gov.afip.dif.FEV1/\"><soapenv:Header/><soapenv:Body><ar:") +
           operation + "><ar:Auth><ar:Token></ar:Token><ar:Sign></ar:Sign>" + element("Cuit", cuit) + "</ar:Auth>" +
           content + "</ar:" + operation + "></soapenv:Body></soapenv:Envelope>";
}

// An empty list is left out: an empty Tributos or Iva element is itself refused (10024, 10018).
template <typename Item, typename Writer>
std::string list(const char* name, const std::vector<Item>& items, Writer write)
{
    if (items.empty())
        return {};
    std::string content;
    for (const Item& item : items)
        content += write(item);
    return std::string("<ar:") + name + ">" + content + "</ar:" + name + ">";
}

// One FECAEDetRequest's content.
std::string authorisation_detail(const Voucher& voucher, std::int64_t number, const std::string& date)
{
    std::string detail = element("Concepto", voucher.concept) + element("DocTipo", voucher.document_type) +
                         element("DocNro", voucher.document_number) + element("CbteDesde", number) +
                         element("CbteHasta", number) + element("CbteFch", date) +
                         element("ImpTotal", voucher.total.text()) +
                         element("ImpTotConc", voucher.untaxed.text()) +
                         element("ImpNeto", voucher.net.text()) + element("ImpOpEx", voucher.exempt.text()) +
                         element("ImpTrib", voucher.taxes_total.text()) +
                         element("ImpIVA", voucher.vat_total.text()) +
                         optional_element("FchServDesde", voucher.service_from) +
                         optional_element("FchServHasta", voucher.service_to) +
                         optional_element("FchVtoPago", voucher.payment_due) + element("MonId", voucher.currency) +
                         element("MonCotiz", voucher.exchange_rate);
    if (voucher.receiver_vat_condition)
        detail += element("CondicionIVAReceptorId", *voucher.receiver_vat_condition);
    detail += list("CbtesAsoc", voucher.associated, [](const AssociatedVoucher& associated) {
        return "<ar:CbteAsoc>" + element("Tipo", associated.type) + element("PtoVta", associated.point_of_sale) +
               element("Nro", associated.number) + optional_element("Cuit", associated.cuit) +
               optional_element("CbteFch", associated.date) + "</ar:CbteAsoc>";
    });
    detail += list("Tributos", voucher.taxes, [](const Tax& tax) {
        return "<ar:Tributo>" + element("Id", tax.id) + optional_element("Desc", tax.description) +
               element("BaseImp", tax.base.text()) + element("Alic", tax.rate) +
               element("Importe", tax.amount.text()) + "</ar:Tributo>";
    });
    detail += list("Iva", voucher.vat, [](const VatRate& rate) {
        return "<ar:AlicIva>" + element("Id", rate.id) + element("BaseImp", rate.base.text()) +
               element("Importe", rate.amount.text()) + "</ar:AlicIva>";
    });
    detail += list("Opcionales", voucher.optionals, [](const OptionalDatum& datum) {
        return "<ar:Opcional>" + element("Id", datum.id) + element("Valor", datum.value) + "</ar:Opcional>";
    });
    return detail;
}

} // namespace

std::string last_authorised_request(std::int64_t cuit, int point_of_sale, int voucher_type)
{
    return envelope("FECompUltimoAutorizado", cuit, element("PtoVta", point_of_sale) + element("CbteTipo", voucher_type));
}

std::string consultation_request(std::int64_t cuit, int point_of_sale, int voucher_type, std::int64_t number)
{
    return envelope("FECompConsultar", cuit,
                    "<ar:FeCompConsReq>" + element("CbteTipo", voucher_type) + element("CbteNro", number) +
                        element("PtoVta", point_of_sale) + "</ar:FeCompConsReq>");
}


std::string caea_inform_request(std::int64_t cuit, const std::vector<InformedVoucher>& vouchers)
{
    std::string details;
    for (const InformedVoucher& informed : vouchers)
        details += "<ar:FECAEADetRequest>" + authorisation_detail(*informed.voucher, informed.number, informed.date) +
                   element("CAEA", informed.caea) + element("CbteFchHsGen", informed.generated_at) + "</ar:FECAEADetRequest>";
    const Voucher& first = *vouchers.front().voucher;
    return envelope("FECAEARegInformativo", cuit,
                    "<ar:FeCAEARegInfReq><ar:FeCabReq>" + element("CantReg", static_cast<std::int64_t>(vouchers.size())) +
                        element("PtoVta", first.point_of_sale) + element("CbteTipo", first.voucher_type) +
                        "</ar:FeCabReq><ar:FeDetReq>" + details + "</ar:FeDetReq></ar:FeCAEARegInfReq>");
}

std::string caea_request(std::int64_t cuit, bool consult, int period, int fortnight)
{
    return envelope(consult ? "FECAEAConsultar" : "FECAEASolicitar", cuit,
                    element("Periodo", period) + element("Orden", fortnight));
}

std::string no_movement_request(std::int64_t cuit, int point_of_sale, const std::string& caea)
{
    return envelope("FECAEASinMovimientoInformar", cuit, element("PtoVta", point_of_sale) + element("CAEA", caea));
}

std::string records_per_request_request(std::int64_t cuit)
{
    return envelope("FECompTotXRequest", cuit, "");
}

std::string receptor_conditions_request(std::int64_t cuit, const std::string& voucher_class)
{
    return envelope("FEParamGetCondicionIvaReceptor", cuit, element("ClaseCmp", voucher_class));
}

std::string authorisation_request(std::int64_t cuit, const std::vector<NumberedVoucher>& vouchers)
{
    std::string details;
    for (const auto& [voucher, number, date] : vouchers)
        details += "<ar:FECAEDetRequest>" + authorisation_detail(*voucher, number, date) + "</ar:FECAEDetRequest>";
    const Voucher& first = *vouchers.front().voucher;
    return envelope("FECAESolicitar", cuit,
                    "<ar:FeCAEReq><ar:FeCabReq>" + element("CantReg", static_cast<std::int64_t>(vouchers.size())) +
                        element("PtoVta", first.point_of_sale) + element("CbteTipo", first.voucher_type) +
                        "</ar:FeCabReq><ar:FeDetReq>" + details + "</ar:FeDetReq></ar:FeCAEReq>");
}
