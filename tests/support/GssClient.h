// A user's program on another machine: signs in at the KDC and authenticates to services with
// tokens of the system's GSS-API library.
#ifndef TAVREL_TESTS_GSSCLIENT_H
#define TAVREL_TESTS_GSSCLIENT_H

#include <krb5.h>

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace tavrel::tests {

class GssClient {
 public:
  enum class Mechanism { kKerberos, kSpnego };

  // Obtains a ticket-granting ticket for `user` from the KDC that KRB5_CONFIG names, good for
  // `lifetime` seconds (0: as long as the KDC gives). Throws std::runtime_error when refused.
  GssClient(const std::string& user, const std::string& password, krb5_deltat lifetime = 0);

  // The first token for the service of that principal, a fresh one at each call; it asks for a
  // reply, and is bound to the TLS channel that `channel` names, if any. Throws std::runtime_error
  // when there is none.
  std::vector<char> Token(const std::string& service, Mechanism mechanism = Mechanism::kKerberos,
                          const std::string& channel = "") const;

  // A bare AP-REQ for the service of that principal, a fresh one at each call. Unlike a token it
  // can be had when the clock here is off: it is made at the KDC's time.
  std::vector<char> Request(const std::string& service) const;

 private:
  struct FreeContext {
    void operator()(krb5_context context) const { krb5_free_context(context); }
  };
  struct DestroyCache {
    krb5_context context;
    void operator()(krb5_ccache cache) const { krb5_cc_destroy(context, cache); }
  };

  std::unique_ptr<std::remove_pointer_t<krb5_context>, FreeContext> context_;
  std::unique_ptr<std::remove_pointer_t<krb5_ccache>, DestroyCache> cache_;
  std::string cache_name_;
};

}  // namespace tavrel::tests

#endif
