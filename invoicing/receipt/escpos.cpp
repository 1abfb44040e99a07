// ESC/POS for an 80 mm printer: the ticket's rows in code page 850 (ESC t 2, which holds Spanish
// letters, "°" and "º"), the logo as a raster image, AFIP's QR printed by the printer (GS ( k),
// then feed and cut.
#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "invoicing/receipt/pdf_canvas.h"
#include "invoicing/receipt/receipt_renderers.h"
#include "invoicing/receipt/ticket_rows.h"

namespace {

constexpr char esc = 0x1B;
constexpr char gs = 0x1D;
constexpr char line_feed = 0x0A;
constexpr char code_page_850 = 2;
constexpr char double_size = 0x11; // GS ! : twice as wide and twice as high
constexpr char qr_model_2 = '2';
constexpr char qr_module_dots = 6; // 0.75 mm at 203 dpi
constexpr char qr_error_correction_m = '1';
constexpr int logo_width_dots = 384;
constexpr int logo_height_dots = 160;

// UTF-8 to code page 850; a character the code page lacks becomes '?'.
class Cp850Converter {
public:
    Cp850Converter() : m_converter(iconv_open("CP850", "UTF-8"))
    {
        if (m_converter == reinterpret_cast<iconv_t>(-1))
            throw ReceiptError(std::string("cannot convert text to code page 850: ") + std::strerror(errno));
    }
    ~Cp850Converter() { iconv_close(m_converter); }
    Cp850Converter(const Cp850Converter&) = delete;
    Cp850Converter& operator=(const Cp850Converter&) = delete;

    std::string convert(const std::string& text)
    {
        // One byte out for each character in: the input's size is room enough.
        std::string result(text.size(), '\0');
        char* in = const_cast<char*>(text.data());
        size_t in_left = text.size();
        char* out = &result[0];
        size_t out_left = result.size();
        while (in_left > 0 && iconv(m_converter, &in, &in_left, &out, &out_left) == static_cast<size_t>(-1)) {
            // A character outside the code page (or a broken sequence): '?' for the whole of it.
            *out++ = '?';
            --out_left;
            do {
                ++in;
                --in_left;
            } while (in_left > 0 && (static_cast<unsigned char>(*in) & 0xC0) == 0x80);
        }
        result.resize(result.size() - out_left);
        return result;
    }

private:
    iconv_t m_converter;
};

std::string two_bytes(size_t value) { return {static_cast<char>(value & 0xFF), static_cast<char>(value >> 8 & 0xFF)}; }

// GS ( k with cn 49 (QR code): function `function` and its parameters.
std::string qr_function(char function, const std::string& parameters)
{
    return std::string{gs, '(', 'k'} + two_bytes(parameters.size() + 2) + '1' + function + parameters;
}

std::string qr_commands(const std::string& address)
{
    return qr_function('A', {qr_model_2, 0}) +                   // 165: model 2
           qr_function('C', {qr_module_dots}) +                  // 167: module size in dots
           qr_function('E', {qr_error_correction_m}) +           // 169: error correction M
           qr_function('P', "0" + address) +                     // 180: store the data
           qr_function('Q', "0");                                // 181: print it
}

// GS v 0: the logo in black and white, at most 384 x 160 dots, dark where it is darker than mid grey.
std::string raster_logo(const std::string& png)
{
    const SurfaceOwner image = decode_png(png);
    const double width = cairo_image_surface_get_width(image.get());
    const double height = cairo_image_surface_get_height(image.get());
    const double scale = std::min(logo_width_dots / width, logo_height_dots / height);
    const int dots_wide = std::max(1, static_cast<int>(std::lround(width * scale)));
    const int dots_high = std::max(1, static_cast<int>(std::lround(height * scale)));

    const SurfaceOwner canvas(cairo_image_surface_create(CAIRO_FORMAT_RGB24, dots_wide, dots_high));
    {
        const ContextOwner context(cairo_create(canvas.get()));
        cairo_set_source_rgb(context.get(), 1, 1, 1);
        cairo_paint(context.get());
        cairo_scale(context.get(), scale, scale);
        cairo_set_source_surface(context.get(), image.get(), 0, 0);
        cairo_paint(context.get());
    }
    cairo_surface_flush(canvas.get());
    const unsigned char* pixels = cairo_image_surface_get_data(canvas.get());
    const int stride = cairo_image_surface_get_stride(canvas.get());
    if (!pixels)
        throw ReceiptError("the logo could not be printed: out of memory");

    const size_t row_bytes = (static_cast<size_t>(dots_wide) + 7) / 8;
    std::string bits(row_bytes * dots_high, '\0');
    for (int y = 0; y < dots_high; ++y)
        for (int x = 0; x < dots_wide; ++x) {
            std::uint32_t pixel;
            std::memcpy(&pixel, pixels + static_cast<size_t>(y) * stride + static_cast<size_t>(x) * 4, sizeof pixel);
            const unsigned luminance = (299 * (pixel >> 16 & 0xFF) + 587 * (pixel >> 8 & 0xFF) + 114 * (pixel & 0xFF)) / 1000;
            if (luminance < 128)
                bits[static_cast<size_t>(y) * row_bytes + x / 8] |= static_cast<char>(0x80 >> (x % 8));
        }
    return std::string{gs, 'v', '0', 0} + two_bytes(row_bytes) + two_bytes(static_cast<size_t>(dots_high)) + bits;
}

std::string centred(const std::string& commands) { return std::string{esc, 'a', 1} + commands + std::string{esc, 'a', 0}; }

} // namespace

std::string render_escpos(const VoucherContent& content, const Receipt& receipt)
{
    Cp850Converter code_page;
    std::string bytes{esc, '@', esc, 't', code_page_850};
    for (const TicketRow& row : ticket_rows(content, !receipt.issuer.logo_png.empty())) {
        if (row.kind == TicketRow::Kind::logo)
            bytes += centred(raster_logo(receipt.issuer.logo_png)) + line_feed;
        else if (row.kind == TicketRow::Kind::qr)
            bytes += centred(qr_commands(content.qr_address)) + line_feed;
        else
            bytes += std::string{esc, 'E', row.bold ? '\1' : '\0', gs, '!', row.large ? double_size : '\0'} +
                     code_page.convert(row.text) + line_feed;
    }
    // Feed to the cutter and cut, leaving a tab (GS V 66 0).
    return bytes + std::string{esc, 'E', 0, gs, '!', 0, gs, 'V', 66, 0};
}
