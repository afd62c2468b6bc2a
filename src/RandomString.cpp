#include "tavrel/RandomString.h"

#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/evp.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <memory>
#include <vector>

#include "Log.h"

namespace tavrel {
namespace {

const Logger logger("random-string");

struct FreeChain {
  void operator()(BIO* bio) const { BIO_free_all(bio); }
};
using BioChain = std::unique_ptr<BIO, FreeChain>;

// Fills `bytes` from the kernel, without a device.
bool FillRandomly(std::vector<unsigned char>& bytes) {
  for (std::size_t filled = 0; filled < bytes.size();) {
    const ssize_t count = getrandom(bytes.data() + filled, bytes.size() - filled, 0);
    if (count == -1 && errno == EINTR) continue;
    if (count <= 0) return false;
    filled += static_cast<std::size_t>(count);
  }
  return true;
}

// `bytes` in base64, on one line; empty when libcrypto has no memory for it.
std::string Base64(const std::vector<unsigned char>& bytes) {
  BioChain chain(BIO_new(BIO_f_base64()));
  BIO* const memory = chain ? BIO_new(BIO_s_mem()) : nullptr;
  if (memory == nullptr) return "";
  BIO_set_flags(chain.get(), BIO_FLAGS_BASE64_NO_NL);
  BIO_push(chain.get(), memory);  // freed with the chain

  BIO_write(chain.get(), bytes.data(), static_cast<int>(bytes.size()));
  BIO_flush(chain.get());
  BUF_MEM* text = nullptr;
  BIO_get_mem_ptr(memory, &text);
  return text != nullptr ? std::string(text->data, text->length) : "";
}

}  // namespace

std::string RandomString(std::size_t length) {
  std::vector<unsigned char> bytes(length <= INT_MAX ? length : 0);
  const int device = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (device == -1) {
    logger.Error("Unable to open /dev/urandom: ", std::strerror(errno));
    return "";
  }
  // One read, whose count does not matter: whatever it leaves unwritten is random already. Only if
  // that was impossible must the device give every byte.
  const bool is_filled = FillRandomly(bytes);
  const ssize_t count = read(device, bytes.data(), bytes.size());
  close(device);
  if (bytes.empty() || (!is_filled && count != static_cast<ssize_t>(bytes.size()))) return "";

  const std::string text = Base64(bytes);
  return text.size() < length ? "" : text.substr(0, length);
}

}  // namespace tavrel
