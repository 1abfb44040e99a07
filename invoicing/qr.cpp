#include "invoicing/qr.h"

#include <png.h>
#include <qrencode.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "util/b64.h"

namespace {

// A JSON number: the digits when the text is one, else 0 (an unauthorised voucher has no CAE).
std::string number_text(const std::string& digits)
{
    return !digits.empty() && digits.size() <= 18 && digits.find_first_not_of("0123456789") == std::string::npos
               ? digits.substr(std::min(digits.find_first_not_of('0'), digits.size() - 1))
               : "0";
}

struct QrFree {
    void operator()(QRcode* code) const { QRcode_free(code); }
};

} // namespace

std::string qr_payload(const QrVoucher& voucher)
{
    const std::string date = voucher.date.size() == 8
                                 ? voucher.date.substr(0, 4) + "-" + voucher.date.substr(4, 2) + "-" + voucher.date.substr(6, 2)
                                 : voucher.date;
    return "{\"ver\":1,\"fecha\":" + nlohmann::json(date).dump() + ",\"cuit\":" + std::to_string(voucher.cuit) +
           ",\"ptoVta\":" + std::to_string(voucher.point_of_sale) + ",\"tipoCmp\":" + std::to_string(voucher.voucher_type) +
           ",\"nroCmp\":" + std::to_string(voucher.number) + ",\"importe\":" + voucher.total.text() +
           ",\"moneda\":" + nlohmann::json(voucher.currency).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) +
           ",\"ctz\":" + voucher.exchange_rate + ",\"tipoDocRec\":" + std::to_string(voucher.document_type) +
           ",\"nroDocRec\":" + std::to_string(voucher.document_number) + ",\"tipoCodAut\":\"" + (voucher.advance ? "A" : "E") +
           "\",\"codAut\":" + number_text(voucher.code) + "}";
}

std::string qr_url(const QrVoucher& voucher)
{
    return "https://www.afip.gob.ar/fe/qr/?p=" + base64_encode(qr_payload(voucher));
}

bool write_qr_png(const std::string& text, const std::string& path, std::string& problem)
{
    const std::unique_ptr<QRcode, QrFree> code(QRcode_encodeString8bit(text.c_str(), 0, QR_ECLEVEL_M));
    if (!code) {
        problem = "the QR code could not be made";
        return false;
    }
    const int scale = 4;
    const int margin = 4;
    const int side = (code->width + 2 * margin) * scale;
    std::vector<png_byte> pixels(static_cast<size_t>(side) * side, 255);
    for (int y = 0; y < code->width; ++y)
        for (int x = 0; x < code->width; ++x)
            if (code->data[y * code->width + x] & 1) // the low bit: a dark module
                for (int dy = 0; dy < scale; ++dy)
                    for (int dx = 0; dx < scale; ++dx)
                        pixels[static_cast<size_t>((y + margin) * scale + dy) * side + (x + margin) * scale + dx] = 0;

    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(side);
    image.height = static_cast<png_uint_32>(side);
    image.format = PNG_FORMAT_GRAY;
    if (!png_image_write_to_file(&image, path.c_str(), 0, pixels.data(), side, nullptr)) {
        problem = "cannot write " + path + ": " + image.message;
        return false;
    }
    return true;
}
