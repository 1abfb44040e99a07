// The invoice-file reader of tarvoafip_cli invoice: any bytes give a voucher or InvoiceFileError,
// and every voucher it accepts becomes a well-formed request.
#include <pugixml.hpp>

#include "cli/invoice_file.h"
#include "cli/invoice_request.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Invoice invoice;
    try {
        invoice = read_invoice(as_string(data, size));
    } catch (const InvoiceFileError&) {
        return 0;
    }
    const std::string request = authorisation_request(invoice, 20111111112, invoice.number.value_or(1), "20261123");
    pugi::xml_document document;
    if (!document.load_buffer(request.data(), request.size()))
        __builtin_trap();
    // The amounts read back as sent: two decimals, nothing lost.
    const std::string total = document.first_element_by_path("soapenv:Envelope/soapenv:Body/ar:FECAESolicitar/"
                                                             "ar:FeCAEReq/ar:FeDetReq/ar:FECAEDetRequest/ar:ImpTotal")
                                  .text()
                                  .get();
    if (total != format_cents(invoice.total) || total.size() < 4 || total[total.size() - 3] != '.')
        __builtin_trap();
    return 0;
}
