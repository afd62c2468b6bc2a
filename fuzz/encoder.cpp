// The encoding of password values, and random text. The input is what is encoded, and what the
// random device gives.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "Expect.h"
#include "Interpose.h"
#include "LogCapture.h"
#include "tavrel/RandomString.h"
#include "tavrel/StringEncoding.h"

namespace tavrel::fuzz {
namespace {

using tests::LogCapture;
using tests::StandIn;
namespace calls = tests::calls;
using Lines = std::vector<std::string>;

constexpr int kDevice = 1000;

void CheckEncoding(const std::string& text) {
  const bool too_long = text.size() > 127;
  bool ascii = true;
  std::string wide;
  for (const char c : text) {
    if (static_cast<unsigned char>(c) > 127) ascii = false;
    wide += c;
    wide += '\0';
  }
  Lines records;
  if (too_long) {
    records = {
        "4 string_encoding EncodeUtf8to16Octetstring: support for encoded data larger than 127 not "
        "implemented"};
  } else if (!ascii) {
    records = {
        "4 string_encoding EncodeUtf8to16Octetstring: support for UTF8 encoded with more than 1 "
        "byte not implemented"};
  }
  LogCapture log;

  berval* const value = StringEncoding::EncodeUtf8to16Octetstring(text.data(), text.size());

  ExpectEqual(log.Lines(), records, "the encoder says why it refuses");
  ExpectEqual(value != nullptr, !too_long && ascii, "the encoder takes 127 bytes of ASCII");
  if (value == nullptr) return;
  ExpectEqual(std::string(value->bv_val, value->bv_len), wide, "the value is UTF-16LE");
  std::free(value->bv_val);
  std::free(value);
}

// RFC 4648, 4: six bits a character, "=" for the rest of the last three bytes.
std::string Base64(const std::string& bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t bit = 0; bit < bytes.size() * 8; bit += 6) {
    unsigned six = 0;
    for (std::size_t i = bit; i < bit + 6; ++i) {
      const unsigned byte = i / 8 < bytes.size() ? static_cast<unsigned char>(bytes[i / 8]) : 0;
      six = six << 1 | (byte >> (7 - i % 8) & 1U);
    }
    text += kAlphabet[six];
  }
  while (text.size() % 4 != 0)
    text += '=';
  return text;
}

// `given` is what a read of the device gives of `length` bytes; the others are the kernel's.
void CheckRandomString(std::size_t length, const std::string& given) {
  std::string bytes = given;
  bytes.resize(length, '\x5A');
  const StandIn kernel(calls::getrandom, [](void* buffer, std::size_t count, unsigned) {
    std::fill_n(static_cast<char*>(buffer), count, '\x5A');
    return static_cast<ssize_t>(count);
  });
  bool open = false;
  const StandIn opened(calls::open, [&](const char* path, int, mode_t) {
    ExpectEqual(std::string(path), "/dev/urandom", "random bytes come from the device");
    open = true;
    return kDevice;
  });
  const StandIn read(calls::read, [&](int device, void* buffer, std::size_t count) -> ssize_t {
    ExpectEqual(device, kDevice, "the device is read");
    ExpectEqual(count, length, "a byte is read for every character");
    std::copy(given.begin(), given.end(), static_cast<char*>(buffer));
    return given.empty() ? -1 : static_cast<ssize_t>(given.size());
  });
  const StandIn closed(calls::close, [&](int device) {
    ExpectEqual(device, kDevice, "the device is closed");
    open = false;
    return 0;
  });
  LogCapture log;

  const std::string text = RandomString(length);

  ExpectEqual(text, Base64(bytes).substr(0, length), "random text is base64 of the bytes read");
  ExpectEqual(open, false, "the device is closed again");
  ExpectEqual(log.Lines(), Lines{}, "random text leaves no record");
}

void CheckNoDevice(std::size_t length) {
  const StandIn opened(calls::open, [](const char*, int, mode_t) {
    errno = ENOENT;
    return -1;
  });
  LogCapture log;

  const std::string text = RandomString(length);

  ExpectEqual(text, "", "without the device there is no text");
  ExpectEqual(log.Lines(),
              Lines{"4 random-string RandomString: Unable to open /dev/urandom: No such file or "
                    "directory"},
              "a missing device is told");
}

}  // namespace
}  // namespace tavrel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tavrel::fuzz;
  const std::string text(reinterpret_cast<const char*>(data), size);
  CheckEncoding(text);
  CheckRandomString(size, text);
  CheckRandomString(size, text.substr(0, size / 2));
  CheckRandomString(size, "");
  CheckNoDevice(size);
  return 0;
}
