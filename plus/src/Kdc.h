// Kerberos with one controller and no other, for as long as there is time.
#ifndef TAVREL_PLUS_SRC_KDC_H
#define TAVREL_PLUS_SRC_KDC_H

#include <krb5.h>

#include <memory>
#include <string>
#include <vector>

#include "Controller.h"
#include "Deadline.h"
#include "Failure.h"
#include "KrbSupport.h"
#include "Secret.h"
#include "Socket.h"

namespace tavrel::plus {

using KrbPrincipal = std::unique_ptr<krb5_principal_data, KrbFree<krb5_free_principal>>;
using KrbCache = std::unique_ptr<struct _krb5_ccache, KrbFree<krb5_cc_destroy>>;

// One key of the machine's.
struct MachineKey {
  krb5_enctype type;
  Secret key;
};

// Takes what a KDC may say about making a key of a password.
struct KeyRecipe {
  krb5_enctype type = ENCTYPE_NULL;
  std::string salt;
  std::string parameters;  // empty for the type's own
};

// libkrb5 with settings of its own: those of the machine, except that the realm's only KDC is the
// controller's, and that messages to it go through here. So no look-up of another KDC, no second
// controller for a password that the first refused, and no wait beyond the deadline.
class Kdc {
 public:
  // What is given must outlive the object.
  Kdc(const std::string& realm, const Controller& controller, const Address& address,
      const Deadline& deadline)
      : realm_(realm), controller_(controller), address_(address), deadline_(deadline) {}
  Kdc(const Kdc&) = delete;
  Kdc& operator=(const Kdc&) = delete;
  ~Kdc();

  Failure Open();
  krb5_context Context() const { return context_; }
  const Controller& Where() const { return controller_; }

  // A principal by name, with this realm where it names none.
  Failure Parse(const std::string& name, KrbPrincipal& principal);

  // Gets an initial ticket into a cache in memory: for `service`, or for more tickets when it is
  // null. With these types only.
  Failure SignIn(krb5_principal client, const Secret& password,
                 const std::vector<krb5_enctype>& types, const char* service, KrbCache& cache);
  Failure SignIn(krb5_principal client, const std::vector<MachineKey>& keys, const char* service,
                 KrbCache& cache);
  Failure SignIn(krb5_principal client, krb5_keytab keytab, const std::vector<krb5_enctype>& types,
                 const char* service, KrbCache& cache);

  // Copies the tickets of another cache into one in memory.
  Failure Copy(const std::string& name, KrbCache& cache);

  // Adds a ticket for the service on this controller: "ldap".
  Failure GetTicket(const char* service, krb5_ccache cache);

  // How the KDC makes a key for the principal, of one of `types`. A way that would take this side
  // long is a failure.
  Failure GetRecipe(krb5_principal principal, const std::vector<krb5_enctype>& types,
                    KeyRecipe& recipe);

  // Changes the password of the cache's client, whose ticket is for "kadmin/changepw" (RFC 3244).
  // `is_unknown` tells that the answer did not come: it may be changed or not.
  Failure ChangePassword(krb5_ccache cache, const Secret& password, bool& is_unknown);

  // What `code` means. What was sent in vain comes before what libkrb5 makes of it.
  Failure Explain(krb5_error_code code) const;

 private:
  static krb5_error_code Send(krb5_context context, void* self, const krb5_data* realm,
                              const krb5_data* message, krb5_data** new_message, krb5_data** reply);
  bool Connect(std::uint16_t port, const Deadline& limit, Socket& socket) const;
  bool Exchange(Socket& socket, std::string_view message, std::uint32_t largest,
                std::string& reply) const;

  const std::string& realm_;
  const Controller& controller_;
  const Address& address_;
  const Deadline& deadline_;
  krb5_context context_ = nullptr;
  int error_ = 0;  // of the last message that could not be sent or was not answered
};

// A key of `password` by `recipe`.
krb5_error_code DeriveKey(krb5_context context, const Secret& password, const KeyRecipe& recipe,
                          MachineKey& key);

}  // namespace tavrel::plus

#endif
