/// @file
/// A machine's membership in an Active Directory domain, with AES keys.
#ifndef TAVREL_PLUS_MEMBERSHIP_H
#define TAVREL_PLUS_MEMBERSHIP_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tavrel/Export.h"

namespace tavrel::plus {

/// Why an operation ended as it did.
enum class Cause {
  kNone,               ///< it succeeded
  kBadArgument,        ///< what the caller gave cannot be used; nothing was asked
  kNoController,       ///< DNS names no controller of the domain
  kUnreachable,        ///< no controller took a connection, or the one at work closed it
  kTimedOut,           ///< nothing came within the time given
  kBadCredentials,     ///< the user is unknown, or the password or key is wrong
  kCredentialsBarred,  ///< the user is known, but disabled, locked or expired
  kClockSkew,          ///< this machine's clock and the controller's are too far apart
  kNotTrusted,         ///< the controller did not prove who it is, or offered less than was asked
  kAccessDenied,       ///< the directory does not let this user do it
  kNoAccount,          ///< there is no such account
  kAccountBarred,      ///< the machine's account is disabled, or is no computer's
  kNameTaken,          ///< another account has the name or one of the service names
  kRefused,            ///< the controller refused for a reason of its own
  kNoEncryptionType,   ///< the KDC has no key of a type that was asked for
  kKeysDoNotWork,      ///< the KDC does not accept the machine's keys
  kKeytab,             ///< the keytab cannot be read, or not be replaced
  kBusy,               ///< another process works on the keytab for as long as there was time
  kProtocol,           ///< an answer that means nothing
  kLibrary,            ///< a library failed by itself, for lack of memory say
  kReferred,           ///< the controller names others, as a read-only one does for a change
};

/// What an operation was doing.
enum class Step {
  kNone,       ///< nothing: it succeeded
  kArguments,  ///< reading what the caller gave
  kKeytab,     ///< opening the keytab, or waiting for another process that has it
  kDiscovery,  ///< finding the domain's controllers
  kConnect,    ///< connecting to a controller
  kSignIn,     ///< getting a ticket with the credentials
  kBind,       ///< proving both sides to each other, and securing the connection
  kLookUp,     ///< reading the account
  kCreate,     ///< creating the account
  kUpdate,     ///< changing the account's properties
  kPassword,   ///< setting the account's password
  kSalt,       ///< asking the KDC how keys are made
  kProof,      ///< using the keys
  kWrite,      ///< replacing the keytab
  kRemove,     ///< disabling or deleting the account
};

/// The name of `cause` or of `step` without its "k": "ClockSkew". Never null.
TAVREL_EXPORT const char* ToText(Cause cause);
/// @overload
TAVREL_EXPORT const char* ToText(Step step);

/// How an operation ended.
struct Result {
  Cause cause = Cause::kNone;
  Step step = Step::kNone;  ///< where it ended; kNone when it succeeded
  bool changed = false;     ///< the directory or the keytab is no longer as before
  std::string controller;   ///< the one that was asked last, "dc1.corp.example.com"; may be empty
  std::string text;         ///< the words of the library or of the server; empty when it succeeded

  explicit operator bool() const { return cause == Cause::kNone; }
};

/// Who an operation signs in as. A copy shares the secret, which is wiped with the last of them.
class TAVREL_EXPORT Credentials {
 public:
  /// A user of the domain, "alice", or of another realm, "alice@OTHER.EXAMPLE.COM". The password is
  /// used for Kerberos, and never sent, unless MembershipOptions::simple_bind says so.
  static Credentials Password(std::string user, std::string_view password);

  /// The machine's own account, made beforehand, with the password that it was made with.
  static Credentials OneTimePassword(std::string_view password);

  /// The tickets of a credential cache: its name as in `KRB5CCNAME`, or the default one when empty.
  static Credentials Cache(std::string name = {});

  /// A key of `principal` from a keytab that is not the machine's.
  static Credentials Keytab(std::string path, std::string principal);

  /// The machine's own account, with the keys in its keytab.
  static Credentials Machine();

  struct Data;
  const Data& Get() const { return *data_; }

 private:
  explicit Credentials(std::shared_ptr<const Data> data) : data_(std::move(data)) {}

  std::shared_ptr<const Data> data_;
};

/// Which keys an account has, as its `msDS-SupportedEncryptionTypes` says ([MS-KILE] 2.2.7).
enum class EncryptionTypes : std::uint32_t {
  kAes = 24,                          ///< AES-256 and AES-128
  kAesAndRc4 = 28,                    ///< and RC4
  kAesAndRc4WithAesSessionKeys = 60,  ///< and RC4, with AES session keys where a peer has only RC4
};

/// What a membership may be told. What is left out is found out, or is the safe choice.
struct MembershipOptions {
  /// Names of controllers, in the order in which they are tried. When empty, DNS is asked.
  std::vector<std::string> controllers;

  /// The site whose controllers DNS is asked for first.
  std::string site;

  /// The distinguished name of the container in which an account is created; the domain's
  /// `CN=Computers` when empty. An account that exists is used wherever it lies.
  std::string container;

  /// The account's name without its "$", at most 15 characters; derived from the host name when
  /// empty, as tavrel::JoinParameters::GetAccountName() does.
  std::string account_name;

