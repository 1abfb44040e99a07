#include "invoice_request.h"

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

std::string authorisation_request(const Invoice& invoice, std::int64_t cuit, std::int64_t number, const std::string& date)
{
    std::string detail = element("Concepto", invoice.concept) + element("DocTipo", invoice.document_type) +
                         element("DocNro", invoice.document_number) + element("CbteDesde", number) +
                         element("CbteHasta", number) + element("CbteFch", date) +
                         element("ImpTotal", format_cents(invoice.total)) +
                         element("ImpTotConc", format_cents(invoice.untaxed)) +
                         element("ImpNeto", format_cents(invoice.net)) + element("ImpOpEx", format_cents(invoice.exempt)) +
                         element("ImpTrib", format_cents(invoice.taxes_total)) +
                         element("ImpIVA", format_cents(invoice.vat_total)) +
                         optional_element("FchServDesde", invoice.service_from) +
                         optional_element("FchServHasta", invoice.service_to) +
                         optional_element("FchVtoPago", invoice.payment_due) + element("MonId", invoice.currency) +
                         element("MonCotiz", invoice.exchange_rate);
    if (invoice.receiver_vat_condition)
        detail += element("CondicionIVAReceptorId", *invoice.receiver_vat_condition);
    detail += list("CbtesAsoc", invoice.associated, [](const AssociatedVoucher& voucher) {
        return "<ar:CbteAsoc>" + element("Tipo", voucher.type) + element("PtoVta", voucher.point_of_sale) +
               element("Nro", voucher.number) + optional_element("Cuit", voucher.cuit) +
               optional_element("CbteFch", voucher.date) + "</ar:CbteAsoc>";
    });
    detail += list("Tributos", invoice.taxes, [](const Tax& tax) {
        return "<ar:Tributo>" + element("Id", tax.id) + optional_element("Desc", tax.description) +
               element("BaseImp", format_cents(tax.base)) + element("Alic", tax.rate) +
               element("Importe", format_cents(tax.amount)) + "</ar:Tributo>";
    });
    detail += list("Iva", invoice.vat, [](const VatRate& rate) {
        return "<ar:AlicIva>" + element("Id", rate.id) + element("BaseImp", format_cents(rate.base)) +
               element("Importe", format_cents(rate.amount)) + "</ar:AlicIva>";
    });
    detail += list("Opcionales", invoice.optionals, [](const OptionalDatum& datum) {
        return "<ar:Opcional>" + element("Id", datum.id) + element("Valor", datum.value) + "</ar:Opcional>";
    });
    return envelope("FECAESolicitar", cuit,
                    "<ar:FeCAEReq><ar:FeCabReq><ar:CantReg>1</ar:CantReg>" + element("PtoVta", invoice.point_of_sale) +
                        element("CbteTipo", invoice.voucher_type) + "</ar:FeCabReq><ar:FeDetReq><ar:FECAEDetRequest>" +
                        detail + "</ar:FECAEDetRequest></ar:FeDetReq></ar:FeCAEReq>");
}
