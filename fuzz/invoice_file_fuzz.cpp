// The invoicing core's voucher reader: any bytes give a voucher or VoucherError; every voucher it
// accepts becomes a well-formed request, and its canonical form reads back to the same form.
#include <pugixml.hpp>

#include "fuzz_support.h"
#include "invoicing/voucher.h"
#include "invoicing/wsfev1_requests.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Voucher voucher;
    try {
        voucher = read_voucher(as_string(data, size));
    } catch (const VoucherError&) {
        return 0;
    }
    const std::string request =
        authorisation_request(20111111112, {NumberedVoucher{&voucher, voucher.number.value_or(1), "20261123"}});
    pugi::xml_document document;
    if (!document.load_buffer(request.data(), request.size()))
        __builtin_trap();
    // The amounts read back as sent: two decimals, nothing lost.
    const std::string total = document.first_element_by_path("soapenv:Envelope/soapenv:Body/ar:FECAESolicitar/"
                                                             "ar:FeCAEReq/ar:FeDetReq/ar:FECAEDetRequest/ar:ImpTotal")
                                  .text()
                                  .get();
    if (total != voucher.total.text() || total.size() < 4 || total[total.size() - 3] != '.')
        __builtin_trap();
    const std::string canonical = canonical_voucher(voucher);
    if (canonical_voucher(read_voucher(canonical)) != canonical)
        __builtin_trap();
    return 0;
}
