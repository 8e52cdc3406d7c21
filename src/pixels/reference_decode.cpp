// Decoder::Reference: the pixels the Python references decode. A JPEG goes
// through libjpeg-turbo with the library's defaults (accurate integer IDCT,
// fancy upsampling), the codec and settings behind both OpenCV's imread and
// Pillow's Image.open; then its EXIF orientation is applied, as both do.
// Every other format is read by stb, whose pixels already agree with theirs.
#include <algorithm>
#include <csetjmp>
#include <cstdio>  // jpeglib.h uses FILE and size_t without including them
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <jpeglib.h>

#include "image_io.hpp"
#include "pixels.hpp"

namespace vemoproc {

namespace {

// ---------------------------------------------------------------------------
// libjpeg with exceptions instead of exit()
// ---------------------------------------------------------------------------

// libjpeg reports a fatal error through error_exit, which must not return:
// it jumps back to the setjmp of the step below that called the library.
// Those steps hold only plain C data, so the jump skips no destructor; the
// step then returns false and the caller throws with the saved message.
struct JpegErrors {
  jpeg_error_mgr mgr;  // first member: libjpeg hands back a pointer to it
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
};

extern "C" void jpeg_fail(j_common_ptr cinfo) {
  auto* errors = reinterpret_cast<JpegErrors*>(cinfo->err);
  (*cinfo->err->format_message)(cinfo, errors->message);
  std::longjmp(errors->jump, 1);
}

// Warnings (corrupt but decodable data, a missing end marker) are not fatal,
// as in OpenCV, and the library prints nothing.
extern "C" void jpeg_quiet(j_common_ptr) {}

class JpegReader {
 public:
  JpegReader() {
    std::memset(&cinfo_, 0, sizeof cinfo_);  // jpeg_destroy is then safe at any point
    cinfo_.err = jpeg_std_error(&errors_.mgr);
    errors_.mgr.error_exit = &jpeg_fail;
    errors_.mgr.output_message = &jpeg_quiet;
    errors_.message[0] = '\0';
  }
  ~JpegReader() { jpeg_destroy_decompress(&cinfo_); }
  JpegReader(const JpegReader&) = delete;
  JpegReader& operator=(const JpegReader&) = delete;

  // Reads the header and chooses the output colour space: RGB (grey
  // replicated by the library), or CMYK for four-component files.
  bool read_header(const uint8_t* bytes, size_t size) {
    if (setjmp(errors_.jump) != 0) return false;
    jpeg_create_decompress(&cinfo_);
    jpeg_mem_src(&cinfo_, bytes, static_cast<unsigned long>(size));
    jpeg_read_header(&cinfo_, TRUE);
    cinfo_.out_color_space = cinfo_.num_components == 4 ? JCS_CMYK : JCS_RGB;
    return true;
  }

  // Decodes every row into `out` (rows of `stride` bytes, each width *
  // output_components()).
  bool read_pixels(uint8_t* out, size_t stride) {
    if (setjmp(errors_.jump) != 0) return false;
    jpeg_start_decompress(&cinfo_);
    JSAMPROW rows[16];
    while (cinfo_.output_scanline < cinfo_.output_height) {
      const JDIMENSION first = cinfo_.output_scanline;
      const JDIMENSION count = std::min<JDIMENSION>(16, cinfo_.output_height - first);
      for (JDIMENSION i = 0; i < count; ++i) rows[i] = out + (first + i) * stride;
      jpeg_read_scanlines(&cinfo_, rows, count);
    }
    jpeg_finish_decompress(&cinfo_);
    return true;
  }

  int width() const { return static_cast<int>(cinfo_.image_width); }
  int height() const { return static_cast<int>(cinfo_.image_height); }
  bool cmyk() const { return cinfo_.out_color_space == JCS_CMYK; }
  const char* message() const { return errors_.message; }

 private:
  jpeg_decompress_struct cinfo_;
  JpegErrors errors_;
};

[[noreturn]] void fail(const std::string& why) {
  throw std::runtime_error("Failed to decode image bytes: " + why);
}

// OpenCV's CMYK to RGB (it assumes Adobe's inverted CMYK):
// R = K - ((255 - C) * K >> 8), likewise G from M and B from Y.
void cmyk_to_rgb(uint8_t* p, size_t pixels) {
  const uint8_t* s = p;
  for (size_t i = 0; i < pixels; ++i, s += 4, p += 3) {
    const int k = s[3];
    const int r = k - (((255 - s[0]) * k) >> 8);
    const int g = k - (((255 - s[1]) * k) >> 8);
    const int b = k - (((255 - s[2]) * k) >> 8);
    p[0] = static_cast<uint8_t>(r);
    p[1] = static_cast<uint8_t>(g);
    p[2] = static_cast<uint8_t>(b);
  }
}

Image decode_jpeg(const uint8_t* bytes, size_t size) {
  JpegReader jpeg;
  if (!jpeg.read_header(bytes, size)) fail(jpeg.message());
  // The build's side cap (stb's limit for the other decoders) and the
  // budget are checked from the header, before any pixel memory exists.
  if (jpeg.width() > STBI_MAX_DIMENSIONS || jpeg.height() > STBI_MAX_DIMENSIONS) fail("too large");
  if (!detail::within_pixel_budget(jpeg.width(), jpeg.height())) {
    fail(std::to_string(jpeg.width()) + " x " + std::to_string(jpeg.height()) +
         " pixels exceed the image pixel budget of " + std::to_string(max_image_pixels()));
  }
  Image image;
  image.width = jpeg.width();
  image.height = jpeg.height();
  const size_t pixels = static_cast<size_t>(image.width) * static_cast<size_t>(image.height);
  // CMYK rows are decoded four bytes a pixel, then converted in place.
  const size_t channels = jpeg.cmyk() ? 4 : 3;
  image.rgb.resize(pixels * channels);
  if (!jpeg.read_pixels(image.rgb.data(), static_cast<size_t>(image.width) * channels)) {
    fail(jpeg.message());
  }
  if (jpeg.cmyk()) {
    cmyk_to_rgb(image.rgb.data(), pixels);
    image.rgb.resize(pixels * 3);
    image.rgb.shrink_to_fit();
  }
  return image;
}

bool is_jpeg(const uint8_t* bytes, size_t size) {
  return size >= 3 && bytes[0] == 0xFF && bytes[1] == 0xD8 && bytes[2] == 0xFF;
}

}  // namespace

Image decode_image(const uint8_t* bytes, size_t size, Decoder decoder) {
  switch (decoder) {
    case Decoder::Stb:
      return decode_image(bytes, size, false);
    case Decoder::Reference:
      if (bytes == nullptr || size == 0) fail("no bytes");
      if (!is_jpeg(bytes, size)) return decode_image(bytes, size, false);
      return detail::orient(decode_jpeg(bytes, size), detail::jpeg_exif_orientation(bytes, size));
  }
  fail("decoder is not a Decoder value");
}

Image decode_image_file(const std::string& path, Decoder decoder) {
  std::vector<uint8_t> bytes;
  if (decoder != Decoder::Stb && decoder != Decoder::Reference) {
    throw std::runtime_error("decode_image_file(): decoder is not a Decoder value");
  }
  if (!detail::read_file(path, bytes)) throw std::runtime_error("Failed to load image: " + path);
  try {
    return decode_image(bytes.data(), bytes.size(), decoder);
  } catch (const std::runtime_error&) {
    throw std::runtime_error("Failed to load image: " + path);
  }
}

}  // namespace vemoproc
