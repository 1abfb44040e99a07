// Drawing a voucher with cairo: the fonts (DejaVu, found through fontconfig), a PDF written into
// memory, text, boxes, the QR code as vector squares and the issuer's PNG logo.
#ifndef TARVO_INVOICING_RECEIPT_PDF_CANVAS_H
#define TARVO_INVOICING_RECEIPT_PDF_CANVAS_H

#include <cairo.h>

#include <memory>
#include <string>
#include <vector>

template <typename T, void (*release)(T*)>
struct CairoRelease {
    void operator()(T* object) const { release(object); }
};
using SurfaceOwner = std::unique_ptr<cairo_surface_t, CairoRelease<cairo_surface_t, cairo_surface_destroy>>;
using ContextOwner = std::unique_ptr<cairo_t, CairoRelease<cairo_t, cairo_destroy>>;

enum class Font { regular, bold, mono, mono_bold };
enum class Align { left, center, right };

// Points in a millimetre.
constexpr double points_per_mm = 72.0 / 25.4;

// The font file fontconfig gives for that family and weight, else `debian_path` when it exists;
// throws ReceiptError naming the font and its Debian package when neither is there.
std::string font_file(const char* family, int weight, const char* debian_path);

// "" when the bytes are a PNG image of at most 4000 x 4000 pixels that cairo decodes, else what
// is wrong ("is not a PNG image").
std::string png_problem(const std::string& bytes);
// The image; throws ReceiptError when png_problem() is not empty.
SurfaceOwner decode_png(const std::string& bytes);

// The dark modules of a QR code (libqrencode, error correction M), row by row.
struct QrMatrix {
    int width = 0;
    std::vector<bool> dark;
    bool at(int x, int y) const { return dark[static_cast<size_t>(y) * width + x]; }
};
// Throws ReceiptError when the text does not fit in a QR code.
QrMatrix encode_qr(const std::string& text);

// A PDF being drawn into memory. Coordinates are points from the page's top left corner.
class PdfDocument {
public:
    // `date` (yyyymmdd) stamps the document, so the same voucher always gives the same bytes.
    PdfDocument(double width, double height, const std::string& title, const std::string& date);
    PdfDocument(const PdfDocument&) = delete;
    PdfDocument& operator=(const PdfDocument&) = delete;

    double text_width(const std::string& text, Font font, double size) const;
    void text(double x, double baseline, const std::string& text, Font font, double size, Align align = Align::left);
    void box(double x, double y, double width, double height, double fill_gray = -1);
    void line(double x1, double y1, double x2, double y2);
    // The QR code in a square of that side, quiet zone not included.
    void qr(const QrMatrix& code, double x, double y, double side);
    // The PNG scaled to fit the box, kept in proportion, against its left edge or centred; the
    // height it takes.
    double image(const std::string& png, double x, double y, double width, double height, Align align);
    void next_page();
    // Before anything is drawn on the page.
    void set_page_size(double width, double height);
    // The PDF's bytes; throws ReceiptError when cairo failed anywhere.
    std::string finish();

private:
    void use_font(Font font, double size) const;

    std::string m_bytes; // written by the surface: declared first, destroyed last
    SurfaceOwner m_surface;
    ContextOwner m_context;
};

#endif
