#include "tavrel/KrbKeytab.h"

#include <algorithm>
#include <list>
#include <utility>

#include "KeytabFile.h"
#include "KrbSupport.h"
#include "platform/bounded_memory.h"
#include "tavrel/KrbContext.h"
#include "tavrel/KrbError.h"

namespace tavrel {
namespace {

const Logger logger("krb-keytab");

using KrbSalt = std::unique_ptr<krb5_data, KrbFree<krb5_free_data_contents>>;
using KrbKey = std::unique_ptr<krb5_keyblock, KrbFree<krb5_free_keyblock_contents>>;
using KrbCreds = std::unique_ptr<krb5_creds, KrbFree<krb5_free_cred_contents>>;
using KrbAuthContext =
    std::unique_ptr<std::remove_pointer_t<krb5_auth_context>, KrbFree<krb5_auth_con_free>>;
using KrbTicket = std::unique_ptr<krb5_ticket, KrbFree<krb5_free_ticket>>;

// An entry read from a keytab and the contents that libkrb5 allocated for it.
class Entry {
 public:
  Entry(krb5_context context, const krb5_keytab_entry& entry) : context_(context), entry_(entry) {}
  Entry(Entry&& other) noexcept
      : context_(std::exchange(other.context_, nullptr)), entry_(other.entry_) {}
  Entry& operator=(Entry&&) = delete;
  ~Entry() {
    if (context_ != nullptr) krb5_free_keytab_entry_contents(context_, &entry_);
  }

  krb5_keytab_entry& Get() { return entry_; }

 private:
  krb5_context context_;  // null once moved from
  krb5_keytab_entry entry_;
};

// An open keytab cursor. Destroying it closes it, if nobody did before.
class Cursor {
 public:
  Cursor(krb5_context context, krb5_keytab keytab) : context_(context), keytab_(keytab) {}
  Cursor(const Cursor&) = delete;
  Cursor& operator=(const Cursor&) = delete;
  ~Cursor() { Close(); }

  krb5_error_code Open() {
    if (context_ == nullptr) return kNoContext;
    if (keytab_ == nullptr) return kNoKeytab;
    const krb5_error_code code = krb5_kt_start_seq_get(context_, keytab_, &cursor_);
    open_ = code == 0;
    return code;
  }

  // False at the end of the keytab, and when an entry cannot be read.
  bool Next(krb5_keytab_entry& entry) {
    return krb5_kt_next_entry(context_, keytab_, &entry, &cursor_) == 0;
  }

  krb5_error_code Close() {
    return std::exchange(open_, false) ? krb5_kt_end_seq_get(context_, keytab_, &cursor_) : 0;
  }

 private:
  krb5_context context_;
  krb5_keytab keytab_;
  krb5_kt_cursor cursor_ = nullptr;
  bool open_ = false;
};

struct WalkResult {
  krb5_error_code opened;  // not 0: nothing was visited
  krb5_error_code closed;
};

// Calls `visit` with every entry, which it may move away, until it returns false.
template <typename Visit>
WalkResult Walk(const KrbContext& krb, Visit visit) {
  Cursor cursor(krb.context, krb.keytab);
  if (const krb5_error_code code = cursor.Open()) return {code, 0};

  krb5_keytab_entry read{};
  while (cursor.Next(read)) {
    Entry entry(krb.context, read);
    if (!visit(entry)) break;
  }
  return {0, cursor.Close()};
}

// libkrb5 would crash on a null principal.
bool SamePrincipal(krb5_context context, krb5_const_principal a, krb5_const_principal b) {
  return a != nullptr && b != nullptr && krb5_principal_compare(context, a, b) != 0;
}

// The code of an operation that lacks the context or the client principal it needs.
krb5_error_code MissingClient(const KrbContext& krb) {
  if (krb.context == nullptr) return kNoContext;
  return krb.client_principal == nullptr ? kNoPrincipal : 0;
}

// The name components of `principal`, which may be null.
struct Components {
  explicit Components(krb5_const_principal principal)
      : first(principal != nullptr ? principal->data : nullptr),
        count(principal != nullptr ? std::max(principal->length, 0) : 0) {}

  const krb5_data* begin() const { return first; }
  const krb5_data* end() const { return first + count; }

