// Images: decoding the four formats, the lossless PNG with its scale, and hostile bytes.
#include "kp/platform/image.h"

#include <gtest/gtest.h>
#include <turbojpeg.h>
#include <webp/encode.h>
#include <webp/mux.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STBI_WRITE_NO_STDIO
#include <stb/stb_image_write.h>

namespace {

using Bytes = std::vector<std::uint8_t>;

kp::Image gradient(std::uint32_t w, std::uint32_t h, double scale) {
  Bytes rgba;
  for (std::uint32_t y = 0; y < h; ++y) {
    for (std::uint32_t x = 0; x < w; ++x) {
      rgba.insert(rgba.end(), {static_cast<std::uint8_t>(x * 37), static_cast<std::uint8_t>(y * 53),
                               static_cast<std::uint8_t>((x + y) * 11), static_cast<std::uint8_t>(255 - x)});
    }
  }
  return kp::Image(w, h, std::move(rgba), scale);
}

void appendBigEndian(Bytes& out, std::uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(v >> shift));
}

// A PNG chunk; the decoder does not check CRCs, so they are left zero.
void appendChunk(Bytes& png, const char* type, const Bytes& data) {
  appendBigEndian(png, static_cast<std::uint32_t>(data.size()));
  png.insert(png.end(), type, type + 4);
  png.insert(png.end(), data.begin(), data.end());
  appendBigEndian(png, 0);
}

// An 8-bit RGBA PNG of the given size whose image data is `idat`.
Bytes pngWith(std::uint32_t w, std::uint32_t h, const Bytes& idat, bool interlaced = false) {
  Bytes png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  Bytes header;
  appendBigEndian(header, w);
  appendBigEndian(header, h);
  header.insert(header.end(), {8, 6, 0, 0, static_cast<std::uint8_t>(interlaced ? 1 : 0)});
  appendChunk(png, "IHDR", header);
  appendChunk(png, "IDAT", idat);
  appendChunk(png, "IEND", {});
  return png;
}

// A zlib stream that inflates to `size` (rounded up to 1 + a multiple of 258) zero bytes from
// 13 bits per 258: one fixed-Huffman block of a literal zero and then "repeat 258 bytes at
// distance 1".
Bytes zlibBomb(std::size_t size) {
  Bytes out = {0x78, 0x01};
  std::uint32_t bits = 0;
  int count = 0;
  auto put = [&](std::uint32_t value, int n) {  // least significant bit first
    bits |= value << count;
    count += n;
    while (count >= 8) {
      out.push_back(static_cast<std::uint8_t>(bits));
      bits >>= 8;
      count -= 8;
    }
  };
  auto putCode = [&](std::uint32_t code, int n) {  // Huffman codes go most significant bit first
    for (int i = n - 1; i >= 0; --i) put((code >> i) & 1, 1);
  };
  put(1, 1);         // final block
  put(1, 2);         // fixed Huffman codes
  putCode(0x30, 8);  // literal 0
  std::size_t produced = 1;
  for (; produced < size; produced += 258) {
    putCode(0xc5, 8);  // length 258 (code 285)
    putCode(0, 5);     // distance 1
  }
  putCode(0, 7);  // end of block
  put(0, 7);
  appendBigEndian(out, static_cast<std::uint32_t>((produced % 65521) << 16 | 1));  // Adler-32 of zeros
  return out;
}

// `image` as WebP: lossless, or lossy at quality 90 (with its alpha plane kept exactly).
Bytes webp(const kp::Image& image, bool lossless) {
  std::uint8_t* out = nullptr;
  const auto w = static_cast<int>(image.pixelWidth());
  const auto h = static_cast<int>(image.pixelHeight());
  const std::size_t size = lossless ? WebPEncodeLosslessRGBA(image.pixels().data(), w, h, w * 4, &out)
                                    : WebPEncodeRGBA(image.pixels().data(), w, h, w * 4, 90, &out);
  Bytes bytes(out, out + size);
  WebPFree(out);
  return bytes;
}

