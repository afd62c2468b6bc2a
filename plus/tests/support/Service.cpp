#include "Service.h"

#include <krb5.h>
#include <openssl/evp.h>

#include <stdexcept>

namespace tavrel::plus::tests {

using tavrel::tests::ApReq;
using tavrel::tests::ForgedTicket;
using tavrel::tests::GssToken;
using tavrel::tests::ServiceKey;
using tavrel::tests::SpnegoToken;

std::string GssChecksum(const std::string& channel, std::uint32_t flags) {
  std::string digest(16, '\0');
  if (!channel.empty()) {
    const std::string bindings =
        NdrWriter().PutBytes(std::string(16, '\0')).Put32(channel.size()).PutBytes(channel).Bytes();
    EVP_Digest(bindings.data(), bindings.size(), reinterpret_cast<unsigned char*>(digest.data()),
               nullptr, EVP_md5(), nullptr);
  }
  return NdrWriter().Put32(16).PutBytes(digest).Put32(flags).Bytes();
}

ForgedTicket Ticket() {
  ForgedTicket ticket;
  ticket.etype = ENCTYPE_AES256_CTS_HMAC_SHA1_96;
  ticket.gss_checksum = GssChecksum();
  return ticket;
}

ForgedTicket TicketWithPac(const ForgedUser& user) {
  return WithPac(Ticket(), PartsOf(user));
}

std::string Token(const ForgedTicket& ticket) {
  const std::vector<char> token = GssToken(ApReq(ticket));
  return {token.begin(), token.end()};
}

std::string Negotiated(const ForgedTicket& ticket, const std::vector<std::string>& mechanisms) {
  const std::vector<char> token = SpnegoToken(GssToken(ApReq(ticket)), mechanisms);
  return {token.begin(), token.end()};
}

void AddKey(const std::string& path, const ForgedTicket& ticket) {
  krb5_context context = nullptr;
  krb5_keytab keytab = nullptr;
  krb5_keytab_entry entry{};
  std::string name;
  for (const std::string& component : ticket.server) {
    name += (name.empty() ? "" : "/") + component;
  }
  name += "@" + ticket.server_realm;
  bool added = krb5_init_context(&context) == 0 &&
               krb5_kt_resolve(context, ("FILE:" + path).c_str(), &keytab) == 0 &&
               krb5_parse_name(context, name.c_str(), &entry.principal) == 0;
  if (added) {
    entry.vno = ticket.kvno;
    entry.key = ServiceKey(context, ticket);
    added = krb5_kt_add_entry(context, keytab, &entry) == 0;
  }
  krb5_free_keytab_entry_contents(context, &entry);
  krb5_kt_close(context, keytab);
  krb5_free_context(context);
  if (!added) throw std::runtime_error("no entry in " + path);
}

Service::Service(AcceptorOptions chosen) : options(std::move(chosen)) {
  options.keytab = settings / "keytab";
  options.replay_file = settings / "replay";
  options.replay_capacity = 1024;
  AddKey(options.keytab, Ticket());
}

std::unique_ptr<Acceptor> Service::Make() const {
  std::string error;
  auto acceptor = Acceptor::Make(options, &error);
  if (!acceptor) throw std::runtime_error(error);
  return acceptor;
}

}  // namespace tavrel::plus::tests