  const krb5_data* first;
  krb5_int32 count;
};

// A principal as PrintCreds logs it: the realm, then a blank and the component for each component.
std::string RealmAndComponents(krb5_const_principal principal) {
  std::string text;
  if (principal != nullptr) text.append(View(principal->realm));
  for (const krb5_data& component : Components(principal)) {
    text.append(" ").append(View(component));
  }
  return text;
}

// How both AS exchanges end: the status of a ticket just obtained.
int CheckInitialTicket(const krb5_creds& creds, Site site = Site::Here()) {
  Keytab::PrintCreds(creds);
  if (KrbTicketValidator::IsStartTimeValid(creds.times)) return kSuccess;
  logger.Warning({"Clock difference with KDC detected", site});
  return kClockSkew;
}

// Says who a ticket's client is: realm, backslash and the last name component. Logs that text once
// for each component. Empty for a principal without components.
std::string UserOf(krb5_const_principal client, Site site = Site::Here()) {
  std::string user;
  int index = 0;
  for (const krb5_data& component : Components(client)) {
    user.clear();
    user.reserve(client->realm.length + 1 + component.length);
    user.append(View(client->realm)).push_back('\\');
    user.append(View(component));
    logger.Detail({"AP request (", site}, index++, "): ", user);
  }
  return user;
}

}  // namespace

KeytabMatcher::KeytabMatcher(krb5_context context, krb5_keytab_entry* reference)
    : context_(context), reference_(reference), last_vno_(0), current_(false) {}

void KeytabMatcher::Process(const krb5_keytab_entry& entry) {
  if (!SamePrincipal(context_, entry.principal, reference_->principal)) return;

  const std::uint32_t vno = entry.vno;
  if (current_ && vno > last_vno_) {
    current_ = false;  // a newer version follows the one that matched
  } else if (vno < last_vno_) {
    last_vno_ = vno;  // also of an older version after a newer one: its key does not count
    return;
  }
  const krb5_keyblock& key = reference_->key;
  if (entry.key.length == key.length &&
      std::equal(key.contents, key.contents + key.length, entry.key.contents)) {
    current_ = true;
  }
  last_vno_ = vno;
}

bool KeytabMatcher::IsKeyCurrent() const {
  return current_;
}

void KeytabPrinter::Process(const krb5_keytab_entry& entry) {
  if (entry.principal == nullptr) {
    logger.Detail("Key: <no principal> version ", entry.vno, " at ", entry.timestamp);
    return;
  }
  const Components components(entry.principal);
  const std::string_view first = components.count > 0 ? View(*components.first) : "";
  logger.Detail("Key: ", first, "@", View(entry.principal->realm), " version ", entry.vno, " at ",
                entry.timestamp);
}

Keytab::Keytab(KrbContext* context) : context_(context) {}

krb5_error_code Keytab::Iterate(KeytabAccumulator& visitor) {
  const auto [opened, closed] = Walk(*context_, [&](Entry& entry) {
    visitor.Process(entry.Get());
    return true;
  });
  return opened != 0 ? opened : closed;
}

krb5_error_code Keytab::Print() {
  KeytabPrinter printer;
  return Iterate(printer);
}

std::uint32_t Keytab::GetNextClientVno() {
  std::uint32_t highest = 0;
  Walk(*context_, [&](Entry& entry) {
    const krb5_keytab_entry& read = entry.Get();
    if (SamePrincipal(context_->context, context_->client_principal, read.principal)) {
      highest = std::max(highest, std::uint32_t{read.vno});
    }
    return true;
  });
  return std::max(highest + 1, highest);  // the largest version has no next one; 0 is not a version
}

bool Keytab::HasKey() const {
  bool found = false;
  const auto [opened, closed] = Walk(*context_, [&](Entry& entry) {
    found = SamePrincipal(context_->context, context_->client_principal, entry.Get().principal);
    return !found;
  });
  KrbFailed(opened, "Error starting keytab sequence: ", logger, context_->context);
  KrbFailed(closed, "Error ending keytab sequence: ", logger, context_->context);
  return found;
}

bool Keytab::WriteKey(const std::string& password, std::string* error) {
  const krb5_context context = context_->context;
  krb5_data salt_data{};
  krb5_error_code code = MissingClient(*context_);
  if (code == 0) code = krb5_principal2salt(context, context_->client_principal, &salt_data);
  if (KrbFailed(code, "Error generating principal salt: ", logger, context, error)) return false;
  KrbSalt salt(&salt_data, {context});

  krb5_keytab_entry entry;
  __memset_to_buf(sizeof entry, &entry, 0, sizeof entry);
  entry.principal = context_->client_principal;  // borrowed
  entry.vno = GetNextClientVno();

  krb5_data secret{};
  secret.length = static_cast<unsigned int>(password.size());
  secret.data = const_cast<char*>(password.data());  // only read
  code = krb5_c_string_to_key(context, ENCTYPE_ARCFOUR_HMAC, &secret, salt.get(), &entry.key);
  salt.reset();
  if (KrbFailed(code, "Error creating key from password: ", logger, context, error)) return false;
  const KrbKey key(&entry.key, {context});

  KeytabMatcher matcher(context, &entry);
  Iterate(matcher);
  if (matcher.IsKeyCurrent()) return true;

  code = context_->keytab != nullptr ? MendKeytabFile(context, context_->keytab) : kNoKeytab;
  if (code == 0) code = krb5_kt_add_entry(context, context_->keytab, &entry);
  return !KrbFailed(code, "Error adding key to keytab: ", logger, context, error);
}

bool Keytab::ClearKeys(std::string* error) {
  const krb5_context context = context_->context;
  std::list<Entry> removals;
  const auto [opened, closed] = Walk(*context_, [&](Entry& entry) {
    if (SamePrincipal(context, entry.Get().principal, context_->client_principal)) {
      removals.push_back(std::move(entry));
    }
    return true;
  });
  if (KrbFailed(opened, "Error starting keytab sequence: ", logger, context)) return false;
  const bool close_failed =
      KrbFailed(closed, "Error ending keytab sequence: ", logger, context, error);
  if (removals.empty()) return !close_failed;

  // The cursor is closed by now: a keytab must not be modified under an open one.
  for (; !removals.empty(); removals.pop_front()) {
    const krb5_error_code code =
        krb5_kt_remove_entry(context, context_->keytab, &removals.front().Get());
    if (KrbFailed(code, "Error removing keytab entry: ", logger, context, error)) return false;
  }
  return true;  // even if the close failed: the keys are gone, as asked for
}

int Keytab::ASAuthenticate(std::string* error) {
  const krb5_context context = context_->context;
  if (context_->keytab == nullptr) {
    logger.Error("Invalid keytab file name.");
    return kFailure;
  }
  if (context != nullptr && krb5_kt_have_content(context, context_->keytab) != 0) {
    static constexpr char kNotCreated[] = "Keytab file not created yet.";
    if (error != nullptr) *error = kNotCreated;
    logger.Detail(kNotCreated);
    return kFailure;
  }
  krb5_creds obtained{};
  krb5_error_code code = MissingClient(*context_);
  if (code == 0) {
    code = krb5_get_init_creds_keytab(context, &obtained, context_->client_principal,
                                      context_->keytab, 0, nullptr, nullptr);
  }
  if (KrbFailed(code, "Error authenticating through keytab: ", logger, context, error)) {
    return KrbErrorToStatus(code);
  }
  const KrbCreds creds(&obtained, {context});
  return CheckInitialTicket(*creds);
}

int Keytab::ASAuthenticate(std::string password, std::string* error) {
  const krb5_context context = context_->context;
  krb5_creds obtained{};
  krb5_error_code code = MissingClient(*context_);
  if (code == 0) {
    code = krb5_get_init_creds_password(context, &obtained, context_->client_principal,
                                        password.c_str(), nullptr, nullptr, 0, nullptr, nullptr);
  }
  if (KrbFailed(code, "Error authenticating through password: ", logger, context, error)) {
    return KrbErrorToStatus(code);
  }
  const KrbCreds creds(&obtained, {context});
  return CheckInitialTicket(*creds);
}

std::string Keytab::APAuthenticate(char* request, int length) {
  const krb5_context context = context_->context;
  krb5_auth_context auth = nullptr;
  krb5_error_code code = context != nullptr ? krb5_auth_con_init(context, &auth) : kNoContext;
  if (KrbFailed(code, "Error initializing auth context: ", logger, context)) return "";
  const KrbAuthContext owned_auth(auth, {context});

  krb5_data ap_req{};
  ap_req.length = static_cast<unsigned int>(std::max(length, 0));
  ap_req.data = request;
  krb5_ticket* decoded = nullptr;
  // Without a server principal every key of the ticket's encryption type is tried. Without a keytab
  // libkrb5 would use the default one.
  code = context_->keytab != nullptr
             ? krb5_rd_req(context, &auth, &ap_req, nullptr, context_->keytab, nullptr, &decoded)
             : kNoKeytab;
  const KrbTicket ticket(decoded, {context});
  KrbFailed(code, "Error reading AP request: ", logger, context);
  if (!ticket) return "";

  std::string user;
  bool times_valid = true;
  if (const krb5_enc_tkt_part* part = ticket->enc_part2) {
    user = UserOf(part->client);
    times_valid = KrbTicketValidator::IsTicketTimeValid(part->times);
    if (!times_valid) logger.Notice("Invalid timestamp for AP request for user: ", user);
  }
  // Both checks always run, so that the log has every reason for a refusal.
  if (!SamePrincipal(context, context_->client_principal, ticket->server)) {
    logger.Notice("Invalid server principal for AP request for user ", user);
    PrintPrincipal(ticket->server, "AP request server principal: ");
    PrintPrincipal(context_->client_principal, "Joined server principal: ");
    return "";
  }
  if (!times_valid) user.clear();
  return user;
}

void Keytab::PrintPrincipal(const krb5_principal& principal, const std::string& label) {
  for (const krb5_data& component : Components(principal)) {
    logger.Detail(label, View(component), "@", View(principal->realm));
  }
}

void Keytab::PrintCreds(const krb5_creds& creds) {
  logger.Detail("serverprincipal: ", RealmAndComponents(creds.server));
  logger.Detail("clientprincipal: ", RealmAndComponents(creds.client));
}

}  // namespace tavrel