kp::Image filled(std::uint32_t w, std::uint32_t h, std::array<std::uint8_t, 4> rgba) {
  Bytes pixels;
  for (std::uint32_t i = 0; i < w * h; ++i) pixels.insert(pixels.end(), rgba.begin(), rgba.end());
  return kp::Image(w, h, std::move(pixels), 1);
}

// A WebP file of one chunk.
Bytes riff(const char* type, const Bytes& payload) {
  Bytes out = {'R', 'I', 'F', 'F'};
  const auto appendLittleEndian = [&out](std::uint32_t v) {
    for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<std::uint8_t>(v >> shift));
  };
  appendLittleEndian(static_cast<std::uint32_t>(12 + payload.size()));
  out.insert(out.end(), {'W', 'E', 'B', 'P'});
  out.insert(out.end(), type, type + 4);
  appendLittleEndian(static_cast<std::uint32_t>(payload.size()));
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

TEST(Image, PngIsLosslessAndRecordsTheScale) {
  const auto image = gradient(7, 5, 2);
  const auto png = image.pngData();
  ASSERT_TRUE(png);
  const auto back = kp::Image::decode(*png);
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, image);
  EXPECT_EQ(back->size(), (kp::ImageSize{3.5, 2.5}));
  // The scale is a 144 dpi pHYs chunk, which other tools read too.
  const std::string text(png->view());
  const auto phys = text.find("pHYs");
  ASSERT_NE(phys, std::string::npos);
  EXPECT_EQ(text.substr(phys + 4, 9), std::string("\x00\x00\x16\x25\x00\x00\x16\x25\x01", 9));

  EXPECT_EQ(kp::Image::decode(*png, 3.0)->scale(), 3.0);  // a given scale wins
  EXPECT_EQ(kp::Image::decode(*gradient(2, 2, 1).pngData())->scale(), 1.0);
  EXPECT_EQ(kp::Image::decode(*gradient(2, 2, 3).pngData())->scale(), 3.0);
  EXPECT_FALSE(kp::Image::decode(*png, 0.0));
  EXPECT_THROW(kp::Image(2, 2, Bytes(15), 1), std::invalid_argument);
  EXPECT_THROW(kp::Image(0, 2, Bytes(), 1), std::invalid_argument);
  EXPECT_THROW(image.withScale(-1), std::invalid_argument);
}

TEST(Image, DecodesJpegAndTheFirstGifFrame) {
  Bytes jpeg;
  Bytes pixels;
  for (int i = 0; i < 16 * 8; ++i) pixels.insert(pixels.end(), {20, 40, 230});
  stbi_write_jpg_to_func(
      [](void* context, void* data, int size) {
        auto* out = static_cast<Bytes*>(context);
        out->insert(out->end(), static_cast<std::uint8_t*>(data), static_cast<std::uint8_t*>(data) + size);
      },
      &jpeg, 16, 8, 3, pixels.data(), 95);
  const auto photo = kp::Image::decode(kp::Data(jpeg));
  ASSERT_TRUE(photo);
  EXPECT_EQ(photo->pixelWidth(), 16u);
  EXPECT_EQ(photo->pixelHeight(), 8u);
  EXPECT_EQ(photo->scale(), 1.0);
  EXPECT_NEAR(photo->pixels()[2], 230, 8);  // lossy, but blue
  EXPECT_EQ(photo->pixels()[3], 255);
  // Cut short, it gives nothing.
  EXPECT_FALSE(kp::Image::decode(std::span(jpeg.data(), jpeg.size() - 40)));

  // A print-ready file: CMYK stored inverted (255 is no ink), written as YCCK. Full cyan ink on
  // the left half, half magenta and full yellow on the right: cyan and orange.
  Bytes cmyk;
  for (int i = 0; i < 16 * 8; ++i) {
    if (i % 16 < 8) {
      cmyk.insert(cmyk.end(), {0, 255, 255, 255});
    } else {
      cmyk.insert(cmyk.end(), {255, 128, 0, 255});
    }
  }
  const std::unique_ptr<void, decltype(&tjDestroy)> compressor(tjInitCompress(), &tjDestroy);
  unsigned char* printed = nullptr;
  unsigned long printedSize = 0;  // NOLINT(google-runtime-int): TurboJPEG's own type
  ASSERT_EQ(tjCompress2(compressor.get(), cmyk.data(), 16, 0, 8, TJPF_CMYK, &printed, &printedSize, TJSAMP_444, 100, 0),
            0);
  const auto print = kp::Image::decode(std::span(printed, printedSize));
  tjFree(printed);
  ASSERT_TRUE(print);
  const auto* left = &print->pixels()[(3 * 16 + 2) * 4];
  const auto* right = &print->pixels()[(3 * 16 + 13) * 4];
  EXPECT_LT(left[0], 12);
  EXPECT_GT(left[1], 243);
  EXPECT_GT(left[2], 243);
  EXPECT_GT(right[0], 243);
  EXPECT_NEAR(right[1], 128, 12);
  EXPECT_LT(right[2], 12);
  EXPECT_EQ(right[3], 255);

  // A one-pixel GIF whose palette starts with red.
  const Bytes gif = {'G', 'I',  'F', '8', '9', 'a', 1, 0, 1, 0, 0x80, 0, 0, 0xff, 0, 0, 0,   0,
                     0,   0x2c, 0,   0,   0,   0,   1, 0, 1, 0, 0,    2, 2, 0x44, 1, 0, 0x3b};
  const auto dot = kp::Image::decode(kp::Data(gif));
  ASSERT_TRUE(dot);
  EXPECT_EQ(Bytes(dot->pixels().begin(), dot->pixels().end()), (Bytes{255, 0, 0, 255}));
}

