// Base64 encoding and decoding.
#include "sf/http/base64.h"

#include "sf/sferr.h"

namespace sf {

namespace {

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int valueOf(char ch) {
  if (ch >= 'A' && ch <= 'Z') return ch - 'A';
  if (ch >= 'a' && ch <= 'z') return ch - 'a' + 26;
  if (ch >= '0' && ch <= '9') return ch - '0' + 52;
  if (ch == '+') return 62;
  if (ch == '/') return 63;
  return -1;
}

}  // namespace

std::string encodeBase64(const std::string& bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (size_t i = 0; i < bytes.size(); i += 3) {
    size_t n = std::min<size_t>(3, bytes.size() - i);
    unsigned v = static_cast<unsigned char>(bytes[i]) << 16;
    if (n > 1) v |= static_cast<unsigned char>(bytes[i + 1]) << 8;
    if (n > 2) v |= static_cast<unsigned char>(bytes[i + 2]);
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += n > 1 ? kAlphabet[(v >> 6) & 63] : '=';
    out += n > 2 ? kAlphabet[v & 63] : '=';
  }
  return out;
}

std::string decodePem(const std::string& text) {
  if (text.size() % 4 != 0) SF_THROW("decodePem", Xstate());
  std::string out;
  out.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    bool last = i + 4 == text.size();
    unsigned v = 0;
    int pad = 0;
    for (size_t k = 0; k < 4; ++k) {
      char ch = text[i + k];
      if (ch == '=') {
        // Padding only ends the text, in its last one or two places.
        if (!last || k < 2) SF_THROW("decodePem-paderror", Xinvalid());
        ++pad;
        v <<= 6;
        continue;
      }
      if (pad) SF_THROW("decodePem-paderror", Xinvalid());
      int d = valueOf(ch);
      if (d < 0) SF_THROW("decodePem", Xstate());
      v = (v << 6) | static_cast<unsigned>(d);
    }
    out += static_cast<char>((v >> 16) & 255);
    if (pad < 2) out += static_cast<char>((v >> 8) & 255);
    if (pad < 1) out += static_cast<char>(v & 255);
  }
  return out;
}

}  // namespace sf
