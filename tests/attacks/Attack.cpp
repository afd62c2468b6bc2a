#include "Attack.h"

#include <krb5.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace tavrel::tests {
namespace {

void Check(krb5_error_code code, const char* step) {
  if (code != 0) throw std::runtime_error(std::string("cannot ") + step);
}

}  // namespace

FalseController::FalseController()
    : peer_([this](Connection& connection) {
        ServeLdap(connection, {{kExtended,
                                [this](Connection& client, const LdapRequest& request) {
                                  client.Send(LdapResult(request, LDAP_SUCCESS));
                                  client.StartTls(certificate_);
                                }},
                               {kBind, [this](Connection& client, const LdapRequest& request) {
                                  {
                                    const std::lock_guard<std::mutex> lock(mutex_);
                                    binds_ += request.content;
                                  }
                                  client.Send(LdapResult(request, LDAP_INVALID_CREDENTIALS));
                                }}});
      }) {}

std::string FalseController::Binds() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return binds_;
}

void Shell(const std::string& command) {
  if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

std::vector<char> RequestFrom(const std::string& cache, const std::string& client,
                              const std::string& service) {
  krb5_context context = nullptr;
  Check(krb5_init_context(&context), "begin");
  const std::unique_ptr<std::remove_pointer_t<krb5_context>, void (*)(krb5_context)> owned_context(
      context, krb5_free_context);
  krb5_ccache tickets = nullptr;
  Check(krb5_cc_resolve(context, ("FILE:" + cache).c_str(), &tickets), "open the cache");
  const ParsedPrincipal from(client);
  const ParsedPrincipal to(service);
  krb5_creds wanted{};
  wanted.client = from.Get();
  wanted.server = to.Get();
  krb5_creds* ticket = nullptr;
  const krb5_error_code code = krb5_get_credentials(context, 0, tickets, &wanted, &ticket);
  krb5_cc_close(context, tickets);
  Check(code, "get a ticket");

  krb5_auth_context connection = nullptr;
  krb5_data request{};
  const krb5_error_code made =
      krb5_mk_req_extended(context, &connection, 0, nullptr, ticket, &request);
  krb5_free_creds(context, ticket);
  krb5_auth_con_free(context, connection);
  Check(made, "make a request");
  std::vector<char> bytes(request.data, request.data + request.length);
  krb5_free_data_contents(context, &request);
  return bytes;
}

std::string Attack::SignIn(KrbRealm& realm, std::vector<char> token) {
  return realm.Authenticate(token.data(), static_cast<int>(token.size()));
}

}  // namespace tavrel::tests