TEST(Image, DecodesWebpLossyLosslessWithAlphaAndTheFirstFrame) {
  const auto image = gradient(7, 5, 1);  // with alpha
  const auto lossless = kp::Image::decode(kp::Data(webp(image, true)));
  ASSERT_TRUE(lossless);
  EXPECT_EQ(*lossless, image);

  const auto photo = kp::Image::decode(kp::Data(webp(filled(16, 8, {20, 40, 230, 255}), false)), 2.0);
  ASSERT_TRUE(photo);
  EXPECT_EQ(photo->size(), (kp::ImageSize{8, 4}));
  EXPECT_NEAR(photo->pixels()[2], 230, 8);  // lossy, but blue
  EXPECT_EQ(photo->pixels()[3], 255);
  const auto veiled = kp::Image::decode(kp::Data(webp(filled(16, 8, {200, 40, 20, 128}), false)));
  ASSERT_TRUE(veiled);
  EXPECT_NEAR(veiled->pixels()[0], 200, 8);
  EXPECT_EQ(veiled->pixels()[3], 128);

  // An animation of a red frame, then a blue one: its first frame.
  WebPAnimEncoderOptions options;
  ASSERT_TRUE(WebPAnimEncoderOptionsInit(&options));
  WebPAnimEncoder* encoder = WebPAnimEncoderNew(4, 4, &options);
  WebPConfig config;
  ASSERT_TRUE(WebPConfigInit(&config));
  config.lossless = 1;
  int time = 0;
  for (const auto& colour :
       {std::array<std::uint8_t, 4>{255, 0, 0, 255}, std::array<std::uint8_t, 4>{0, 0, 255, 255}}) {
    const auto frame = filled(4, 4, colour);
    WebPPicture picture;
    ASSERT_TRUE(WebPPictureInit(&picture));
    picture.width = picture.height = 4;
    picture.use_argb = 1;
    ASSERT_TRUE(WebPPictureImportRGBA(&picture, frame.pixels().data(), 16));
    EXPECT_TRUE(WebPAnimEncoderAdd(encoder, &picture, time, &config));
    WebPPictureFree(&picture);
    time += 100;
  }
  WebPAnimEncoderAdd(encoder, nullptr, time, nullptr);
  WebPData animation;
  WebPDataInit(&animation);
  ASSERT_TRUE(WebPAnimEncoderAssemble(encoder, &animation));
  WebPAnimEncoderDelete(encoder);
  const auto first = kp::Image::decode(std::span(animation.bytes, animation.size));
  WebPDataClear(&animation);
  ASSERT_TRUE(first);
  EXPECT_EQ(*first, filled(4, 4, {255, 0, 0, 255}));
}

