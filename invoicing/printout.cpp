#include "invoicing/printout.h"

#include "invoicing/afip_codes.h"
#include "invoicing/authorisation.h"
#include "invoicing/lookup.h"

std::vector<ReceiptItem> receipt_items(const Voucher& voucher)
{
    std::vector<ReceiptItem> items;
    for (const VoucherItem& item : voucher.items)
        items.push_back({item.description, item.quantity, item.unit_price, item.vat_rate_id});
    return items;
}

namespace {

VoucherAmounts amounts_of(const Voucher& voucher)
{
    return {voucher.total, voucher.untaxed, voucher.net, voucher.exempt, voucher.vat_total, voucher.taxes_total};
}

std::vector<VatLine> vat_lines_of(const Voucher& voucher)
{
    std::vector<VatLine> lines;
    for (const VatRate& rate : voucher.vat)
        lines.push_back({rate.id, rate.base, rate.amount});
    return lines;
}

} // namespace

std::string items_problem(const Voucher& voucher)
{
    if (voucher.items.empty())
        return {};
    const VoucherTypeInfo* type = voucher_type_info(voucher.voucher_type);
    return check_items(receipt_items(voucher), amounts_of(voucher), vat_lines_of(voucher), type ? type->letter : 'B');
}

Receipt receipt_of(const SaleRecord& sale, const IssuerProfile& issuer, const std::optional<std::string>& registry_person,
                   const std::optional<CaeaGrant>& caea)
{
    const Voucher voucher = read_voucher(sale.voucher);
    const SaleOutcome outcome = outcome_of_record(sale);
    Receipt receipt;
    receipt.issuer = issuer;
    receipt.receiver.document_type = voucher.document_type;
    receipt.receiver.document_number = voucher.document_number;
    receipt.receiver.vat_condition = voucher.receiver_vat_condition.value_or(5);
    if (voucher.receptor) {
        receipt.receiver.name = voucher.receptor->name;
        receipt.receiver.address = voucher.receptor->address;
    } else if (registry_person) {
        const RegistryPerson person = person_from_json(*registry_person);
        receipt.receiver.name = person.name;
        const RegistryAddress& address = person.address;
        receipt.receiver.address = address.street;
        for (const std::string& part : {address.locality, address.province})
            if (!part.empty())
                receipt.receiver.address += (receipt.receiver.address.empty() ? "" : ", ") + part;
    }
    receipt.voucher_type = voucher.voucher_type;
    receipt.point_of_sale = voucher.point_of_sale;
    receipt.number = outcome.number;
    receipt.date = outcome.date;
    receipt.concept = voucher.concept;
    receipt.service_from = voucher.service_from;
    receipt.service_to = voucher.service_to;
    receipt.payment_due = voucher.payment_due;
    receipt.currency = voucher.currency;
    receipt.quotation = std::stod(voucher.exchange_rate);
    receipt.amounts = amounts_of(voucher);
    receipt.vat_lines = vat_lines_of(voucher);
    for (const Tax& tax : voucher.taxes)
        receipt.other_taxes.push_back({tax.id, tax.description, tax.base, std::stod(tax.rate), tax.amount});
    receipt.items = receipt_items(voucher);
    for (const AssociatedVoucher& associated : voucher.associated)
        receipt.associated.push_back({associated.type, associated.point_of_sale, associated.number, associated.date});
    receipt.authorisation.kind = sale.emission == "CAEA" ? AuthorisationKind::caea : AuthorisationKind::cae;
    receipt.authorisation.code = sale.cae;
    receipt.authorisation.cae_expiry = sale.cae_expiry;
    if (caea) {
        receipt.authorisation.caea_from = caea->valid_from;
        receipt.authorisation.caea_to = caea->valid_to;
    }
    receipt.qr_address = outcome.qr_url;
    return receipt;
}
