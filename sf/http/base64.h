// Base64 in the standard alphabet with "=" padding, for HTTP credentials and
// security tokens.
#pragma once

#include <string>

namespace sf {

std::string encodeBase64(const std::string& bytes);
// The bytes text encodes. Throws Xinvalid "decodePem-paderror" for padding
// where it cannot be, and Xstate "decodePem" for any other malformed text
// (a character outside the alphabet, a length that is not a multiple of 4).
std::string decodePem(const std::string& text);

}  // namespace sf