TEST(Image, HostileBytesAreRefusedWithinBoundedMemory) {
  const auto png = *gradient(40, 30, 1).pngData();
  // Truncated anywhere, or another format, or nothing at all.
  for (std::size_t cut : {std::size_t{0}, std::size_t{7}, std::size_t{40}, png.size() / 2, png.size() - 20}) {
    EXPECT_FALSE(kp::Image::decode(std::span(png.data(), cut))) << cut;
  }
  EXPECT_FALSE(kp::Image::decode(kp::Data::fromString("<html>not an image</html>")));
  EXPECT_FALSE(kp::Image::decode(kp::Data(Bytes(4096, 0xff))));
  // A JPEG Huffman table that claims 300 symbols, which would overrun the decoder's tables.
  Bytes table = {0xff, 0xd8, 0xff, 0xc4, 0x01, 0x3f, 0x00, 255, 45};
  table.resize(table.size() + 14 + 300, 0);
  table.insert(table.end(), {0xff, 0xd9});
  EXPECT_FALSE(kp::Image::decode(kp::Data(table)));
  // Huffman codes whose symbols lie past the table (a fuzzer's find; the sanitizers watch the
  // decoder's reads).
  std::ifstream found(std::string(std::getenv("KP_SOURCE_DIR")) + "/fuzz/corpus/image/jpeg-huffman-code-past-table.jpg",
                      std::ios::binary);
  const Bytes codes((std::istreambuf_iterator<char>(found)), std::istreambuf_iterator<char>());
  ASSERT_EQ(codes.size(), 654u);
  EXPECT_FALSE(kp::Image::decode(kp::Data(codes)));
  // Headers that promise more pixels than allowed are refused before any pixel memory.
  EXPECT_FALSE(kp::Image::decode(kp::Data(pngWith(100000, 100000, zlibBomb(1000)))));
  EXPECT_FALSE(kp::Image::decode(kp::Data(pngWith(16384, 16384, zlibBomb(1000)))));
  // So are WebP headers (lossless: 16384 by 16384; an animation's canvas: 2^24 by 1), and a
  // WebP file cut short anywhere gives nothing.
  EXPECT_FALSE(kp::Image::decode(kp::Data(riff("VP8L", {0x2f, 0xff, 0xff, 0xff, 0x0f, 0}))));
  EXPECT_FALSE(kp::Image::decode(kp::Data(riff("VP8X", {0x02, 0, 0, 0, 0xff, 0xff, 0xff, 0, 0, 0}))));
  for (const bool lossless : {true, false}) {
    const Bytes whole = webp(gradient(40, 30, 1), lossless);
    for (std::size_t cut : {std::size_t{12}, std::size_t{30}, whole.size() / 2, whole.size() - 1}) {
      EXPECT_FALSE(kp::Image::decode(std::span(whole.data(), cut))) << cut << (lossless ? " lossless" : " lossy");
    }
  }
  // An interlaced one-pixel image (which may carry data beyond its pixels) whose data
  // inflates to 64 MiB ends at the decoder's budget.
  EXPECT_FALSE(kp::Image::decode(kp::Data(pngWith(1, 1, zlibBomb(64u << 20), true))));
  EXPECT_TRUE(kp::Image::decode(kp::Data(pngWith(1, 1, zlibBomb(1000), true))));
  // The same stream sized for its image decodes: 257 rows of 64 pixels and a filter byte.
  EXPECT_TRUE(kp::Image::decode(kp::Data(pngWith(64, 257, zlibBomb(257 * (64 * 4 + 1))))));
  // So does it with an empty image-data chunk before its own, which the decoder would have
  // copied to no buffer at all.
  Bytes split = pngWith(64, 257, zlibBomb(257 * (64 * 4 + 1)));
  Bytes empty;
  appendChunk(empty, "IDAT", {});
  split.insert(split.begin() + 33, empty.begin(), empty.end());
  EXPECT_TRUE(kp::Image::decode(kp::Data(split)));
}

}  // namespace
