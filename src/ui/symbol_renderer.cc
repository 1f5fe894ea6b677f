#include "ui/symbol_renderer.h"

#include <cairo.h>
#include <gdk-pixbuf/gdk-pixbuf.h>
#include <librsvg/rsvg.h>

#include <algorithm>

namespace corvane::ui {

namespace {

constexpr const char* kLogDomain = "corvane-ui";
// Parsed symbol files kept; symbols in use at once are few, and a handle is small.
constexpr size_t kMaxParsedFiles = 64;

bool IsSvg(const std::string& path) {
  return path.size() > 4 && g_ascii_strcasecmp(path.c_str() + path.size() - 4, ".svg") == 0;
}

std::optional<std::vector<uint8_t>> PixbufCoverage(const std::string& path, int pixels) {
  GError* error = nullptr;
  GdkPixbuf* pixbuf =
      gdk_pixbuf_new_from_file_at_scale(path.c_str(), pixels, pixels, FALSE, &error);
  if (!pixbuf) {
    g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "%s: %s", path.c_str(), error->message);
    g_error_free(error);
    return std::nullopt;
  }
  std::optional<std::vector<uint8_t>> coverage;
  if (gdk_pixbuf_get_width(pixbuf) == pixels && gdk_pixbuf_get_height(pixbuf) == pixels &&
      gdk_pixbuf_get_bits_per_sample(pixbuf) == 8) {
    const int channels = gdk_pixbuf_get_n_channels(pixbuf);
    const bool alpha = gdk_pixbuf_get_has_alpha(pixbuf);
    const int stride = gdk_pixbuf_get_rowstride(pixbuf);
    const guchar* data = gdk_pixbuf_read_pixels(pixbuf);
    coverage.emplace(static_cast<size_t>(pixels) * pixels);
    for (int y = 0; y < pixels; ++y) {
      for (int x = 0; x < pixels; ++x) {
        (*coverage)[y * pixels + x] = alpha ? data[y * stride + x * channels + 3] : 255;
      }
    }
  }
  g_object_unref(pixbuf);
  return coverage;
}

// The coverage filled with one colour, straight alpha.
Bitmap Colourise(const std::vector<uint8_t>& coverage, uint32_t argb, int pixels) {
  const uint8_t r = argb >> 16 & 0xFF;
  const uint8_t g = argb >> 8 & 0xFF;
  const uint8_t b = argb & 0xFF;
  const unsigned a = argb >> 24 & 0xFF;
  Bitmap bitmap{pixels, pixels, std::vector<uint8_t>(coverage.size() * 4)};
  uint8_t* out = bitmap.rgba.data();
  for (uint8_t c : coverage) {
    const uint8_t alpha = static_cast<uint8_t>((c * a + 127) / 255);
    // Invisible pixels are all zero: the same picture, and it compresses better.
    if (alpha != 0) {
      out[0] = r;
      out[1] = g;
      out[2] = b;
      out[3] = alpha;
    }
    out += 4;
  }
  return bitmap;
}

}  // namespace

std::vector<uint8_t> EncodePng(const Bitmap& bitmap) {
  if (bitmap.width < 1 || bitmap.height < 1 ||
      bitmap.rgba.size() != static_cast<size_t>(bitmap.width) * bitmap.height * 4) {
    return {};
  }
  GdkPixbuf* pixbuf =
      gdk_pixbuf_new_from_data(bitmap.rgba.data(), GDK_COLORSPACE_RGB, TRUE, 8, bitmap.width,
                               bitmap.height, bitmap.width * 4, nullptr, nullptr);
  gchar* buffer = nullptr;
  gsize size = 0;
  GError* error = nullptr;
  std::vector<uint8_t> png;
  if (gdk_pixbuf_save_to_buffer(pixbuf, &buffer, &size, "png", &error, nullptr)) {
    png.assign(buffer, buffer + size);
  } else {
    g_log(kLogDomain, G_LOG_LEVEL_WARNING, "PNG encoding failed: %s", error->message);
    g_error_free(error);
  }
  g_free(buffer);
  g_object_unref(pixbuf);
  return png;
}

SymbolRenderer::~SymbolRenderer() { DropParsed(); }

void SymbolRenderer::DropParsed() {
  for (auto& [path, handle] : parsed_) g_object_unref(handle);
  parsed_.clear();
}

RsvgHandle* SymbolRenderer::Parsed(const std::string& path) {
  if (parsed_generation_ != lookup_.generation()) {
    DropParsed();
    parsed_generation_ = lookup_.generation();
  }
  if (auto hit = parsed_.find(path); hit != parsed_.end()) return hit->second;
  GError* error = nullptr;
  RsvgHandle* handle = rsvg_handle_new_from_file(path.c_str(), &error);
  if (!handle) {
    g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "%s: %s", path.c_str(), error->message);
    g_error_free(error);
    return nullptr;
  }
  if (parsed_.size() >= kMaxParsedFiles) DropParsed();
  parsed_.emplace(path, handle);
  return handle;
}

// The file's coverage, one byte per pixel, `pixels` bytes a row.
std::optional<std::vector<uint8_t>> SymbolRenderer::SvgCoverage(const std::string& path,
                                                                int pixels) {
  RsvgHandle* handle = Parsed(path);
  if (!handle) return std::nullopt;
  // Alpha only: the colour comes from the caller, so the file's own colours do not matter.
  cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_A8, pixels, pixels);
  cairo_t* cr = cairo_create(surface);
  const RsvgRectangle viewport{0, 0, static_cast<double>(pixels), static_cast<double>(pixels)};
  GError* error = nullptr;
  const bool drawn = rsvg_handle_render_document(handle, cr, &viewport, &error);
  cairo_destroy(cr);
  std::optional<std::vector<uint8_t>> coverage;
  if (drawn && cairo_surface_status(surface) == CAIRO_STATUS_SUCCESS) {
    cairo_surface_flush(surface);
    const uint8_t* data = cairo_image_surface_get_data(surface);
    const int stride = cairo_image_surface_get_stride(surface);
    coverage.emplace(static_cast<size_t>(pixels) * pixels);
    for (int y = 0; y < pixels; ++y) {
      std::copy_n(data + static_cast<size_t>(y) * stride, pixels, coverage->data() + y * pixels);
    }
  } else if (error) {
    g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "%s: %s", path.c_str(), error->message);
  }
  g_clear_error(&error);
  cairo_surface_destroy(surface);
  return coverage;
}

std::optional<Bitmap> SymbolRenderer::Render(std::string_view symbol, uint32_t argb, int pixels) {
  auto coverage = Coverage(symbol, pixels);
  if (!coverage) return std::nullopt;
  return Colourise(*coverage, argb, pixels);
}

std::optional<std::vector<uint8_t>> SymbolRenderer::Coverage(std::string_view symbol, int pixels) {
  if (pixels < 1 || pixels > kMaxSymbolPixels) return std::nullopt;
  std::optional<std::string> path = lookup_.Find(symbol);
  if (!path) return std::nullopt;
  auto coverage = IsSvg(*path) ? SvgCoverage(*path, pixels) : PixbufCoverage(*path, pixels);
  if (!coverage) {
    // The file went away or never drew: look again next time.
    lookup_.Forget(symbol);
    if (auto parsed = parsed_.find(*path); parsed != parsed_.end()) {
      g_object_unref(parsed->second);
      parsed_.erase(parsed);
    }
  }
  return coverage;
}

}  // namespace corvane::ui