  /// The machine's name in DNS; when empty, the host name up to its first ".", in the domain.
  std::string dns_name;

  /// Services besides "HOST" that clients may ask for, "HTTP" for example. Each becomes a service
  /// name of the account, for the machine's name in DNS.
  std::vector<std::string> services;

  EncryptionTypes encryption_types = EncryptionTypes::kAes;

  /// How long the domain's tickets live: for so long an old key stays in the keytab.
  std::chrono::seconds ticket_lifetime = std::chrono::hours(10);

  /// Sends the password to the controller, over TLS whose certificate names the controller and is
  /// verified, instead of proving it with Kerberos. Serves Credentials::Password() alone.
  bool simple_bind = false;

  /// The authorities that vouch for a controller's certificate, a PEM file; those of the system
  /// when empty. Used with `simple_bind` only.
  std::string ca_file;
};

/// What Leave() does with the account.
enum class Departure {
  kDisable,  ///< it stays, and cannot be used
  kDelete,   ///< it goes, and all that lies beneath it
};

/// Another account that has a service name of the machine.
struct ServiceNameConflict {
  std::string service_name;
  std::string account;  ///< its distinguished name
};

/// What Status() saw.
struct MembershipStatus {
  bool exists = false;  ///< there is an account; what follows speaks of it, if nothing else is said
  std::string account;  ///< its distinguished name
  /// The distinguished name of what it lies in. Without an account: of what Enrol() would create it
  /// in, empty when that is not there.
  std::string container;
  bool may_be_made = false;  ///< there is none, and the directory lets this user create it
  std::uint32_t user_account_control = 0;  ///< its flags ([MS-ADTS] 2.2.16)
  bool enabled = false;
  std::uint32_t encryption_types = 0;  ///< `msDS-SupportedEncryptionTypes`; 0 when it has none
  std::string dns_name;
  std::vector<std::string> service_names;
  std::vector<ServiceNameConflict> conflicts;  ///< without an account: of the names it is to have
  std::uint32_t key_version = 0;               ///< the directory's
  std::vector<std::uint32_t> keytab_key_versions;  ///< the machine's in the keytab, highest first
  bool keys_work = false;                          ///< the KDC accepted one of these
  std::optional<std::chrono::system_clock::time_point> password_set;
};

/// A machine's membership in one domain: its computer account, and the keys of it in a keytab that
/// the core (tavrel::KrbRealm) and any other Kerberos service can use.
///
/// Each operation takes the longest time it may take, and ends within a second of that. It picks
/// one controller and does everything there, Kerberos included. A controller that cannot be
/// reached, is silent, or names others for a change is left for the next. Each can be repeated,
/// whatever became of it before: an end by a signal at any moment leaves nothing that repeating
/// does not mend. None throws on what a network, a disk or a peer does; `std::bad_alloc` passes.
/// None needs or changes the process's environment, working folder, signal handlers or default
/// keytab and credential cache.
///
/// An object serves one operation at a time. Operations on one keytab wait for each other, those of
/// other processes included. The keytab is replaced as a whole, with its owner, group and mode; it
/// is made with mode 0600.
class TAVREL_EXPORT Membership {
 public:
  /// @param domain  the domain's DNS name; its realm is that name in capitals
  /// @param keytab  the path of the machine's keytab; it need not exist
  Membership(std::string domain, std::string keytab, MembershipOptions options = {});
  Membership(const Membership&) = delete;
  Membership& operator=(const Membership&) = delete;
  ~Membership();

  /// Makes the machine a member. Finds or creates the account, enables it, and sets its encryption
  /// types, DNS name and service names where they differ. When keys in the keytab work and fit the
  /// account's encryption types, that is all. Otherwise sets a new password, derives a key of each
  /// type as the KDC says, uses them once, and writes them to the keytab with the directory's key
  /// version; older keys stay for as long as tickets live.
  ///
  /// The machine looks by itself, with its own keys, whether anything is to be done. The
  /// credentials are used when something is, so wrong ones go unnoticed when nothing is.
  Result Enrol(const Credentials& credentials, std::chrono::milliseconds limit);

  /// Gives the account a new password, with the keys in the keytab as the only credentials. The new
  /// keys are in the keytab before the first ticket can need them.
  Result Rotate(std::chrono::milliseconds limit);

  /// As Rotate(), when the newest key is at least `age` old, or from a time that is yet to come.
  /// Otherwise nobody is asked, and only keys whose time is over leave the keytab.
  Result RotateWhenOlderThan(std::chrono::hours age, std::chrono::milliseconds limit);

  /// Disables or deletes the account, and then removes the machine's keys from the keytab. Where
  /// there is no account, the keys alone.
  Result Leave(const Credentials& credentials, Departure departure,
               std::chrono::milliseconds limit);

  /// Reads the account and tries the keys. Changes nothing.
  Result Status(const Credentials& credentials, std::chrono::milliseconds limit,
                MembershipStatus& status);

  /// The account's principal, "APPLIANCE$@CORP.EXAMPLE.COM".
  std::string Principal() const;

 private:
  class Operation;
  struct Settings;

  std::unique_ptr<const Settings> settings_;
};

}  // namespace tavrel::plus

#endif
