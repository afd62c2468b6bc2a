#include "Service.h"

#include <fcntl.h>
#include <krb5.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace tavrel::plus::tests {

namespace der = tavrel::tests::der;
using tavrel::tests::ApReq;
using tavrel::tests::Der;
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

std::string KeyField(krb5_enctype enctype, std::size_t size) {
  return TypedField(enctype, std::string(size, '\0'));
}

std::string TypedField(std::int32_t type, const std::string& bytes) {
  return Der(0x30, der::Field(0, der::Integer(type)) + der::Field(1, Der(0x04, bytes)));
}

ForgedToken::ForgedToken(ForgedTicket of) : ticket(std::move(of)) {
  of_ticket = {{0, der::BitString(static_cast<std::uint32_t>(ticket.flags))},
               {1, KeyField(session_enctype, 32)},
               {2, Der(0x1b, ticket.client_realm)},
               {3, der::PrincipalName(ticket.client)},
               {4, TypedField(0, "")},
               {5, der::Time(ticket.authtime)},
               {6, der::Time(ticket.starttime)},
               {7, der::Time(ticket.endtime)}};
  if (!ticket.authorization_data.empty()) of_ticket[10] = ticket.authorization_data;
  of_authenticator = {
      {0, der::Integer(5)}, {1, of_ticket[2]},
      {2, of_ticket[3]},    {3, TypedField(0x8003, *ticket.gss_checksum)},
      {4, der::Integer(1)}, {5, der::Time(static_cast<krb5_timestamp>(std::time(nullptr)))}};
}

ForgedToken::ForgedToken()
    : ForgedToken([] {
        static const ForgedTicket ticket = TicketWithPac();  // a PAC takes a while to sign
        return ticket;
      }()) {}

namespace {

std::string Message(unsigned char number, const ForgedToken::Fields& fields) {
  std::string content;
  for (const auto& [field, value] : fields) {
    content += der::Field(field, value);
  }
  return Der(static_cast<unsigned char>(0x60 | number), Der(0x30, content));
}

}  // namespace

std::string ForgedToken::TicketPart() const {
  return Message(3, of_ticket);
}

std::string ForgedToken::Authenticator() const {
  return Message(2, of_authenticator);
}

namespace {

krb5_context Library() {
  static const krb5_context context = [] {
    krb5_context made = nullptr;
    krb5_init_context(&made);
    return made;
  }();
  return context;
}

std::string SealedForService(const std::string& ticket_part) {
  static const krb5_keyblock service = ServiceKey(Library(), Ticket());
  return tavrel::tests::Encrypt(Library(), service, tavrel::tests::kTicketKeyUsage, ticket_part);
}

}  // namespace

void ForgedToken::Issue() {
  issued = SealedForService(TicketPart());
}

std::string ForgedToken::Sealed(const std::string& ticket_part,
                                const std::string& authenticator) const {
  krb5_octet zeros[32]{};
  krb5_keyblock session{};
  session.enctype = session_enctype;
  session.length = session_enctype == ENCTYPE_AES256_CTS_HMAC_SHA1_96 ? 32 : 16;
  session.contents = zeros;
  const std::string sealed_authenticator = tavrel::tests::Encrypt(
      Library(), session, tavrel::tests::kAuthenticatorKeyUsage, authenticator);
  const std::string sealed_ticket = Der(
      0x30, der::Field(0, der::Integer(ticket.etype)) + der::Field(1, der::Integer(ticket.kvno)) +
                der::Field(2, Der(0x04, issued.empty() ? SealedForService(ticket_part) : issued)));
  const Fields of_request = {{0, der::Integer(5)},
                             {1, der::Integer(14)},
                             {2, der::BitString(static_cast<std::uint32_t>(ticket.options))},
                             {3, Message(1, {{0, der::Integer(5)},
                                             {1, Der(0x1b, ticket.server_realm)},
                                             {2, der::PrincipalName(ticket.server)},
                                             {3, sealed_ticket}})},
                             {4, Der(0x30, der::Field(0, der::Integer(session_enctype)) +
                                               der::Field(2, Der(0x04, sealed_authenticator)))}};
  const std::string request = Message(14, of_request);
  const std::vector<char> token = GssToken({request.begin(), request.end()});
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

HeldUp::HeldUp(const Service& service, const Acceptor& acceptor)
    : keytab_(open(service.options.keytab.c_str(), O_RDWR | O_CLOEXEC)) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  struct stat status {};
  if (fcntl(keytab_, F_OFD_SETLK, &lock) != 0 || futimens(keytab_, nullptr) != 0 ||
      fstat(keytab_, &status) != 0) {
    throw std::runtime_error("no lock of " + service.options.keytab);
  }
  ForgedTicket of_another = TicketWithPac();
  of_another.password = "Another.1";
  thread_ = std::thread([&acceptor, token = Token(of_another)] { acceptor.Accept(token); });
  const std::string file = ":" + std::to_string(status.st_ino) + " ";
  for (bool waits = false; !waits;) {
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
      if (line.find("->") != std::string::npos && line.find(file) != std::string::npos)
        waits = true;
    }
  }
}

void HeldUp::Release() const {
  struct flock lock {};
  lock.l_type = F_UNLCK;
  fcntl(keytab_, F_OFD_SETLK, &lock);
}

HeldUp::~HeldUp() {
  Release();
  thread_.join();
  close(keytab_);
}

}  // namespace tavrel::plus::tests
